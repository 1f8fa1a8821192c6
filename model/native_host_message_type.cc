#include "model/native_host_message_type.h"

#include <nlohmann/json.hpp>

#include "model/json_coding.h"

namespace kerrow {

std::string_view rawValue(NativeHostMessageType type) {
    switch (type) {
        case NativeHostMessageType::sendLoginHistory:
            return "sendLoginHistory";
        case NativeHostMessageType::loginHistory:
            return "loginHistory";
        case NativeHostMessageType::sendVideo:
            return "sendVideo";
        case NativeHostMessageType::sendConfig:
            return "sendConfig";
        case NativeHostMessageType::config:
            return "config";
        case NativeHostMessageType::setBlacklist:
            return "setBlacklist";
        case NativeHostMessageType::setWhitelist:
            return "setWhitelist";
        case NativeHostMessageType::closeTab:
            return "closeTab";
        case NativeHostMessageType::disableWeb:
            return "disableWeb";
        case NativeHostMessageType::enableWeb:
            return "enableWeb";
    }
    return {};
}

std::optional<NativeHostMessageType> makeNativeHostMessageType(std::string_view rawValue) {
    for (const NativeHostMessageType type : kAllNativeHostMessageTypes) {
        if (rawValue == kerrow::rawValue(type)) {
            return type;
        }
    }
    return std::nullopt;
}

std::optional<NativeHostMessageType> readNativeHostMessageType(const nlohmann::json& envelope) {
    const std::optional<std::string> text =
        json_coding::readString(envelope, keyText(NativeHostMessageKeys::type));
    return text ? makeNativeHostMessageType(*text) : std::nullopt;
}

}  // namespace kerrow
