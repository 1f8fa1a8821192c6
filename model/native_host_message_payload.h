// NativeHostMessagePayload: the payload of a message to the browser extension, a tagged union of
// eight cases. A plain value with no shared state: build, copy and code it on any thread.
//
// Encoding writes only the inner payload object (the envelope places it under "payload"); the
// empty case writes {}. Decoding reads the whole envelope object, because the case is chosen by
// the envelope's type tag, not by the shape of the payload. The payload's case and the envelope's
// type are independent: nothing forces them to agree when a message is built.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "model/config.h"
#include "model/login_entry.h"
#include "model/video_options.h"

namespace kerrow {

class NativeHostMessagePayload {
  public:
    // The associated values of each case, in case order.
    struct SendLoginHistoryCase {
        std::string username;
        bool operator==(const SendLoginHistoryCase&) const = default;
    };
    struct LoginHistoryCase {
        std::vector<LoginEntry> history;
        bool operator==(const LoginHistoryCase&) const = default;
    };
    struct SendVideoCase {
        std::string callee;
        VideoOptions video;
        bool operator==(const SendVideoCase&) const = default;
    };
    struct ConfigCase {
        Config config;
        bool operator==(const ConfigCase&) const = default;
    };
    struct SetBlacklistCase {
        std::vector<std::string> blacklist;
        bool operator==(const SetBlacklistCase&) const = default;
    };
    struct SetWhitelistCase {
        std::vector<std::string> whitelist;
        bool operator==(const SetWhitelistCase&) const = default;
    };
    struct CloseTabCase {
        std::int64_t id = 0;
        bool operator==(const CloseTabCase&) const = default;
    };
    struct EmptyCase {
        bool operator==(const EmptyCase&) const = default;
    };

    /// The variant's index is the case's tag, 0 (sendLoginHistory) to 7 (empty).
    using Value = std::variant<SendLoginHistoryCase, LoginHistoryCase, SendVideoCase, ConfigCase,
                               SetBlacklistCase, SetWhitelistCase, CloseTabCase, EmptyCase>;

    // The member names of each case's payload object.
    enum class SendLoginHistoryKeys { username };
    enum class LoginHistoryKeys { history };
    enum class SendVideoKeys { callee, video };
    enum class ConfigKeys { config };
    enum class SetBlacklistKeys { blacklist };
    enum class SetWhitelistKeys { whitelist };
    enum class CloseTab { id };

    [[nodiscard]] static constexpr std::string_view keyText(SendLoginHistoryKeys) {
        return "username";
    }
    [[nodiscard]] static constexpr std::string_view keyText(LoginHistoryKeys) { return "history"; }
    [[nodiscard]] static constexpr std::string_view keyText(SendVideoKeys key) {
        return key == SendVideoKeys::callee ? "callee" : "video";
    }
    [[nodiscard]] static constexpr std::string_view keyText(ConfigKeys) { return "config"; }
    [[nodiscard]] static constexpr std::string_view keyText(SetBlacklistKeys) {
        return "blacklist";
    }
    [[nodiscard]] static constexpr std::string_view keyText(SetWhitelistKeys) {
        return "whitelist";
    }
    [[nodiscard]] static constexpr std::string_view keyText(CloseTab) { return "id"; }

    [[nodiscard]] static NativeHostMessagePayload sendLoginHistory(std::string username);
    [[nodiscard]] static NativeHostMessagePayload loginHistory(std::vector<LoginEntry> history);
    [[nodiscard]] static NativeHostMessagePayload sendVideo(std::string callee, VideoOptions video);
    [[nodiscard]] static NativeHostMessagePayload config(Config config);
    [[nodiscard]] static NativeHostMessagePayload setBlacklist(std::vector<std::string> blacklist);
    [[nodiscard]] static NativeHostMessagePayload setWhitelist(std::vector<std::string> whitelist);
    [[nodiscard]] static NativeHostMessagePayload closeTab(std::int64_t id);
    [[nodiscard]] static NativeHostMessagePayload empty();

    [[nodiscard]] const Value& value() const { return value_; }

    /// Appends the payload object, members in case order; false when a text is not UTF-8 or a
    /// login date cannot be written, in which case `out` holds a partial text.
    [[nodiscard]] bool encode(std::string& out) const;

    /// Reads the payload of `envelope` for the case that its "action" names. sendConfig,
    /// disableWeb and enableWeb give the empty case without looking at "payload" at all; every
    /// other type needs "payload" to be an object holding all of that case's members, well typed.
    /// Never throws.
    [[nodiscard]] static std::optional<NativeHostMessagePayload> decode(
        const nlohmann::json& envelope);

    bool operator==(const NativeHostMessagePayload&) const = default;

  private:
    explicit NativeHostMessagePayload(Value value) : value_(std::move(value)) {}

    Value value_;
};

}  // namespace kerrow
