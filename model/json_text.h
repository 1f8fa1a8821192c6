// The JSON string writer shared by every message the host writes to the browser extension. It
// escapes exactly as the extension's messages have always been written: `"` and `\` escaped,
// `/` written as `\/`, control characters as \b \f \n \r \t or \u00xx (lowercase hex), everything
// else, non-ASCII included, as raw UTF-8. Pure function, any thread.
#pragma once

#include <string>
#include <string_view>

namespace kerrow {

/// Appends `text` to `out` as a quoted JSON string. Returns false, leaving `out` as it was, when
/// `text` is not well-formed UTF-8 (a JSON text must be).
[[nodiscard]] bool appendJSONString(std::string& out, std::string_view text);

}  // namespace kerrow
