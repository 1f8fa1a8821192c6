// UTF-8 validation for texts that arrive from outside the host. Any thread.
#pragma once

#include <string_view>

namespace kerrow {

/// True when `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing above
/// U+10FFFF, no truncated sequence.
[[nodiscard]] bool isValidUTF8(std::string_view text);

}  // namespace kerrow
