// SessionBus: the core peer's side of the distributed notifications on the D-Bus session bus:
// it observes one notification name and posts others, in the form the host uses (the broadcast
// signal Posted on /com/kerrowsoftware/DistributedNotifications, first argument the name).
//
// Owns its bus connection, attached to the peer's sd-event loop. Loop thread only.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/sd_bus_handles.h"

namespace kerrow::tools {

class SessionBus {
  public:
    /// Receives the unique bus name of the notification's sender.
    using Observer = std::function<void(const std::string& sender)>;

    /// Opens the user's session bus (DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus) on
    /// `loop`. Throws std::system_error naming what failed.
    explicit SessionBus(sd_event* loop);
    ~SessionBus();
    SessionBus(const SessionBus&) = delete;
    SessionBus& operator=(const SessionBus&) = delete;

    /// Calls `observer` for every notification `name` from any sender but this connection. The
    /// match is active when the call returns. Throws std::system_error.
    void observe(std::string_view name, Observer observer);

    /// Broadcasts `name` and flushes it to the bus. Throws std::system_error.
    void post(std::string_view name);

    /// This connection's unique name (":1.4").
    [[nodiscard]] std::string uniqueName() const;

  private:
    SdBus bus_;
    SdBusSlot slot_;
    Observer observer_;
};

}  // namespace kerrow::tools
