#include "model/login_entry.h"

#include <utmpx.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "kit/utf8.h"
#include "model/internet_date_time.h"
#include "model/json_coding.h"
#include "model/json_text.h"

namespace kerrow {

namespace {

// A fixed-size accounting field is NUL-terminated only when its text is shorter than the field.
std::string textOfField(const char* field, std::size_t size) {
    const void* terminator = std::memchr(field, '\0', size);
    const std::size_t length =
        terminator == nullptr
            ? size
            : static_cast<std::size_t>(static_cast<const char*>(terminator) - field);
    return utf8::repaired({field, length});
}

}  // namespace

std::optional<LoginEntry::Action> LoginEntry::makeAction(std::string_view rawValue) {
    for (const Action action : {Action::login, Action::logout}) {
        if (rawValue == LoginEntry::rawValue(action)) {
            return action;
        }
    }
    return std::nullopt;
}

std::optional<LoginEntry> LoginEntry::fromUtmpx(const ::utmpx& record) {
    Action action;
    switch (record.ut_type) {
        case USER_PROCESS:
            action = Action::login;
            break;
        case DEAD_PROCESS:
            action = Action::logout;
            break;
        default:
            return std::nullopt;
    }
    return LoginEntry{
        .date = std::chrono::sys_seconds{std::chrono::seconds{record.ut_tv.tv_sec}},
        .action = action,
        .username = textOfField(record.ut_user, sizeof record.ut_user),
        .line = textOfField(record.ut_line, sizeof record.ut_line),
    };
}

bool LoginEntry::encode(std::string& out) const {
    using json_coding::appendKey;
    const std::optional<std::string> dateText = formatInternetDateTime(date);
    if (!dateText) {
        return false;
    }
    out.push_back('{');
    appendKey(out, keyText(CodingKeys::date));
    out.push_back('"');
    out.append(*dateText);
    out.append("\",");
    appendKey(out, keyText(CodingKeys::action));
    out.push_back('"');
    out.append(rawValue(action));
    out.append("\",");
    appendKey(out, keyText(CodingKeys::username));
    if (!appendJSONString(out, username)) {
        return false;
    }
    out.push_back(',');
    appendKey(out, keyText(CodingKeys::line));
    if (!appendJSONString(out, line)) {
        return false;
    }
    out.push_back('}');
    return true;
}

std::optional<LoginEntry> LoginEntry::decode(const nlohmann::json& value) {
    using json_coding::readString;
    if (!value.is_object()) {
        return std::nullopt;
    }
    const std::optional<std::string> dateText = readString(value, keyText(CodingKeys::date));
    const std::optional<std::chrono::sys_seconds> date =
        dateText ? parseInternetDateTime(*dateText) : std::nullopt;
    const std::optional<std::string> actionText = readString(value, keyText(CodingKeys::action));
    const std::optional<Action> action = actionText ? makeAction(*actionText) : std::nullopt;
    std::optional<std::string> username = readString(value, keyText(CodingKeys::username));
    std::optional<std::string> line = readString(value, keyText(CodingKeys::line));
    if (!date || !action || !username || !line) {
        return std::nullopt;
    }
    return LoginEntry{*date, *action, std::move(*username), std::move(*line)};
}

}  // namespace kerrow
