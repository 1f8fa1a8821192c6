// DistributedNotificationCenter: session-wide notifications over the D-Bus session bus.
//
// A notification is the broadcast signal
//   path /com/kerrowsoftware/DistributedNotifications,
//   interface com.kerrowsoftware.DistributedNotifications, member Posted,
// whose first argument is the notification name (a string); further arguments are ignored, and
// a signal whose first argument is not a string is no notification. Observers match path,
// interface, member and arg0 from any sender, the center's own posts included. The match rule
// is acknowledged by the bus before addObserver() returns, so a notification that answers a later
// post of ours cannot be missed. Observers run from the center's event loop: for the default
// center that is Application::shared().eventLoop(), on the main thread.
//
// Each center owns one connection to the user's session bus (DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus), opened at the first addObserver() or postNotificationName(); without a
// session bus those throw std::system_error naming what failed, and the next call tries again.
// When the connection drops (the bus went away), sd-bus closes it and leaves the loop alone; the
// next addObserver() or postNotificationName() opens a new one and installs every observer again.
// Until then no notification arrives.
//
// The center owns its observers for its whole life; there is no removal. It keeps a reference to
// its loop. Use it only on the thread that runs its loop (main thread for the default center).
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sd_bus_handles.h"

namespace kerrow {

class DistributedNotificationCenter {
  public:
    using Observer = std::function<void()>;

    /// A center of its own, delivering through `loop`. The process uses defaultCenter(); tests
    /// make their own, on loops of their own.
    explicit DistributedNotificationCenter(sd_event* loop);
    ~DistributedNotificationCenter();
    DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
    DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;

    /// The process's center, on the main loop. Connects on first use, so this never throws for
    /// a missing bus.
    static DistributedNotificationCenter& defaultCenter();

    /// Calls `observer` on every notification `name`, from any sender, once the call returned.
    /// Throws std::system_error when the bus cannot be reached or refuses the match, and
    /// std::invalid_argument for a name holding an apostrophe or a backslash (match rules quote
    /// those differently on the two sides); the observer is then not registered. An exception that
    /// leaves `observer` is reported on standard error.
    void addObserver(std::string_view name, Observer observer);

    /// Broadcasts `name`. With `deliverImmediately` the signal is written to the bus before the
    /// call returns; otherwise the loop writes it out. Throws std::system_error when the bus cannot
    /// be reached.
    void postNotificationName(std::string_view name, bool deliverImmediately);

  private:
    struct Registration;
    /// The open connection, opening it and installing missing matches first; throws.
    sd_bus* bus();
    void connect();
    void installMatch(sd_bus* bus, Registration& registration);
    static int deliver(sd_bus_message* message, void* userdata, sd_bus_error* error);

    SdEvent loop_;
    SdBus bus_;  // null until first use; closed once the bus is lost
    // Each registration holds its match on bus_ (none while there is no open connection), so the
    // registrations go before the connection. Pointers to them are the matches' userdata.
    std::vector<std::unique_ptr<Registration>> registrations_;
};

}  // namespace kerrow
