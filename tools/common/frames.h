// Framing shared by the peers: a 4-byte little-endian unsigned byte count, then that many bytes.
// The browser's pipes and the core service's socket use the same form.
//
// FrameDecoder cuts a byte stream that arrives in pieces into frames. Its memory is bounded by the
// largest frame it accepts plus one piece: a header announcing more than `maximumLength` is an
// error before any of the body is kept. A plain value; one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kerrow::tools {

/// The frame of `body`: its length as 4 bytes little-endian, then the body.
/// REQUIRES: body.size() < 2^32.
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

}  // namespace kerrow::tools
