// Frames on the browser's standard streams: a 4-byte little-endian length, then the body.
//
//   offset 0, 4 bytes: length. Written as the low 32 bits of the body's byte count, unsigned;
//                      read as a signed 32-bit value.
//   offset 4, length bytes: body (UTF-8 JSON from the host; anything from the browser).
//
// Frames follow back to back. Reading treats as end of input: an empty read, a prefix cut short
// (1 to 3 bytes, then end of file), and a prefix with the top bit set (negative once read as
// signed), which must never size a read. A body cut short by end of file is returned as it is.
// A frame is consumed from the handle only once it is whole (or cut short by end of file), so a
// reader that is cancelled leaves the handle at a frame boundary.
// Free functions over a caller's handle; the caller keeps one reader and one writer at a time.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "platform/data.h"
#include "platform/file_handle.h"

namespace kerrow {

/// The largest body that Chrome and Firefox accept from a host (1 MiB): a longer message makes
/// the browser drop the host, so the host never writes one.
constexpr std::size_t maximumMessageLength = std::size_t{1024} * 1024;

enum class FrameRead {
    body,        // the next body is in the caller's buffer
    endOfInput,  // see above; nothing more is read
    cancelled,   // the cancel descriptor became readable first; nothing was consumed
};

/// Reads the next frame's body into `body`, replacing its contents and reusing its capacity.
/// Waits on `cancelDescriptor` too (-1 for none) while the frame is not whole.
[[nodiscard]] FrameRead readFrame(FileHandle& input, Data& body, int cancelDescriptor = -1);

/// The next frame's body, or no value at end of input.
[[nodiscard]] std::optional<Data> readFrame(FileHandle& input);

/// Waits, as readFrame() does, until the next frame is in the handle's read-ahead whole (or cut
/// short by end of file), and sets `length` to its bytes there, prefix included. Consumes
/// nothing: the caller uses the frame in place, then consumes it.
[[nodiscard]] FrameRead peekFrame(FileHandle& input, std::size_t& length,
                                  int cancelDescriptor = -1);

/// The bytes of the frame that starts `bytes`, prefix included, when it is whole there; no value
/// for a frame not whole yet and for a prefix that ends the input.
[[nodiscard]] std::optional<std::size_t> wholeFrameLength(std::span<const std::uint8_t> bytes);

/// Writes the frames in `before` (prefixes and bodies, back to back), then `body` as one frame,
/// in one vectored write.
void writeFrame(FileHandle& output, std::string_view body,
                std::span<const std::uint8_t> before = {});

}  // namespace kerrow
