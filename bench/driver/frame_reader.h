// FrameReader: frames (kit/frame_codec.h) read from a busy stream as cheaply as the reader can,
// for measuring a program's throughput without the reader being what limits it: one read() of
// up to 256 KiB serves many frames, and poll() is called only when nothing is buffered.
//
// The descriptor is borrowed: its owner keeps it open for the reader's life. A pipe is switched
// to non-blocking mode (the reader must be its only reader); a socket is left as it is, so that
// another thread may write to it blocking. One thread reads; frames are views into the reader's
// buffer, valid until the next call. Failures throw std::runtime_error.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>
#include <vector>

namespace kerrow::bench {

class FrameReader {
  public:
    explicit FrameReader(int fd);

    /// The next frame's body; throws at end of stream or when `deadline` passes.
    [[nodiscard]] std::string_view next(std::chrono::steady_clock::time_point deadline);

  private:
    void fill(std::size_t wanted, std::chrono::steady_clock::time_point deadline);
    [[nodiscard]] long readSome();  // what one non-blocking read gave: read()'s result

    int fd_;  // borrowed, see above
    bool socket_ = false;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // first unread byte
    std::size_t end_ = 0;    // one past the last buffered byte
};

}  // namespace kerrow::bench
