#include "browser/standard_stream_framing.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "kit/frame_codec.h"

namespace kerrow {
namespace {

// The body length a whole prefix announces; no value for a prefix with the top bit set (negative
// once read as signed): no browser sends 2 GiB or more, so the stream is not sound.
std::optional<std::size_t> announcedLength(const std::uint8_t* prefix) {
    const auto length = static_cast<std::int32_t>(decodeFrameLength(prefix));
    if (length < 0) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(length);
}

}  // namespace

FrameRead peekFrame(FileHandle& input, std::size_t& length, int cancelDescriptor) {
    const auto prefix = input.peek(frameHeaderLength, cancelDescriptor);
    if (!prefix) {
        return FrameRead::cancelled;
    }
    if (prefix->size() < frameHeaderLength) {
        return FrameRead::endOfInput;  // possibly inside a prefix
    }
    const auto announced = announcedLength(prefix->data());
    if (!announced) {
        return FrameRead::endOfInput;
    }
    const std::size_t frameLength = frameHeaderLength + *announced;
    const auto frame = input.peek(frameLength, cancelDescriptor);
    if (!frame) {
        return FrameRead::cancelled;
    }
    length = std::min(frameLength, frame->size());  // short only at end of file
    return FrameRead::body;
}

FrameRead readFrame(FileHandle& input, Data& body, int cancelDescriptor) {
    std::size_t length = 0;
    const FrameRead read = peekFrame(input, length, cancelDescriptor);
    if (read == FrameRead::body) {
        const auto frame = input.peek(length);  // held whole already: no read
        body.assign(frame->begin() + frameHeaderLength,
                    frame->begin() + static_cast<std::ptrdiff_t>(length));
        input.consume(length);
    }
    return read;
}

std::optional<Data> readFrame(FileHandle& input) {
    Data body;
    if (readFrame(input, body) != FrameRead::body) {
        return std::nullopt;
    }
    return body;
}

std::optional<std::size_t> wholeFrameLength(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < frameHeaderLength) {
        return std::nullopt;
    }
    const auto announced = announcedLength(bytes.data());
    if (!announced || bytes.size() - frameHeaderLength < *announced) {
        return std::nullopt;
    }
    return frameHeaderLength + *announced;
}

void writeFrame(FileHandle& output, std::string_view body, std::span<const std::uint8_t> before) {
    const auto prefix = encodeFrameLength(body.size());
    const std::array<std::span<const std::uint8_t>, 3> parts{
        before, prefix, {reinterpret_cast<const std::uint8_t*>(body.data()), body.size()}};
    output.writeParts(parts);
}

}  // namespace kerrow
