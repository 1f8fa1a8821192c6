// Application: the process's main event loop and its delegate.
//
// There is one Application per process (shared()). applicationMain() runs an sd-event loop on the
// main thread and, once the loop is running, calls the delegate's applicationDidFinishLaunching()
// exactly once from inside it. Everything that the loop dispatches (the launch callback,
// distributed notifications) runs on the main thread.
//
// Ending. The host's own end is at end of standard input, where the browser extension channel
// ends the process itself. Besides that, SIGTERM, SIGINT and SIGHUP (a browser, the session or a
// person asking the host to stop) end the loop, before any other source that is ready is served:
// the delegate's applicationWillTerminate() runs on the main thread, then the process ends with
// status 0. It ends with _exit(), without static destructors, because worker threads may still be
// blocked in reads or be logging.
//
// The application does not own its delegate: the caller keeps it alive for the whole process.
// All members are for the main thread only.
#pragma once

#include <systemd/sd-event.h>

#include <memory>

#include "platform/descriptor.h"
#include "platform/sd_bus_handles.h"

namespace kerrow {

class ApplicationDelegate {
  public:
    virtual ~ApplicationDelegate() = default;
    /// Called once, on the main thread, from inside the running event loop.
    virtual void applicationDidFinishLaunching() = 0;
    /// Called on the main thread after a stop signal ended the loop, just before the process
    /// ends: the place to write out what must not be lost (the log). Does nothing by default.
    virtual void applicationWillTerminate() {}
};

class Application {
  public:
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    static Application& shared();

    void setDelegate(ApplicationDelegate* delegate) { delegate_ = delegate; }
    [[nodiscard]] ApplicationDelegate* delegate() const { return delegate_; }

    /// The main thread's event loop, created on first use. Throws std::system_error when it
    /// cannot be created.
    [[nodiscard]] sd_event* eventLoop();

    /// Runs the loop until something calls sd_event_exit(); returns the code given there.
    /// Throws std::system_error when the loop itself fails.
    int run();

    /// A signalfd of the stop signals that turns readable, on the main thread, when a stop
    /// signal is pending. Work that blocks the main thread outside the loop polls it beside its
    /// own descriptors and returns early, so that the loop can end the process. Only polled,
    /// never read (the loop reads the signal). Null before applicationMain() set the signals up.
    [[nodiscard]] std::shared_ptr<const Descriptor> stopSignalDescriptor() const {
        return stopSignals_;
    }

    /// True when a stop signal is pending: the loop ends as soon as control returns to it, so
    /// work that is about to start may as well not.
    [[nodiscard]] bool stopRequested() const;

  private:
    Application() = default;
    ~Application() = default;

    ApplicationDelegate* delegate_ = nullptr;
    SdEvent loop_;  // null until eventLoop() is first called
    std::shared_ptr<const Descriptor> stopSignals_;

    friend int applicationMain(int argc, char** argv);
};

/// Runs the shared application on the main thread: makes the stop signals end the loop,
/// schedules the launch callback, runs the loop and then ends the process (see the top of this
/// file); it does not return once the loop has run. It returns EXIT_FAILURE, after a line on
/// standard error, only when it is called off the main thread or the loop cannot be set up or
/// fails.
/// The arguments are accepted as a browser passes them and are not interpreted.
int applicationMain(int argc, char** argv);

}  // namespace kerrow
