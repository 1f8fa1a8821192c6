// Byte-level helpers of the benchmark driver: monotonic time, whole writes, and a buffered reader
// of length-prefixed frames (4-byte little-endian length, then the body) with a deadline.
// Driver code only. A FrameReader belongs to one thread; the free functions may be used anywhere.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow::bench {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

/// A measurement that could not be taken (a program that died, stalled or answered wrongly).
class BenchError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

[[nodiscard]] inline Deadline deadlineIn(std::chrono::milliseconds span) {
    return Clock::now() + span;
}

[[nodiscard]] inline double microseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

/// Owns one descriptor (-1 for none) and closes it when destroyed or reset.
class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    [[nodiscard]] int get() const { return fd_; }
    void reset();

  private:
    int fd_ = -1;
};

/// The 4-byte little-endian length prefix of a body of `length` bytes.
[[nodiscard]] std::string lengthPrefix(std::size_t length);

/// `body` framed: the prefix, then the body.
[[nodiscard]] std::string framed(std::string_view body);

/// Writes every byte, waiting for room where the descriptor is non-blocking; throws BenchError
/// when the reader has gone.
void writeAll(int fd, std::string_view bytes);

/// Writes the parts in order, with as few writev() calls as the descriptor allows.
void writeParts(int fd, std::initializer_list<std::string_view> parts);

/// Writes one frame (prefix and body).
void writeFrame(int fd, std::string_view body);

/// Reads frames from a descriptor that it switches to non-blocking mode, waiting in poll() only
/// when no byte is buffered. Frames are returned as views into the reader's buffer, valid until
/// the next call.
class FrameReader {
  public:
    explicit FrameReader(int fd);

    /// The next frame's body. Throws BenchError at end of stream or when `deadline` passes.
    [[nodiscard]] std::string_view next(Deadline deadline);

  private:
    void fill(std::size_t wanted, Deadline deadline);  // until `wanted` bytes are buffered

    int fd_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // first unread byte
    std::size_t end_ = 0;    // one past the last buffered byte
};

}  // namespace kerrow::bench
