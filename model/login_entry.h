// LoginEntry: one login or logout from the system's login accounting, as carried in the
// loginHistory payload. A plain value with no shared state: build, copy and code it on any thread.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

struct utmpx;

namespace kerrow {

struct LoginEntry {
    enum class Action { login, logout };

    enum class CodingKeys { date, action, username, line };

    /// Written to the second; JSON form "2024-05-01T08:00:00Z".
    std::chrono::sys_seconds date;
    Action action = Action::login;
    /// Login name and terminal line, carried unchanged.
    std::string username;
    std::string line;

    [[nodiscard]] static constexpr std::string_view keyText(CodingKeys key) {
        switch (key) {
            case CodingKeys::date:
                return "date";
            case CodingKeys::action:
                return "action";
            case CodingKeys::username:
                return "username";
            case CodingKeys::line:
                return "line";
        }
        return {};
    }

    [[nodiscard]] static constexpr std::string_view rawValue(Action action) {
        return action == Action::login ? "login" : "logout";
    }

    /// Exact, case-sensitive match of "login" or "logout".
    [[nodiscard]] static std::optional<Action> makeAction(std::string_view rawValue);

    /// USER_PROCESS gives a login and DEAD_PROCESS a logout, dated by the whole seconds of
    /// ut_tv; any other record type gives nullopt. ut_user and ut_line are read up to their first
    /// zero byte (or in full), with ill-formed UTF-8 replaced by U+FFFD.
    [[nodiscard]] static std::optional<LoginEntry> fromUtmpx(const ::utmpx& record);

    /// Appends the JSON object; false when the date cannot be written (outside the years 0000 to
    /// 9999) or a text is not UTF-8, in which case `out` holds a partial text.
    [[nodiscard]] bool encode(std::string& out) const;

    /// Strict: all four members present and well typed. Never throws.
    [[nodiscard]] static std::optional<LoginEntry> decode(const nlohmann::json& value);

    bool operator==(const LoginEntry&) const = default;
};

}  // namespace kerrow
