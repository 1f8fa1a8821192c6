#include "browser/standard_stream_framing.h"

#include <array>
#include <cstdint>

#include "kit/file_handle_write.h"

namespace kerrow {

std::optional<Data> readFrame(FileHandle& input) {
    const Data prefix = input.readDataOfLength(4);
    if (prefix.size() < 4) {
        return std::nullopt;  // end of input, possibly inside a prefix
    }
    const auto length = static_cast<std::int32_t>(
        static_cast<std::uint32_t>(prefix[0]) | static_cast<std::uint32_t>(prefix[1]) << 8 |
        static_cast<std::uint32_t>(prefix[2]) << 16 | static_cast<std::uint32_t>(prefix[3]) << 24);
    if (length < 0) {
        return std::nullopt;  // no browser sends 2 GiB or more; the stream cannot be trusted
    }
    return input.readDataOfLength(static_cast<std::size_t>(length));
}

void writeFrame(FileHandle& output, std::string_view body) {
    const std::size_t n = body.size();
    const std::array<std::uint8_t, 4> prefix = {
        static_cast<std::uint8_t>(n & 0xFF), static_cast<std::uint8_t>((n >> 8) & 0xFF),
        static_cast<std::uint8_t>((n >> 16) & 0xFF), static_cast<std::uint8_t>((n >> 24) & 0xFF)};
    output.writeData(prefix);
    write(output, body);
}

}  // namespace kerrow
