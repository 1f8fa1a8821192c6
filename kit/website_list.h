// WebsiteList: the allow or block list that the core service sends with its website-list command.
// A plain value; any thread.
//
// JSON: {"name":"School hours","websites":["a.example","b.example"],"listType":0}
// All three members are required: name a string, websites an array of strings, listType an
// integer from 0 to 255 (0 allow list, 1 block list, anything else neither). Other members are
// ignored. Anything else does not decode.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kerrow {

struct WebsiteList {
    /// Held in one byte; values other than the two named ones mean "neither list".
    enum class ListType : std::uint8_t { allow = 0, block = 1 };

    std::string name;
    std::vector<std::string> websites;
    ListType listType = ListType::allow;

    /// Decodes the JSON bytes; no value when they are not a WebsiteList as described above.
    [[nodiscard]] static std::optional<WebsiteList> decode(std::span<const std::uint8_t> json);

    friend bool operator==(const WebsiteList&, const WebsiteList&) = default;
};

}  // namespace kerrow
