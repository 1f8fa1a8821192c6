#include "kit/frame_codec.h"

namespace kerrow {

std::string encodeFrame(std::string_view body) {
    const auto header = encodeFrameLength(body.size());
    std::string frame;
    frame.reserve(frameHeaderLength + body.size());
    frame.append(header.begin(), header.end());
    frame.append(body);
    return frame;
}

FrameTooLarge::FrameTooLarge(std::uint64_t announced, std::size_t maximum)
    : std::runtime_error("frame header announces " + std::to_string(announced) +
                         " bytes, more than the " + std::to_string(maximum) + " accepted"),
      announced_(announced) {}

std::optional<std::string> FrameDecoder::next() {
    if (buffer_.size() < frameHeaderLength) {
        return std::nullopt;
    }
    const std::uint32_t length = decodeFrameLength(buffer_);
    if (length > maximumLength_) {
        throw FrameTooLarge(length, maximumLength_);
    }
    if (buffer_.size() - frameHeaderLength < length) {
        return std::nullopt;
    }
    std::string body = buffer_.substr(frameHeaderLength, length);
    buffer_.erase(0, frameHeaderLength + length);
    return body;
}

std::string FrameDecoder::describeIncomplete() const {
    if (buffer_.size() < frameHeaderLength) {
        return std::to_string(buffer_.size()) + " of the 4 header bytes";
    }
    return std::to_string(buffer_.size() - frameHeaderLength) + " of " +
           std::to_string(decodeFrameLength(buffer_)) + " body bytes";
}

}  // namespace kerrow
