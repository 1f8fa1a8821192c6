// Application: the process's main event loop and its delegate.
//
// There is one Application per process (shared()). applicationMain() runs an sd-event loop on the
// calling (main) thread and, once the loop is running, calls the delegate's
// applicationDidFinishLaunching() exactly once from inside it. Everything that the loop
// dispatches (the launch callback, distributed notifications) runs on the main thread.
// The application does not own its delegate: the caller keeps it alive for the whole process.
// All members are for the main thread only.
#pragma once

#include <systemd/sd-event.h>

namespace kerrow {

class ApplicationDelegate {
  public:
    virtual ~ApplicationDelegate() = default;
    /// Called once, on the main thread, from inside the running event loop.
    virtual void applicationDidFinishLaunching() = 0;
};

class Application {
  public:
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    static Application& shared();

    void setDelegate(ApplicationDelegate* delegate) { delegate_ = delegate; }
    [[nodiscard]] ApplicationDelegate* delegate() const { return delegate_; }

    /// The main thread's event loop (created on first use).
    [[nodiscard]] sd_event* eventLoop();

    /// Runs the loop until it exits; returns the loop's exit code.
    int run();

  private:
    Application() = default;
    ~Application();

    ApplicationDelegate* delegate_ = nullptr;
    sd_event* loop_ = nullptr;
};

/// Runs the shared application: schedules the launch callback and runs the event loop on this
/// thread. The arguments are accepted as a browser passes them and are not interpreted.
int applicationMain(int argc, char** argv);

}  // namespace kerrow
