// Fuzzes WebsiteList::decode, which reads the JSON that follows the core service's website-list
// keyword. A decoded list must be exactly what the JSON says (checked against an independent
// parse), and everything else must be refused without a crash or an exception. Decoding into a
// sink must give the same websites and list type.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <span>

#include "kit/website_list.h"

namespace {

// How deeply arrays and objects nest in `value` (a scalar is depth 0).
int depthOf(const nlohmann::json& value) {
    int deepest = 0;
    if (value.is_structured()) {
        for (const auto& member : value) {
            deepest = std::max(deepest, depthOf(member));
        }
        return deepest + 1;
    }
    return deepest;
}

// What an independent parse of `bytes` gives, when it is a WebsiteList by the documented rules.
std::optional<kerrow::WebsiteList> expectedList(std::span<const std::uint8_t> bytes) {
    const auto value = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (value.is_discarded() || !value.is_object() || !value.contains("name") ||
        !value.contains("websites") || !value.contains("listType")) {
        return std::nullopt;
    }
    const auto& name = value["name"];
    const auto& websites = value["websites"];
    const auto& listType = value["listType"];
    if (!name.is_string() || !websites.is_array() || !listType.is_number_unsigned() ||
        listType.get<std::uint64_t>() > 255) {
        return std::nullopt;
    }
    kerrow::WebsiteList list;
    list.name = name.get<std::string>();
    for (const auto& site : websites) {
        if (!site.is_string()) {
            return std::nullopt;
        }
        list.websites.push_back(site.get<std::string>());
    }
    list.listType = static_cast<kerrow::WebsiteList::ListType>(listType.get<std::uint64_t>());
    return list;
}

// Keeps what it is given, as a list does.
class KeepingSink : public kerrow::WebsiteList::WebsiteSink {
  public:
    void restart() override { websites.clear(); }
    void add(std::string_view website) override { websites.emplace_back(website); }
    std::vector<std::string> websites;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const auto list = kerrow::WebsiteList::decode(bytes);
    KeepingSink sink;
    const auto listType = kerrow::WebsiteList::decode(bytes, sink);
    if (list.has_value() != listType.has_value() ||
        (list && (list->listType != *listType || list->websites != sink.websites))) {
        std::abort();
    }
    const auto expected = expectedList(bytes);
    if (list) {
        if (list != expected) {
            std::abort();
        }
        return 0;
    }
    // A valid list may be refused only for nesting deeper than the decoder takes (16 levels).
    if (expected && depthOf(nlohmann::json::parse(bytes.begin(), bytes.end())) <= 16) {
        std::abort();
    }
    return 0;
}
