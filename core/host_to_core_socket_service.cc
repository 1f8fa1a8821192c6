#include "core/host_to_core_socket_service.h"

#include <string_view>
#include <utility>

#include "kit/const.h"
#include "kit/utf8.h"

namespace kerrow {
namespace {

// The message with every occurrence of `keyword` removed. Where the keyword occurs, the rest is
// shorter than the message by at least one keyword, and a short rest (a tab id) stays in the
// string's own buffer, with no allocation.
std::string removingAll(std::string_view message, std::string_view keyword) {
    std::size_t found = message.find(keyword);
    if (found == std::string_view::npos) {
        return std::string(message);
    }
    std::string rest;
    rest.reserve(message.size() - keyword.size());
    for (std::size_t start = 0;; found = message.find(keyword, start)) {
        rest.append(message.substr(start, found - start));
        if (found == std::string_view::npos) {
            return rest;
        }
        start = found + keyword.size();
    }
}

// The message without `keyword`: a view into `message` when the keyword only leads it (the
// usual form), else the text with every occurrence removed, kept in `storage`.
std::string_view removingAll(std::string_view message, std::string_view keyword,
                             std::string& storage) {
    if (message.starts_with(keyword) &&
        message.find(keyword, keyword.size()) == std::string_view::npos) {
        return message.substr(keyword.size());
    }
    storage = removingAll(message, keyword);
    return storage;
}

bool contains(std::string_view message, std::string_view keyword) {
    return message.find(keyword) != std::string_view::npos;
}

}  // namespace

HostToCoreSocketService::HostToCoreSocketService()
    : logger(now(), std::nullopt), queue("native-host-socket") {}

HostToCoreSocketService::~HostToCoreSocketService() {
    if (browserConnection) {
        browserConnection->endOutput();  // nothing more can come through it
    }
}

void HostToCoreSocketService::setup() {
    const auto endpoint = socketHelper;
    if (!endpoint) {
        countTowardsEndOfOutput();  // no loop
        return;
    }
    queueConnectionLoop(endpoint);
}

void HostToCoreSocketService::queueConnectionLoop(const std::shared_ptr<SocketHelper>& endpoint) {
    // Held strongly until the loop has run: a service replaced before its loop starts still
    // sends its first message and reads its connection for the grace, as every start's does.
    queue.async([self = shared_from_this(), endpoint] { self->runConnectionLoop(endpoint); });
}

void HostToCoreSocketService::runConnectionLoop(const std::shared_ptr<SocketHelper>& endpoint) {
    logger.logInformation("Established a Connection in host-to-core service", now());
    if (auto message = std::exchange(firstMessage, std::nullopt)) {
        try {
            endpoint->sendData(*message);
        } catch (const std::exception&) {
            // The core service is not reachable; it asks again when it answers the next start.
        }
    }
    try {
        do {
            readOnce(*endpoint);
        } while (endpoint->isConnected());
        if (!retired_) {
            endpoint->resetSocket(SocketHelper::browserSocketLocation());
            endpoint->setupSocket();
            if (!retired_) {
                queueConnectionLoop(endpoint);
                return;
            }
        }
    } catch (const std::exception& error) {
        // A connect abandoned because this service retired is routine, not a socket error.
        if (!retired_) {
            logger.logError(error, "Error with socket in host-to-core service", now());
        }
        endpoint->closeSocket();
    }
    countTowardsEndOfOutput();
}

void HostToCoreSocketService::readOnce(SocketHelper& endpoint) {
    if (!browserConnection) {
        endpoint.readSocket();
        return;
    }
    browserConnection->holdMessages();
    try {
        endpoint.readSocket();
    } catch (const std::exception&) {
        browserConnection->writeHeldMessages();  // those before a frame error go out as well
        throw;
    }
    browserConnection->writeHeldMessages();  // no-op once didDeliverFrames() wrote them
}

void HostToCoreSocketService::didDeliverFrames() {
    if (browserConnection) {
        browserConnection->writeHeldMessages();
    }
}

void HostToCoreSocketService::countTowardsEndOfOutput() {
    if (outputUntilEnd_.fetch_sub(1) == 1 && browserConnection) {
        browserConnection->endOutput();
    }
}

void HostToCoreSocketService::retire() {
    const bool first = !retired_.exchange(true);  // before the loop can see the reading end
    if (socketHelper) {
        socketHelper->retire(retirementGrace);
    }
    if (first) {
        countTowardsEndOfOutput();
    }
}

void HostToCoreSocketService::endReading() {
    retire();  // bounds the endpoint's sends too
    if (socketHelper) {
        socketHelper->stopReading();
    }
}

void HostToCoreSocketService::didReadData(const Data& data) {
    didReadFrame(std::span<const std::uint8_t>(data));
}

void HostToCoreSocketService::didReadFrame(std::span<const std::uint8_t> data) {
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (isValidUTF8(text)) {
        handleMessage(text);
    }
}

void HostToCoreSocketService::handleMessage(const std::string& message) {
    handleMessage(std::string_view(message));
}

void HostToCoreSocketService::handleMessage(std::string_view message) {
    if (contains(message, Const::Browser::closeTab)) {
        receivedCloseTab(removingAll(message, Const::Browser::closeTab));
    } else if (contains(message, Const::Browser::disableInternet)) {
        receivedDisableInternet(removingAll(message, Const::Browser::disableInternet));
    } else if (contains(message, Const::Browser::enableInternet)) {
        receivedEnableInternet();
    } else if (contains(message, Const::Browser::websiteList)) {
        std::string storage;
        const std::string_view list = removingAll(message, Const::Browser::websiteList, storage);
        receivedWebsiteList(
            std::span(reinterpret_cast<const std::uint8_t*>(list.data()), list.size()));
    }
}

void HostToCoreSocketService::receivedCloseTab(const std::string& tabId) {
    logger.logInformation("Received Close Tab ID", tabId, now());
    // The id is the last non-empty piece between hyphens: "42", "-42" and "tab-42" all give 42.
    const std::size_t end = tabId.find_last_not_of('-');
    if (end == std::string::npos || !browserConnection) {
        return;
    }
    const std::size_t begin = tabId.rfind('-', end);
    browserConnection->closeTab(tabId.substr(begin == std::string::npos ? 0 : begin + 1,
                                             begin == std::string::npos ? end + 1 : end - begin));
}

void HostToCoreSocketService::receivedDisableInternet(const std::string& payload) {
    logger.logInformation("Received Disable Internet", payload, now());
    if (browserConnection) {
        browserConnection->disableInternet(payload);
    }
}

void HostToCoreSocketService::receivedEnableInternet() {
    logger.logInformation("Received Enable Internet", now());
    if (browserConnection) {
        browserConnection->enableInternet();
    }
}

void HostToCoreSocketService::receivedWebsiteList(const Data& websiteList) {
    receivedWebsiteList(std::span<const std::uint8_t>(websiteList));
}

void HostToCoreSocketService::receivedWebsiteList(std::span<const std::uint8_t> websiteList) {
    logger.logInformation("Received Website list", now());
    if (browserConnection) {
        browserConnection->setWebsiteList(websiteList);
    }
}

}  // namespace kerrow
