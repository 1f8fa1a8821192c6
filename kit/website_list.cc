#include "kit/website_list.h"

#include <nlohmann/json.hpp>

namespace kerrow {

std::optional<WebsiteList> WebsiteList::decode(std::span<const std::uint8_t> json) {
    // Hostile nesting cannot exhaust the stack: the parser callback refuses deep values.
    constexpr int maximumDepth = 16;
    const auto limitDepth = [](int depth, nlohmann::json::parse_event_t, nlohmann::json&) {
        if (depth > maximumDepth) {
            throw std::length_error("nested too deeply");
        }
        return true;
    };
    try {
        const auto value = nlohmann::json::parse(json.begin(), json.end(), limitDepth);
        if (!value.is_object()) {
            return std::nullopt;
        }
        const auto name = value.find("name");
        const auto websites = value.find("websites");
        const auto listType = value.find("listType");
        if (name == value.end() || !name->is_string() || websites == value.end() ||
            !websites->is_array() || listType == value.end() || !listType->is_number_integer()) {
            return std::nullopt;
        }
        WebsiteList list;
        list.name = name->get<std::string>();
        list.websites.reserve(websites->size());
        for (const auto& site : *websites) {
            if (!site.is_string()) {
                return std::nullopt;
            }
            list.websites.push_back(site.get<std::string>());
        }
        const bool isUnsigned = listType->is_number_unsigned();
        const auto kind = isUnsigned ? listType->get<std::uint64_t>() : 0;
        if (!isUnsigned || kind > 255) {
            return std::nullopt;  // negative, or more than one byte holds
        }
        list.listType = static_cast<ListType>(kind);
        return list;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace kerrow
