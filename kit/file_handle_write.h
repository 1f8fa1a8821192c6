// write(handle, text): writes a text to a file handle as exactly its UTF-8 bytes, nothing before
// or after (no terminator, no byte-order mark). Failures are quiet. Any thread; the caller
// serialises writes that must not interleave.
#pragma once

#include <string_view>

#include "platform/file_handle.h"

namespace kerrow {

void write(FileHandle& handle, std::string_view text);

}  // namespace kerrow
