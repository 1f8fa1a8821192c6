#include "model/native_host_message.h"

#include <array>
#include <nlohmann/json.hpp>

#include "model/json_coding.h"

namespace kerrow {
namespace {

// Room for every envelope but those carrying lists (the longest close-tab envelope is 59 bytes),
// so that building one takes a single allocation instead of growing out of the small-string
// buffer twice.
constexpr std::size_t envelopeCapacity = 64;

// The types' list is in declaration order, so a type's value is its place in the list.
static_assert([] {
    for (std::size_t index = 0; index < kAllNativeHostMessageTypes.size(); ++index) {
        if (static_cast<std::size_t>(kAllNativeHostMessageTypes[index]) != index) {
            return false;
        }
    }
    return true;
}());

// `{"action":"<raw value>","payload":`, the fixed start of an envelope of `type`, made once for
// each type so that encoding appends it whole.
const std::string& envelopeHead(NativeHostMessageType type) {
    using Heads = std::array<std::string, kAllNativeHostMessageTypes.size()>;
    static const Heads heads = [] {
        Heads made;
        for (std::size_t index = 0; index < made.size(); ++index) {
            std::string& head = made[index];
            head.push_back('{');
            json_coding::appendKey(head, keyText(NativeHostMessageKeys::type));
            // Raw values are plain ASCII names that need no escape.
            head.append(1, '"').append(rawValue(kAllNativeHostMessageTypes[index])).append("\",");
            json_coding::appendKey(head, keyText(NativeHostMessageKeys::payload));
        }
        return made;
    }();
    return heads[static_cast<std::size_t>(type)];
}

}  // namespace

std::optional<std::string> NativeHostMessage::toJSONString() const {
    std::string text;
    text.reserve(envelopeCapacity);
    text.append(envelopeHead(type));
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
