#include "platform/file_handle.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace kerrow {
namespace {

// Bytes requested from the kernel per read while a long body arrives. The buffer grows by at most
// this much beyond what has arrived, so a hostile length prefix costs nothing up front.
constexpr std::size_t readChunk = 64 * 1024;

}  // namespace

FileHandle::FileHandle(int fileDescriptor) : descriptor_(fileDescriptor) {}

FileHandle::~FileHandle() {
    closeFile();
}

std::shared_ptr<FileHandle> FileHandle::standardInput() {
    static const auto handle = std::make_shared<FileHandle>(STDIN_FILENO);
    return handle;
}

std::shared_ptr<FileHandle> FileHandle::standardOutput() {
    static const auto handle = [] {
        std::signal(SIGPIPE, SIG_IGN);
        return std::make_shared<FileHandle>(STDOUT_FILENO);
    }();
    return handle;
}

Data FileHandle::readDataOfLength(std::size_t length) {
    Data data;
    while (data.size() < length) {
        const std::size_t wanted = std::min(length - data.size(), readChunk);
        const std::size_t filled = data.size();
        data.resize(filled + wanted);
        const ssize_t got = ::read(descriptor_, data.data() + filled, wanted);
        if (got < 0 && errno == EINTR) {
            data.resize(filled);
            continue;
        }
        data.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got <= 0) {
            break;
        }
    }
    return data;
}

bool FileHandle::waitForInput(int cancelDescriptor) {
    pollfd fds[2] = {{cancelDescriptor, POLLIN, 0}, {descriptor_, POLLIN, 0}};
    for (;;) {
        const int ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0) {
            return true;  // let the read itself report the failure as end of input
        }
        return fds[0].revents == 0;
    }
}

bool FileHandle::writeData(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t wrote = ::write(descriptor_, bytes.data(), bytes.size());
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(wrote));
    }
    return true;
}

void FileHandle::closeFile() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
}

}  // namespace kerrow
