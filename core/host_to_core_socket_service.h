// HostToCoreSocketService: keeps the inbound side of the link to the core service alive.
//
// A connection loop on its own serial queue reads the shared endpoint, reconnects when the core
// service ends the connection, and stops for good after a socket error. Every message that the
// endpoint delivers is routed by the first Const::Browser keyword it contains (closeTab,
// disableInternet, enableInternet, websiteList, in that order) to one command of the browser
// extension channel. The messages that one read of the endpoint delivers go to standard output
// together: the channel holds their frames until the endpoint has delivered them all.
//
// Retirement: a retired service reads its connection for retirementGrace at most (endReading()
// ends that at once) and delivers everything it read, however long standard output takes; then
// it ends its channel's output, so that the channel of the next start may write.
//
// Ownership: held by the application delegate (std::shared_ptr); a queued or running loop holds
// it too.
// It holds the channel and the endpoint; the endpoint holds it weakly as its reader delegate.
// Both references are set before setup() and not changed afterwards.
// Threads: the loop, didReadData() and the handlers run on `queue` (the endpoint delivers inside
// readSocket()). retire() and endReading() may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "browser/browser_extension_io.h"
#include "kit/logger.h"
#include "kit/socket_helper.h"
#include "platform/dispatch_queue.h"

namespace kerrow {

class HostToCoreSocketService final : public SocketReaderDelegate,
                                      public HostToCoreSocketProtocol,
                                      public std::enable_shared_from_this<HostToCoreSocketService> {
  public:
    HostToCoreSocketService();
    ~HostToCoreSocketService() override;
    HostToCoreSocketService(const HostToCoreSocketService&) = delete;
    HostToCoreSocketService& operator=(const HostToCoreSocketService&) = delete;

    /// Queues one run of the connection loop on the endpoint set now; nothing without one. The
    /// loop first sends firstMessage, if set, on the connection.
    void setup();

    /// Writes the frames that the commands of one read left with the channel.
    void didDeliverFrames() override;

    void didReadData(const Data& data) override;
    void didReadFrame(std::span<const std::uint8_t> data) override;
    /// Routes one message to the handler of the first keyword it contains.
    void handleMessage(const std::string& message);
    void handleMessage(std::string_view message);

    void receivedCloseTab(const std::string& tabId) override;
    void receivedDisableInternet(const std::string& payload) override;
    void receivedEnableInternet() override;
    void receivedWebsiteList(const Data& websiteList) override;
    void receivedWebsiteList(std::span<const std::uint8_t> websiteList);

    /// Retires the service: the endpoint keeps delivering what its connection holds until the
    /// core service closes it or retirementGrace has passed, then the loop ends without
    /// reconnecting (a reconnect under way gives up, without an error line). Sends on the endpoint
    /// are bounded by the same grace.
    void retire();

    /// Retires the service with no grace: reading ends at once (what was read is delivered).
    void endReading();

    static constexpr std::chrono::milliseconds retirementGrace{1000};

    std::optional<Data> firstMessage;  // set before setup()

    std::shared_ptr<BrowserExtensionIO> browserConnection;  // set before setup()
    std::shared_ptr<SocketHelper> socketHelper;             // set before setup()

  private:
    void queueConnectionLoop(const std::shared_ptr<SocketHelper>& endpoint);
    void runConnectionLoop(const std::shared_ptr<SocketHelper>& endpoint);
    /// One read of the endpoint, the channel holding the frames of the commands it brings.
    void readOnce(SocketHelper& endpoint);
    /// Counts one of the two conditions of the channel's end of output: retired, loop over.
    void countTowardsEndOfOutput();

    const Logger logger;
    DispatchQueue queue;
    std::atomic<bool> retired_{false};
    std::atomic<int> outputUntilEnd_{2};  // retirement and end of the loop still to come
};

}  // namespace kerrow
