#include "browser/standard_stream_framing.h"

#include <cstdint>

#include "kit/file_handle_write.h"
#include "kit/frame_codec.h"

namespace kerrow {
namespace {

constexpr std::size_t retainedBodyCapacity = std::size_t{1024} * 1024;

}  // namespace

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
    const std::size_t bodyLength = taken - frameHeaderLength;
    // Room for a short suffix too, so that the caller's appending one does not copy the body.
    body.reserve(bodyLength + bodySuffixRoom);
    body.assign(frame->begin() + frameHeaderLength,
                frame->begin() + static_cast<std::ptrdiff_t>(taken));
    input.consume(taken);
    return FrameRead::body;
}

void releaseLargeBody(Data& body) {
    if (body.capacity() > retainedBodyCapacity) {
        Data().swap(body);
    }
}

std::optional<Data> readFrame(FileHandle& input) {
    Data body;
    if (readFrame(input, body) != FrameRead::body) {
        return std::nullopt;
    }
    return body;
}

void writeFrame(FileHandle& output, std::string_view body) {
    output.writeData(encodeFrameLength(body.size()));
    write(output, body);
}

}  // namespace kerrow
