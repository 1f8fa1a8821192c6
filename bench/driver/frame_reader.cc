#include "bench/driver/frame_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "kit/frame_codec.h"

namespace kerrow::bench {
namespace {

constexpr std::size_t readChunk = 256 * 1024;

}  // namespace

FrameReader::FrameReader(int fd) : fd_(fd), buffer_(readChunk) {
    struct stat status {};
    socket_ = ::fstat(fd_, &status) == 0 && S_ISSOCK(status.st_mode);
    if (!socket_) {
        ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
    }
}

std::string_view FrameReader::next(std::chrono::steady_clock::time_point deadline) {
    fill(frameHeaderLength, deadline);
    const std::size_t length =
        decodeFrameLength(std::string_view(buffer_.data() + begin_, frameHeaderLength));
    fill(frameHeaderLength + length, deadline);
    const std::string_view body(buffer_.data() + begin_ + frameHeaderLength, length);
    begin_ += frameHeaderLength + length;
    return body;
}

long FrameReader::readSome() {
    char* const at = buffer_.data() + end_;
    const std::size_t room = buffer_.size() - end_;
    return socket_ ? ::recv(fd_, at, room, MSG_DONTWAIT) : ::read(fd_, at, room);
}

void FrameReader::fill(std::size_t wanted, std::chrono::steady_clock::time_point deadline) {
    if (end_ - begin_ >= wanted) {
        return;
    }
    // Keep the partial frame at the front and make room for the whole of it.
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    buffer_.resize(std::max({buffer_.size(), wanted, readChunk}));
    while (end_ < wanted) {
        const long got = readSome();
        if (got > 0) {
            end_ += static_cast<std::size_t>(got);
            continue;
        }
        if (got == 0) {
            throw std::runtime_error("end of stream while waiting for a frame");
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw std::runtime_error(std::string("read: ") + std::strerror(errno));
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            throw std::runtime_error("timed out waiting for a frame");
        }
        pollfd waiting{fd_, POLLIN, 0};
        ::poll(&waiting, 1, static_cast<int>(left.count()) + 1);
    }
}

}  // namespace kerrow::bench
