// The commands to the extension: each announces its message with a log line quoting the exact
// JSON text, then writes that text as one frame. A failure before the log line writes nothing.
#include <charconv>
#include <cstdint>

#include "browser/browser_extension_io.h"
#include "browser/standard_stream_framing.h"
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

// Writes the websites of a list straight into the message's JSON text as they are decoded, so a
// large list never exists as strings too. Once the text passes `limit` it stops keeping anything.
class MessageWebsites : public WebsiteList::WebsiteSink {
  public:
    explicit MessageWebsites(std::size_t limit) : limit_(limit) {}

    void restart() override {
        elements_.clear();
        overLimit_ = false;
    }

    void add(std::string_view website) override {
        if (overLimit_) {
            return;
        }
        if (!elements_.empty()) {
            elements_ += ',';
        }
        // The decoder passes only well-formed UTF-8, which the writer always takes.
        (void)appendJSONString(elements_, website);
        if (elements_.size() > limit_) {
            overLimit_ = true;
            std::string().swap(elements_);
        }
    }

    /// The array's elements ("a","b"); meaningless when overLimit().
    [[nodiscard]] const std::string& elements() const { return elements_; }
    [[nodiscard]] bool overLimit() const { return overLimit_; }

  private:
    const std::size_t limit_;
    std::string elements_;
    bool overLimit_ = false;
};

// The list message's text around its array's elements: "...[" and "]...".
std::pair<std::string, std::string> listEnvelope(WebsiteList::ListType kind) {
    std::string empty = listMessage(kind, {}).toJSONString().value_or(std::string());
    const std::size_t array = empty.find("[]");
    return {empty.substr(0, array + 1), empty.substr(array + 1)};
}

// The error of a command dropped because its message would not fit the browser's limit.
std::length_error overLimit(std::string_view what, std::size_t inputSize) {
    return std::length_error(std::string(what) + " of " + std::to_string(inputSize) +
                             " bytes would give a message over the browser's limit of " +
                             std::to_string(maximumMessageLength) + " bytes");
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
    logger.logInformation(line, *json, now());
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
    writeAnnounced("Closing Tab", message.toJSONString());
}

void BrowserExtensionIO::disableInternet(const std::string& payload) {
    // Escaping only ever lengthens the text, so the message is at least this long.
    const std::size_t envelope = DisableInternet{"disableWeb", ""}.toJSONString()->size();
    if (payload.size() + envelope > maximumMessageLength) {
        logger.logError(overLimit("a payload", payload.size()), "Not Disabling Internet", now());
        return;
    }
    const DisableInternet message{"disableWeb", payload};
    writeAnnounced("Disabling Internet", message.toJSONString());
}

void BrowserExtensionIO::enableInternet() {
    const NativeHostMessage message{NativeHostMessageType::enableWeb,
                                    NativeHostMessagePayload::empty()};
    writeAnnounced("Enabling Internet", message.toJSONString());
}

void BrowserExtensionIO::setWebsiteList(const Data& websiteListJSON) {
    setWebsiteList(std::span<const std::uint8_t>(websiteListJSON));
}

void BrowserExtensionIO::setWebsiteList(std::span<const std::uint8_t> websiteListJSON) {
    // Both list messages have envelopes of one length.
    const auto [prefix, suffix] = listEnvelope(WebsiteList::ListType::allow);
    MessageWebsites websites(maximumMessageLength -
                             std::min(maximumMessageLength, prefix.size() + suffix.size()));
    const auto listType = WebsiteList::decode(websiteListJSON, websites);
    if (!listType) {
        return;
    }
    if (*listType != WebsiteList::ListType::allow && *listType != WebsiteList::ListType::block) {
        clearWebsiteLists();
        return;
    }
    if (websites.overLimit()) {
        logger.logError(overLimit("a list", websiteListJSON.size()), "Not Setting Website List",
                        now());
        return;
    }
    const auto [head, tail] = listEnvelope(*listType);
    std::string json;
    json.reserve(head.size() + websites.elements().size() + tail.size());
    json.append(head).append(websites.elements()).append(tail);
    writeAnnounced("Setting Website List", std::optional<std::string>(std::move(json)));
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
