#include "platform/file_handle.h"

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kerrow {
namespace {

// The read-ahead: what one read asks for at least (a pipe holds 64 KiB by default), so that a
// burst of small frames costs one system call per pipeful rather than two per frame.
constexpr std::size_t readAhead = 64 * 1024;
// How far the buffer may grow beyond what has arrived while a long record comes in, so a hostile
// length costs nothing up front.
constexpr std::size_t readChunk = 64 * 1024;
// A buffer that grew beyond this for a long record is given back once the record is consumed.
constexpr std::size_t retainedSize = 1024 * 1024;

}  // namespace

FileHandle::FileHandle(int fileDescriptor) : descriptor_(fileDescriptor) {}

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
    const auto held = peek(length).value();  // without a cancel descriptor there is always one
    const std::size_t taken = std::min(length, held.size());
    Data data(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(taken));
    consume(taken);
    return data;
}

std::optional<std::span<const std::uint8_t>> FileHandle::peek(std::size_t count,
                                                              int cancelDescriptor) {
    while (end_ - begin_ < count) {
        makeRoom(count);
        const Fill filled = fill(cancelDescriptor);
        if (filled == Fill::cancelled) {
            return std::nullopt;
        }
        if (filled == Fill::ended) {
            break;
        }
    }
    return std::span<const std::uint8_t>(buffer_.data() + begin_, end_ - begin_);
}

void FileHandle::consume(std::size_t count) {
    begin_ += std::min(count, end_ - begin_);
    if (begin_ == end_) {
        begin_ = end_ = 0;
        if (buffer_.capacity() > retainedSize) {
            Data().swap(buffer_);
        }
    }
}

void FileHandle::makeRoom(std::size_t count) {
    const std::size_t held = end_ - begin_;
    const std::size_t wanted = std::max(readAhead, std::min(count, held + readChunk));
    if (buffer_.capacity() > retainedSize && wanted <= retainedSize) {
        // The long record is gone: the few held bytes move to a buffer of ordinary size.
        Data smaller(wanted);
        std::memcpy(smaller.data(), buffer_.data() + begin_, held);
        buffer_.swap(smaller);
        begin_ = 0;
        end_ = held;
        return;
    }
    if (begin_ > 0) {  // at most one partial record moves, once per read
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (buffer_.size() < wanted) {
        buffer_.resize(wanted);
    }
}

FileHandle::Fill FileHandle::fill(int cancelDescriptor) {
    if (!descriptor_) {
        return Fill::ended;
    }
    if (cancelDescriptor >= 0) {
        pollfd fds[2] = {{cancelDescriptor, POLLIN, 0}, {descriptor_.get(), POLLIN, 0}};
        while (::poll(fds, 2, -1) < 0) {
            if (errno != EINTR) {
                return Fill::ended;  // the descriptor cannot be waited on, so it cannot be read
            }
        }
        if (fds[0].revents != 0) {
            return Fill::cancelled;
        }
    }
    for (;;) {
        const ssize_t got = ::read(descriptor_.get(), buffer_.data() + end_, buffer_.size() - end_);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return Fill::ended;
        }
        end_ += static_cast<std::size_t>(got);
        return Fill::more;
    }
}

bool FileHandle::writeParts(std::span<const std::span<const std::uint8_t>> parts) {
    constexpr std::size_t maximumParts = 8;  // callers write a few parts; more go in turns
    std::array<iovec, maximumParts> vector{};
    while (!parts.empty()) {
        std::size_t count = 0;
        for (; count < std::min(parts.size(), maximumParts); ++count) {
            // writev() only reads the parts; iovec just has no const member.
            vector[count] = {const_cast<std::uint8_t*>(parts[count].data()), parts[count].size()};
        }
        for (std::size_t first = 0; first < count;) {
            const ssize_t wrote =
                ::writev(descriptor_.get(), vector.data() + first, static_cast<int>(count - first));
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            if (wrote < 0 || (wrote == 0 && vector[first].iov_len > 0)) {
                return false;
            }
            for (auto left = static_cast<std::size_t>(wrote); first < count; ++first) {
                const std::size_t taken = std::min(left, vector[first].iov_len);
                vector[first].iov_base = static_cast<std::uint8_t*>(vector[first].iov_base) + taken;
                vector[first].iov_len -= taken;
                left -= taken;
                if (vector[first].iov_len > 0) {
                    break;
                }
            }
        }
        parts = parts.subspan(count);
    }
    return true;
}

bool FileHandle::writeData(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t wrote = ::write(descriptor_.get(), bytes.data(), bytes.size());
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
    descriptor_.reset();
    begin_ = end_ = 0;
    Data().swap(buffer_);
}

}  // namespace kerrow
