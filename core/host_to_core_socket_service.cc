#include "core/host_to_core_socket_service.h"

#include <string_view>
#include <utility>

#include "kit/const.h"
#include "kit/utf8.h"

namespace kerrow {
namespace {

// The message with every occurrence of `keyword` removed.
std::string removingAll(std::string_view message, std::string_view keyword) {
    std::string rest;
    rest.reserve(message.size());
    for (std::size_t start = 0;;) {
        const std::size_t found = message.find(keyword, start);
        rest.append(message.substr(start, found - start));
        if (found == std::string_view::npos) {
            return rest;
        }
        start = found + keyword.size();
    }
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
    queue.async([weakSelf = weak_from_this(), endpoint] {
        if (const auto self = weakSelf.lock()) {
            self->runConnectionLoop(endpoint);
        }
    });
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
    const std::string_view text = textView(data);
    if (!isValidUTF8(text)) {
        return;
    }
    handleMessage(std::string(text));
}

void HostToCoreSocketService::handleMessage(const std::string& message) {
    if (contains(message, Const::Browser::closeTab)) {
        receivedCloseTab(removingAll(message, Const::Browser::closeTab));
    } else if (contains(message, Const::Browser::disableInternet)) {
        receivedDisableInternet(removingAll(message, Const::Browser::disableInternet));
    } else if (contains(message, Const::Browser::enableInternet)) {
        receivedEnableInternet();
    } else if (contains(message, Const::Browser::websiteList)) {
        receivedWebsiteList(dataFromText(removingAll(message, Const::Browser::websiteList)));
    }
}

void HostToCoreSocketService::receivedCloseTab(const std::string& tabId) {
    logger.logInformation("Received Close Tab ID: " + tabId, now());
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
    logger.logInformation("Received Disable Internet: " + payload, now());
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
    logger.logInformation("Received Website list", now());
    if (browserConnection) {
        browserConnection->setWebsiteList(websiteList);
    }
}

}  // namespace kerrow
