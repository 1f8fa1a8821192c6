// AppDelegate: announces the host to the core service and, on its answer, builds and wires the
// socket endpoint, the browser extension channel and the host-to-core service.
//
// Launch: log, observe startCoreHostServices (once), post nativeMessagingHostDidFinishLaunching.
// Nothing is read or connected until the core service answers. Each startCoreHostServices then
// runs the start sequence: endpoint (setupSocket; a failure is logged and the sequence goes on),
// channel (started), service (wired as the endpoint's reader delegate, set up), device-twin
// request.
//
// Every notification delivered runs the start sequence in full, in the order delivered. A start
// first ends the reading of the retiring service (below) and then waits, with the event loop
// free, until that service and its channel are gone: at once, unless the service is still
// delivering to a browser that does not read or the channel is in a send to a core service that
// does not read (which gives up within the grace). So however fast notifications come, the
// objects and threads of at most two starts live at once: the current and the retiring one. A
// pending stop signal skips every start still due.
//
// A repeated start. The start notification is a broadcast, so every host of the session receives
// it whenever any host announces itself: a repeated start is routine. It replaces the endpoint,
// channel and service, and first retires the previous ones so that exactly one of each works:
//  - the previous channel is retired: its read loop stops at the next frame boundary, having
//    consumed no byte of the next frame, and releases standard input's reading lock, which the
//    new channel's loop waits for. No byte is lost, read twice or split between two readers; a
//    frame that was being read when the switch came is finished and forwarded by the previous
//    channel over its own connection, and every later frame goes over the new connection.
//  - the previous service is retired: its endpoint goes on reading the commands its connection
//    holds until the core service closes it or for a second of reading (time spent waiting for
//    standard output does not count), then stops reading, and its loop ends without
//    reconnecting (a reconnect under way gives up at once). Everything it read is delivered,
//    however long the browser takes; the new channel writes only after that (follow()). A send
//    on it gives up when the grace ends; an extension message cut off so is sent again, whole,
//    first by the next reader of standard input, and the old connection closes.
//  - at most one retiring service lives beside the current one: the next start ends its reading
//    at once (it still delivers what it read) before it retires the current one.
//  - frames on standard output never interleave: every writer takes the output handle's lock.
//
// Ownership: one instance per process, kept by the entry point for the process's life.
// Threads: main thread only (the launch callback and the notification arrive there).
#pragma once

#include <cstddef>
#include <memory>

#include "browser/browser_extension_io.h"
#include "core/host_to_core_socket_service.h"
#include "kit/logger.h"
#include "kit/socket_helper.h"
#include "platform/application.h"
#include "platform/distributed_notification_center.h"
#include "platform/sd_bus_handles.h"

namespace kerrow {

class AppDelegate final : public ApplicationDelegate {
  public:
    AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void applicationDidFinishLaunching() override;
    /// A stop signal (the browser, the session or a person ending the host): writes out the log,
    /// nothing else. The host's own end is at end of standard input.
    void applicationWillTerminate() override;

    /// The start sequence, run for every start notification served; none once a stop signal is
    /// pending. The device-twin request is sent by the new service, first on its connection.
    void startCoreHostServices();

  private:
    /// Watches startEnded on the main loop; without it, starts are served at once.
    void watchStartEnds();
    /// Runs the start sequence for each start due, once the retiring start's objects are gone.
    void serveStarts();
    void retirePreviousServices();
    void startBrowserConnection();
    void setUpHostToCoreService();
    void requestDeviceTwinUpdate();

    const Logger logger;
    std::shared_ptr<BrowserExtensionIO> browserConnection;
    std::shared_ptr<SocketHelper> socketHelper;
    std::shared_ptr<HostToCoreSocketService> hostToCoreSocketService;
    std::weak_ptr<HostToCoreSocketService> retiringService;  // the one before, while it lives
    DistributedNotificationCenter& distributedNotificationCenter;
    bool notificationsStarted = false;
    std::size_t startsDue = 0;  // notifications delivered and not yet served
    // The retiring start's endpoint, held by its channel and service until both are gone:
    // expired then (never set without startEnded, nor without an endpoint).
    std::weak_ptr<const void> retiringStart;
    std::shared_ptr<const Descriptor> startEnded;  // eventfd, written as a start's objects go
    SdEventSource startEndedSource;
};

}  // namespace kerrow
