// The names of the distributed notifications' signal on the session bus, and owning handles for
// the sd-bus and sd-event objects that the host, the peers and the tests hold. Every distributed
// notification is the broadcast signal
//
//   path notificationObjectPath, interface notificationInterface, member notificationMember,
//   one string argument (arg0): the notification's name.
//
// The handles are plain std::unique_ptr: each releases its object on destruction, on the thread
// that owns it (sd-bus and sd-event objects belong to one thread).
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <string_view>

namespace kerrow {

inline constexpr const char* notificationObjectPath =
    "/com/kerrowsoftware/DistributedNotifications";
inline constexpr const char* notificationInterface = "com.kerrowsoftware.DistributedNotifications";
inline constexpr const char* notificationMember = "Posted";

/// The match rule for notification `name`. REQUIRES: `name` holds no apostrophe or backslash
/// (dbus-daemon and sd-bus quote those differently).
[[nodiscard]] inline std::string notificationMatchRule(std::string_view name) {
    return std::string("type='signal',path='") + notificationObjectPath + "',interface='" +
           notificationInterface + "',member='" + notificationMember + "',arg0='" +
           std::string(name) + "'";
}

/// Broadcasts notification `name` on `bus` (queued; sd_bus_flush() writes it out). The result of
/// sd_bus_emit_signal(): negative errno on failure.
inline int emitNotification(sd_bus* bus, const std::string& name) {
    return sd_bus_emit_signal(bus, notificationObjectPath, notificationInterface,
                              notificationMember, "s", name.c_str());
}

struct SdBusClose {
    /// Writes out what is queued, then closes: a posted notification is not lost.
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct SdBusSlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct SdEventUnref {
    void operator()(sd_event* loop) const { sd_event_unref(loop); }
};
struct SdEventSourceRelease {
    /// Disabled first, so the callback can no longer run even while the loop holds a reference.
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};

using SdBus = std::unique_ptr<sd_bus, SdBusClose>;
using SdBusSlot = std::unique_ptr<sd_bus_slot, SdBusSlotUnref>;
using SdEvent = std::unique_ptr<sd_event, SdEventUnref>;
using SdEventSource = std::unique_ptr<sd_event_source, SdEventSourceRelease>;

}  // namespace kerrow
