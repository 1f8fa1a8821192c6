// Data: the byte buffer that crosses every channel of the host (frames read from the browser,
// messages to and from the core service). A plain value; any thread.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace kerrow {

using Data = std::vector<std::uint8_t>;

/// The UTF-8 bytes of a text, unchanged.
[[nodiscard]] inline Data dataFromText(std::string_view text) {
    return Data(text.begin(), text.end());
}

/// The bytes viewed as text, without validation or copy.
[[nodiscard]] inline std::string_view textView(const Data& data) {
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

}  // namespace kerrow
