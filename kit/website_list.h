// WebsiteList: the allow or block list that the core service sends with its website-list command.
// A plain value; any thread.
//
// JSON: {"name":"School hours","websites":["a.example","b.example"],"listType":0}
// All three members are required: name a string, websites an array of strings, listType an
// integer from 0 to 255 (0 allow list, 1 block list, anything else neither). Other members are
// ignored; of a member given twice, the last counts. Values nested more than 16 levels deep are
// refused. Anything else does not decode.
//
// The JSON is read as a stream of events, never as a tree: decoding costs the list itself (or,
// with a WebsiteSink, only what the sink keeps) plus the longest single text.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow {

struct WebsiteList {
    /// Held in one byte; values other than the two named ones mean "neither list".
    enum class ListType : std::uint8_t { allow = 0, block = 1 };

    /// Receives the websites one by one while the JSON is read. Used on the decoding thread only.
    class WebsiteSink {
      public:
        virtual ~WebsiteSink() = default;
        /// A "websites" member starts: what was given before belongs to a member it replaces.
        virtual void restart() = 0;
        /// The next website of the current "websites" member.
        virtual void add(std::string_view website) = 0;
    };

    std::string name;
    std::vector<std::string> websites;
    ListType listType = ListType::allow;

    /// Decodes the JSON bytes; no value when they are not a WebsiteList as described above.
    [[nodiscard]] static std::optional<WebsiteList> decode(std::span<const std::uint8_t> json);

    /// Decodes as above but hands the websites to `sink` instead of keeping them (nor the name).
    /// The list type when the bytes are a WebsiteList; otherwise no value, and what the sink was
    /// given means nothing.
    [[nodiscard]] static std::optional<ListType> decode(std::span<const std::uint8_t> json,
                                                        WebsiteSink& sink);

    friend bool operator==(const WebsiteList&, const WebsiteList&) = default;
};

}  // namespace kerrow
