// NativeHostMessageType: the type tag of every message to the browser extension, carried as its
// raw value text under the envelope's "action" key; and NativeHostMessageKeys, the envelope's two
// coding keys. Plain values and pure functions, any thread.
#pragma once

#include <array>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string_view>

namespace kerrow {

/// The raw value of each case is its own name ("sendLoginHistory" ... "enableWeb").
enum class NativeHostMessageType {
    sendLoginHistory,
    loginHistory,
    sendVideo,
    sendConfig,
    config,
    setBlacklist,
    setWhitelist,
    closeTab,
    disableWeb,
    enableWeb,
};

/// All ten cases in declaration order.
inline constexpr std::array<NativeHostMessageType, 10> kAllNativeHostMessageTypes = {
    NativeHostMessageType::sendLoginHistory, NativeHostMessageType::loginHistory,
    NativeHostMessageType::sendVideo,        NativeHostMessageType::sendConfig,
    NativeHostMessageType::config,           NativeHostMessageType::setBlacklist,
    NativeHostMessageType::setWhitelist,     NativeHostMessageType::closeTab,
    NativeHostMessageType::disableWeb,       NativeHostMessageType::enableWeb,
};

[[nodiscard]] std::string_view rawValue(NativeHostMessageType type);

/// Exact, case-sensitive match of one of the ten raw values, without trimming.
[[nodiscard]] std::optional<NativeHostMessageType> makeNativeHostMessageType(
    std::string_view rawValue);

/// The envelope's members. The type tag travels under "action", not under its field's name.
enum class NativeHostMessageKeys { type, payload };

[[nodiscard]] constexpr std::string_view keyText(NativeHostMessageKeys key) {
    return key == NativeHostMessageKeys::type ? "action" : "payload";
}

/// The type tag of an envelope object: its "action" member, which must be a string holding one
/// of the raw values. Never throws. REQUIRES: `envelope` is a JSON object.
[[nodiscard]] std::optional<NativeHostMessageType> readNativeHostMessageType(
    const nlohmann::json& envelope);

}  // namespace kerrow
