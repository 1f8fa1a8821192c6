#include "model/native_host_message.h"

#include <nlohmann/json.hpp>

#include "model/json_coding.h"

namespace kerrow {

std::optional<std::string> NativeHostMessage::toJSONString() const {
    using json_coding::appendKey;
    std::string text;
    text.push_back('{');
    appendKey(text, keyText(NativeHostMessageKeys::type));
    // Raw values are plain ASCII names that need no escape.
    text.push_back('"');
    text.append(rawValue(type));
    text.append("\",");
    appendKey(text, keyText(NativeHostMessageKeys::payload));
    if (!payload.encode(text)) {
        return std::nullopt;
    }
    text.push_back('}');
    return text;
}

std::optional<NativeHostMessage> NativeHostMessage::fromJSONString(std::string_view text) {
    // The parser itself sets no depth limit, so the text is measured before it is parsed.
    if (json_coding::nestsDeeperThan(text, kMaxNestingDepth)) {
        return std::nullopt;
    }
    const nlohmann::json value =
        nlohmann::json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) {
        return std::nullopt;
    }
    return decode(value);
}

std::optional<NativeHostMessage> NativeHostMessage::decode(const nlohmann::json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    const std::optional<NativeHostMessageType> type = readNativeHostMessageType(value);
    if (!type) {
        return std::nullopt;
    }
    std::optional<NativeHostMessagePayload> payload = NativeHostMessagePayload::decode(value);
    if (!payload) {
        return std::nullopt;
    }
    return NativeHostMessage{*type, std::move(*payload)};
}

}  // namespace kerrow
