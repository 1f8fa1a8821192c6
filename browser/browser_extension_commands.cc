// The commands to the extension: each announces its message with a log line quoting the exact
// JSON text, then writes that text as one frame. A failure before the log line writes nothing.
#include <charconv>
#include <cstdint>

#include "browser/browser_extension_io.h"
#include "kit/website_list.h"
#include "model/json_text.h"
#include "model/native_host_message.h"

namespace kerrow {
namespace {

// A strict base-10 64-bit integer: an optional "+" or "-", then digits, nothing else.
std::optional<std::int64_t> parseTabId(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') {
            return std::nullopt;
        }
    }
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || text == "-") {
        return std::nullopt;
    }
    return value;
}

NativeHostMessage listMessage(WebsiteList::ListType kind, std::vector<std::string> websites) {
    if (kind == WebsiteList::ListType::allow) {
        return {NativeHostMessageType::setWhitelist,
                NativeHostMessagePayload::setWhitelist(std::move(websites))};
    }
    return {NativeHostMessageType::setBlacklist,
            NativeHostMessagePayload::setBlacklist(std::move(websites))};
}

}  // namespace

std::optional<std::string> BrowserExtensionIO::DisableInternet::toJSONString() const {
    std::string json = "{\"action\":";
    if (!appendJSONString(json, action)) {
        return std::nullopt;
    }
    json += ",\"payload\":";
    if (!appendJSONString(json, payload)) {
        return std::nullopt;
    }
    json += '}';
    return json;
}

void BrowserExtensionIO::writeAnnounced(std::string_view line,
                                        const std::optional<std::string>& json) {
    if (!json) {
        return;
    }
    std::string message;
    message.reserve(line.size() + json->size());
    message.append(line).append(*json);
    logger.logInformation(message, now());
    writeMessage(*json);
}

void BrowserExtensionIO::closeTab(const std::string& id) {
    const auto tabId = parseTabId(id);
    if (!tabId) {
        logger.logInformation("Could not cast to Int: " + id, now());
        return;
    }
    const NativeHostMessage message{NativeHostMessageType::closeTab,
                                    NativeHostMessagePayload::closeTab(*tabId)};
    writeAnnounced("Closing Tab: ", message.toJSONString());
}

void BrowserExtensionIO::disableInternet(const std::string& payload) {
    const DisableInternet message{"disableWeb", payload};
    writeAnnounced("Disabling Internet: ", message.toJSONString());
}

void BrowserExtensionIO::enableInternet() {
    const NativeHostMessage message{NativeHostMessageType::enableWeb,
                                    NativeHostMessagePayload::empty()};
    writeAnnounced("Enabling Internet: ", message.toJSONString());
}

void BrowserExtensionIO::setWebsiteList(const Data& websiteListJSON) {
    auto list = WebsiteList::decode(websiteListJSON);
    if (!list) {
        return;
    }
    if (list->listType != WebsiteList::ListType::allow &&
        list->listType != WebsiteList::ListType::block) {
        clearWebsiteLists();
        return;
    }
    const NativeHostMessage message = listMessage(list->listType, std::move(list->websites));
    writeAnnounced("Setting Website List: ", message.toJSONString());
}

void BrowserExtensionIO::clearWebsiteLists() {
    const auto allow = listMessage(WebsiteList::ListType::allow, {}).toJSONString();
    const auto block = listMessage(WebsiteList::ListType::block, {}).toJSONString();
    if (!allow || !block) {
        return;
    }
    logger.logInformation("Clearing Allow Website Lists", now());
    writeMessage(*allow);
    logger.logInformation("Clearing Block Website Lists", now());
    writeMessage(*block);
}

}  // namespace kerrow
