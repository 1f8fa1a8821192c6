#include "model/native_host_message_payload.h"

#include <nlohmann/json.hpp>

#include "model/json_coding.h"
#include "model/json_text.h"
#include "model/native_host_message_type.h"

namespace kerrow {

namespace {

using Payload = NativeHostMessagePayload;
using json_coding::appendKey;

// Each writes the members of its case's payload object, without the braces.

bool encodeMembers(std::string& out, const Payload::SendLoginHistoryCase& values) {
    appendKey(out, Payload::keyText(Payload::SendLoginHistoryKeys::username));
    return appendJSONString(out, values.username);
}

bool encodeMembers(std::string& out, const Payload::LoginHistoryCase& values) {
    appendKey(out, Payload::keyText(Payload::LoginHistoryKeys::history));
    out.push_back('[');
    for (std::size_t index = 0; index < values.history.size(); ++index) {
        if (index != 0) {
            out.push_back(',');
        }
        if (!values.history[index].encode(out)) {
            return false;
        }
    }
    out.push_back(']');
    return true;
}

bool encodeMembers(std::string& out, const Payload::SendVideoCase& values) {
    appendKey(out, Payload::keyText(Payload::SendVideoKeys::callee));
    if (!appendJSONString(out, values.callee)) {
        return false;
    }
    out.push_back(',');
    appendKey(out, Payload::keyText(Payload::SendVideoKeys::video));
    values.video.encode(out);
    return true;
}

bool encodeMembers(std::string& out, const Payload::ConfigCase& values) {
    appendKey(out, Payload::keyText(Payload::ConfigKeys::config));
    return values.config.encode(out);
}

bool encodeMembers(std::string& out, const Payload::SetBlacklistCase& values) {
    appendKey(out, Payload::keyText(Payload::SetBlacklistKeys::blacklist));
    return json_coding::appendStringArray(out, values.blacklist);
}

bool encodeMembers(std::string& out, const Payload::SetWhitelistCase& values) {
    appendKey(out, Payload::keyText(Payload::SetWhitelistKeys::whitelist));
    return json_coding::appendStringArray(out, values.whitelist);
}

bool encodeMembers(std::string& out, const Payload::CloseTabCase& values) {
    appendKey(out, Payload::keyText(Payload::CloseTab::id));
    json_coding::appendInteger(out, values.id);
    return true;
}

bool encodeMembers(std::string&, const Payload::EmptyCase&) {
    return true;
}

std::optional<Payload> decodeLoginHistory(const nlohmann::json& object) {
    const nlohmann::json* const history =
        json_coding::readArray(object, Payload::keyText(Payload::LoginHistoryKeys::history));
    if (history == nullptr) {
        return std::nullopt;
    }
    std::vector<LoginEntry> entries;
    entries.reserve(history->size());
    for (const nlohmann::json& element : *history) {
        std::optional<LoginEntry> entry = LoginEntry::decode(element);
        if (!entry) {
            return std::nullopt;
        }
        entries.push_back(std::move(*entry));
    }
    return Payload::loginHistory(std::move(entries));
}

std::optional<Payload> decodeSendVideo(const nlohmann::json& object) {
    std::optional<std::string> callee =
        json_coding::readString(object, Payload::keyText(Payload::SendVideoKeys::callee));
    const nlohmann::json* const videoValue =
        json_coding::readObject(object, Payload::keyText(Payload::SendVideoKeys::video));
    std::optional<VideoOptions> video =
        videoValue != nullptr ? VideoOptions::decode(*videoValue) : std::nullopt;
    if (!callee || !video) {
        return std::nullopt;
    }
    return Payload::sendVideo(std::move(*callee), *video);
}

std::optional<Payload> decodeConfig(const nlohmann::json& object) {
    const nlohmann::json* const configValue =
        json_coding::readObject(object, Payload::keyText(Payload::ConfigKeys::config));
    std::optional<Config> config =
        configValue != nullptr ? Config::decode(*configValue) : std::nullopt;
    if (!config) {
        return std::nullopt;
    }
    return Payload::config(std::move(*config));
}

// The payload object of a type whose case has members of its own.
std::optional<Payload> decodeMembers(NativeHostMessageType type, const nlohmann::json& object) {
    using json_coding::readStringArray;
    switch (type) {
        case NativeHostMessageType::sendLoginHistory: {
            std::optional<std::string> username = json_coding::readString(
                object, Payload::keyText(Payload::SendLoginHistoryKeys::username));
            if (!username) {
                return std::nullopt;
            }
            return Payload::sendLoginHistory(std::move(*username));
        }
        case NativeHostMessageType::loginHistory:
            return decodeLoginHistory(object);
        case NativeHostMessageType::sendVideo:
            return decodeSendVideo(object);
        case NativeHostMessageType::config:
            return decodeConfig(object);
        case NativeHostMessageType::setBlacklist: {
            std::optional<std::vector<std::string>> blacklist =
                readStringArray(object, Payload::keyText(Payload::SetBlacklistKeys::blacklist));
            if (!blacklist) {
                return std::nullopt;
            }
            return Payload::setBlacklist(std::move(*blacklist));
        }
        case NativeHostMessageType::setWhitelist: {
            std::optional<std::vector<std::string>> whitelist =
                readStringArray(object, Payload::keyText(Payload::SetWhitelistKeys::whitelist));
            if (!whitelist) {
                return std::nullopt;
            }
            return Payload::setWhitelist(std::move(*whitelist));
        }
        case NativeHostMessageType::closeTab: {
            const std::optional<std::int64_t> id =
                json_coding::readInt64(object, Payload::keyText(Payload::CloseTab::id));
            if (!id) {
                return std::nullopt;
            }
            return Payload::closeTab(*id);
        }
        case NativeHostMessageType::sendConfig:
        case NativeHostMessageType::disableWeb:
        case NativeHostMessageType::enableWeb:
            break;
    }
    return std::nullopt;
}

}  // namespace

Payload Payload::sendLoginHistory(std::string username) {
    return Payload{SendLoginHistoryCase{std::move(username)}};
}

Payload Payload::loginHistory(std::vector<LoginEntry> history) {
    return Payload{LoginHistoryCase{std::move(history)}};
}

Payload Payload::sendVideo(std::string callee, VideoOptions video) {
    return Payload{SendVideoCase{std::move(callee), video}};
}

Payload Payload::config(Config config) {
    return Payload{ConfigCase{std::move(config)}};
}

Payload Payload::setBlacklist(std::vector<std::string> blacklist) {
    return Payload{SetBlacklistCase{std::move(blacklist)}};
}

Payload Payload::setWhitelist(std::vector<std::string> whitelist) {
    return Payload{SetWhitelistCase{std::move(whitelist)}};
}

Payload Payload::closeTab(std::int64_t id) {
    return Payload{CloseTabCase{id}};
}

Payload Payload::empty() {
    return Payload{EmptyCase{}};
}

bool Payload::encode(std::string& out) const {
    out.push_back('{');
    const bool encoded =
        std::visit([&out](const auto& values) { return encodeMembers(out, values); }, value_);
    if (!encoded) {
        return false;
    }
    out.push_back('}');
    return true;
}

std::optional<Payload> Payload::decode(const nlohmann::json& envelope) {
    if (!envelope.is_object()) {
        return std::nullopt;
    }
    const std::optional<NativeHostMessageType> type = readNativeHostMessageType(envelope);
    if (!type) {
        return std::nullopt;
    }
    switch (*type) {
        case NativeHostMessageType::sendConfig:
        case NativeHostMessageType::disableWeb:
        case NativeHostMessageType::enableWeb:
            return empty();
        default:
            break;
    }
    const nlohmann::json* const object =
        json_coding::readObject(envelope, kerrow::keyText(NativeHostMessageKeys::payload));
    if (object == nullptr) {
        return std::nullopt;
    }
    return decodeMembers(*type, *object);
}

}  // namespace kerrow
