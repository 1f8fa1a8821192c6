#include "bench/driver/wire.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kerrow::bench {
namespace {

constexpr std::size_t readChunk = 256 * 1024;

[[noreturn]] void fail(const char* what) {
    throw BenchError(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

void UniqueFd::reset() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

std::string lengthPrefix(std::size_t length) {
    const auto n = static_cast<std::uint32_t>(length);
    return {static_cast<char>(n & 0xFF), static_cast<char>((n >> 8) & 0xFF),
            static_cast<char>((n >> 16) & 0xFF), static_cast<char>((n >> 24) & 0xFF)};
}

std::string framed(std::string_view body) {
    std::string frame = lengthPrefix(body.size());
    frame.append(body);
    return frame;
}

void writeAll(int fd, std::string_view bytes) {
    writeParts(fd, {bytes});
}

void writeFrame(int fd, std::string_view body) {
    const std::string prefix = lengthPrefix(body.size());
    writeParts(fd, {prefix, body});
}

void writeParts(int fd, std::initializer_list<std::string_view> parts) {
    std::vector<iovec> pending;
    for (const auto part : parts) {
        if (!part.empty()) {
            pending.push_back({const_cast<char*>(part.data()), part.size()});
        }
    }
    std::size_t first = 0;
    while (first < pending.size()) {
        const ssize_t wrote =
            ::writev(fd, pending.data() + first, static_cast<int>(pending.size() - first));
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote < 0 && errno == EAGAIN) {
            // The descriptor is shared with a non-blocking reader: wait for room.
            pollfd room{fd, POLLOUT, 0};
            ::poll(&room, 1, 60'000);
            continue;
        }
        if (wrote <= 0) {
            fail("write");
        }
        auto done = static_cast<std::size_t>(wrote);
        while (first < pending.size() && done >= pending[first].iov_len) {
            done -= pending[first++].iov_len;
        }
        if (first < pending.size()) {
            pending[first].iov_base = static_cast<char*>(pending[first].iov_base) + done;
            pending[first].iov_len -= done;
        }
    }
}

FrameReader::FrameReader(int fd) : fd_(fd), buffer_(readChunk) {
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
}

std::string_view FrameReader::next(Deadline deadline) {
    fill(4, deadline);
    const auto* p = reinterpret_cast<const unsigned char*>(buffer_.data() + begin_);
    const std::size_t length =
        static_cast<std::size_t>(p[0]) | static_cast<std::size_t>(p[1]) << 8 |
        static_cast<std::size_t>(p[2]) << 16 | static_cast<std::size_t>(p[3]) << 24;
    fill(4 + length, deadline);
    const std::string_view body(buffer_.data() + begin_ + 4, length);
    begin_ += 4 + length;
    return body;
}

void FrameReader::fill(std::size_t wanted, Deadline deadline) {
    if (end_ - begin_ >= wanted) {
        return;
    }
    // Keep the partial frame at the front and make room for the whole of it.
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    if (buffer_.size() < wanted) {
        buffer_.resize(std::max(wanted, readChunk));
    }
    while (end_ < wanted) {
        const ssize_t got = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
        if (got > 0) {
            end_ += static_cast<std::size_t>(got);
            continue;
        }
        if (got == 0) {
            throw BenchError("end of stream while waiting for a frame");
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN) {
            fail("read");
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            throw BenchError("timed out waiting for a frame");
        }
        pollfd waiting{fd_, POLLIN, 0};
        ::poll(&waiting, 1, static_cast<int>(left.count()) + 1);
    }
}

}  // namespace kerrow::bench
