// The frame codec: a 4-byte little-endian unsigned byte count, then that many bytes.
//
//   offset 0, 4 bytes: length, the low 32 bits of the body's byte count, little-endian
//   offset 4, length bytes: the body
//
// Frames follow back to back with nothing between them. The browser's standard streams and the
// core service's socket both use this form; every reader and writer of frames in the project (the
// host, the peers, the benchmarks, the tests and the fuzz targets) uses these functions.
//
// FrameDecoder cuts a byte stream that arrives in pieces into frames. Its memory is bounded by the
// largest frame it accepts plus one piece: a header announcing more than `maximumLength` is an
// error before any of the body is kept. A plain value; one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kerrow {

constexpr std::size_t frameHeaderLength = 4;

/// The header of a body of `length` bytes: the low 32 bits of `length`, little-endian.
[[nodiscard]] constexpr std::array<std::uint8_t, frameHeaderLength> encodeFrameLength(
    std::uint64_t length) {
    return {static_cast<std::uint8_t>(length & 0xFF),
            static_cast<std::uint8_t>((length >> 8) & 0xFF),
            static_cast<std::uint8_t>((length >> 16) & 0xFF),
            static_cast<std::uint8_t>((length >> 24) & 0xFF)};
}

/// The length that the 4 header bytes at `header` announce, read as unsigned.
[[nodiscard]] constexpr std::uint32_t decodeFrameLength(const std::uint8_t* header) {
    return static_cast<std::uint32_t>(header[0]) | static_cast<std::uint32_t>(header[1]) << 8 |
           static_cast<std::uint32_t>(header[2]) << 16 |
           static_cast<std::uint32_t>(header[3]) << 24;
}

/// The same, for header bytes held as characters.
[[nodiscard]] inline std::uint32_t decodeFrameLength(std::string_view header) {
    return decodeFrameLength(reinterpret_cast<const std::uint8_t*>(header.data()));
}

/// The frame of `body`: its header, then the body. REQUIRES: body.size() < 2^32.
[[nodiscard]] std::string encodeFrame(std::string_view body);

/// Thrown by FrameDecoder::next() for a header announcing more than the decoder accepts.
class FrameTooLarge : public std::runtime_error {
  public:
    FrameTooLarge(std::uint64_t announced, std::size_t maximum);
    [[nodiscard]] std::uint64_t announced() const { return announced_; }

  private:
    std::uint64_t announced_;
};

class FrameDecoder {
  public:
    explicit FrameDecoder(std::size_t maximumLength) : maximumLength_(maximumLength) {}

    void append(std::string_view bytes) { buffer_.append(bytes); }

    /// The next complete frame's body, or no value until more bytes arrive. Throws FrameTooLarge.
    [[nodiscard]] std::optional<std::string> next();

    /// True while bytes of an incomplete frame are held (input that ends now ends mid-frame).
    [[nodiscard]] bool midFrame() const { return !buffer_.empty(); }
    /// What is held of the incomplete frame, for error messages ("3 of 10 bytes").
    [[nodiscard]] std::string describeIncomplete() const;

  private:
    std::size_t maximumLength_;
    std::string buffer_;  // bytes of frames not yet complete, header first
};

}  // namespace kerrow
