#include "tools/common/frames.h"

namespace kerrow::tools {
namespace {

constexpr std::size_t headerLength = 4;

std::uint32_t readLength(std::string_view header) {
    std::uint32_t length = 0;
    for (std::size_t i = 0; i < headerLength; ++i) {
        length |= static_cast<std::uint32_t>(static_cast<unsigned char>(header[i])) << (8 * i);
    }
    return length;
}

}  // namespace

std::string encodeFrame(std::string_view body) {
    const auto length = static_cast<std::uint32_t>(body.size());
    std::string frame;
    frame.reserve(headerLength + body.size());
    for (std::size_t i = 0; i < headerLength; ++i) {
        frame.push_back(static_cast<char>((length >> (8 * i)) & 0xFF));
    }
    frame.append(body);
    return frame;
}

FrameTooLarge::FrameTooLarge(std::uint64_t announced, std::size_t maximum)
    : std::runtime_error("frame header announces " + std::to_string(announced) +
                         " bytes, more than the " + std::to_string(maximum) + " accepted"),
      announced_(announced) {}

std::optional<std::string> FrameDecoder::next() {
    if (buffer_.size() < headerLength) {
        return std::nullopt;
    }
    const std::uint32_t length = readLength(buffer_);
    if (length > maximumLength_) {
        throw FrameTooLarge(length, maximumLength_);
    }
    if (buffer_.size() - headerLength < length) {
        return std::nullopt;
    }
    std::string body = buffer_.substr(headerLength, length);
    buffer_.erase(0, headerLength + length);
    return body;
}

std::string FrameDecoder::describeIncomplete() const {
    if (buffer_.size() < headerLength) {
        return std::to_string(buffer_.size()) + " of the 4 header bytes";
    }
    return std::to_string(buffer_.size() - headerLength) + " of " +
           std::to_string(readLength(buffer_)) + " body bytes";
}

}  // namespace kerrow::tools
