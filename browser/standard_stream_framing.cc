#include "browser/standard_stream_framing.h"

#include <cstdint>

#include "kit/file_handle_write.h"
#include "kit/frame_codec.h"

namespace kerrow {

std::optional<Data> readFrame(FileHandle& input) {
    const Data prefix = input.readDataOfLength(4);
    if (prefix.size() < 4) {
        return std::nullopt;  // end of input, possibly inside a prefix
    }
    const auto length = static_cast<std::int32_t>(decodeFrameLength(prefix.data()));
    if (length < 0) {
        return std::nullopt;  // no browser sends 2 GiB or more; the stream cannot be trusted
    }
    return input.readDataOfLength(static_cast<std::size_t>(length));
}

void writeFrame(FileHandle& output, std::string_view body) {
    output.writeData(encodeFrameLength(body.size()));
    write(output, body);
}

}  // namespace kerrow
