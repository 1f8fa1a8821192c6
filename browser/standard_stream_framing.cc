#include "browser/standard_stream_framing.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "kit/frame_codec.h"

namespace kerrow {

FrameRead readFrame(FileHandle& input, Data& body, int cancelDescriptor) {
    const auto prefix = input.peek(frameHeaderLength, cancelDescriptor);
    if (!prefix) {
        return FrameRead::cancelled;
    }
    if (prefix->size() < frameHeaderLength) {
        return FrameRead::endOfInput;  // possibly inside a prefix
    }
    const auto length = static_cast<std::int32_t>(decodeFrameLength(prefix->data()));
    if (length < 0) {
        return FrameRead::endOfInput;  // no browser sends 2 GiB or more; the stream is not sound
    }
    const std::size_t frameLength = frameHeaderLength + static_cast<std::size_t>(length);
    const auto frame = input.peek(frameLength, cancelDescriptor);
    if (!frame) {
        return FrameRead::cancelled;
    }
    const std::size_t taken = std::min(frameLength, frame->size());  // short only at end of file
    body.assign(frame->begin() + frameHeaderLength,
                frame->begin() + static_cast<std::ptrdiff_t>(taken));
    input.consume(taken);
    return FrameRead::body;
}

std::optional<Data> readFrame(FileHandle& input) {
    Data body;
    if (readFrame(input, body) != FrameRead::body) {
        return std::nullopt;
    }
    return body;
}

FrameRead peekFrame(FileHandle& input, std::size_t& length, int cancelDescriptor) {
    const auto prefix = input.peek(frameHeaderLength, cancelDescriptor);
    if (!prefix) {
        return FrameRead::cancelled;
    }
    if (prefix->size() < frameHeaderLength) {
        return FrameRead::endOfInput;
    }
    const auto announced = static_cast<std::int32_t>(decodeFrameLength(prefix->data()));
    if (announced < 0) {
        return FrameRead::endOfInput;
    }
    const auto frame =
        input.peek(frameHeaderLength + static_cast<std::size_t>(announced), cancelDescriptor);
    if (!frame) {
        return FrameRead::cancelled;
    }
    length = std::min(frameHeaderLength + static_cast<std::size_t>(announced), frame->size());
    return FrameRead::body;
}

std::optional<std::size_t> wholeFrameLength(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < frameHeaderLength) {
        return std::nullopt;
    }
    const auto announced = static_cast<std::int32_t>(decodeFrameLength(bytes.data()));
    if (announced < 0 || bytes.size() - frameHeaderLength < static_cast<std::size_t>(announced)) {
        return std::nullopt;
    }
    return frameHeaderLength + static_cast<std::size_t>(announced);
}

void writeFrame(FileHandle& output, std::string_view body, std::span<const std::uint8_t> before) {
    const auto prefix = encodeFrameLength(body.size());
    const std::array<std::span<const std::uint8_t>, 3> parts{
        before, prefix, {reinterpret_cast<const std::uint8_t*>(body.data()), body.size()}};
    output.writeParts(parts);
}

}  // namespace kerrow
