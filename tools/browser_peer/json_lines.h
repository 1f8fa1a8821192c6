// The browser peer's two line forms: JSON lines that become frames, and frames that are shown as
// JSON lines. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kerrow::tools {

/// The reason `line` is not one JSON text ("line is not JSON: syntax error ... at byte 7"), or
/// no value when it is one. Deep nesting is no danger: checking builds no tree.
[[nodiscard]] std::optional<std::string> jsonError(std::string_view line);

/// A frame body shown as one line of JSON. A JSON body on one line is shown byte for byte (so
/// escapes such as \/ stay visible); a JSON body that spans lines is shown compact; anything else
/// is shown as a JSON string. `note` then says what was done.
struct JsonLine {
    std::string line;
    std::optional<std::string> note;
};
[[nodiscard]] JsonLine jsonLine(std::string_view body);

}  // namespace kerrow::tools
