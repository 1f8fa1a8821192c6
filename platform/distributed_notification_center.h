// DistributedNotificationCenter: session-wide notifications over the D-Bus session bus.
//
// A notification is the broadcast signal
//   path /com/kerrowsoftware/DistributedNotifications,
//   interface com.kerrowsoftware.DistributedNotifications, member Posted,
// whose first argument is the notification name (a string); further arguments are ignored.
// Observers match path, interface, member and arg0 from any sender; the match rule is
// acknowledged by the bus before addObserver() returns, so a notification that answers a later
// post of ours cannot be missed. Observers run on the main thread, from the Application's loop.
//
// The default center opens the user's session bus on first use (DBUS_SESSION_BUS_ADDRESS, else
// $XDG_RUNTIME_DIR/bus) and attaches it to Application::shared().eventLoop(). Without a session
// bus, addObserver() and postNotificationName() throw std::system_error naming what failed.
// Main thread only.
#pragma once

#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow {

class DistributedNotificationCenter {
  public:
    using Observer = std::function<void()>;

    DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
    DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;

    static DistributedNotificationCenter& defaultCenter();

    /// Calls `observer` on every notification `name`, from any sender. Throws std::system_error
    /// when the bus cannot be reached or refuses the match.
    void addObserver(std::string_view name, Observer observer);

    /// Broadcasts `name`. With `deliverImmediately` the signal is flushed to the bus before the
    /// call returns. Throws std::system_error when the bus cannot be reached.
    void postNotificationName(std::string_view name, bool deliverImmediately);

  private:
    DistributedNotificationCenter() = default;
    ~DistributedNotificationCenter();
    sd_bus* bus();  // opens and attaches on first use; throws

    struct Registration;
    sd_bus* bus_ = nullptr;
    std::vector<std::unique_ptr<Registration>> registrations_;
};

}  // namespace kerrow
