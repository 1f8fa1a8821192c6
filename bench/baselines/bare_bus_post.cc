// kerrow-bench-bare-bus: the least a program can do to announce itself: open the session bus,
// post the launch notification once, flush, end. The floor of the host's start-up figure.
#include <systemd/sd-bus.h>

#include <string>

#include "kit/notification_names.h"

int main() {
    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) {
        return 1;
    }
    const std::string name(kerrow::NotificationName::nativeMessagingHostDidFinishLaunching);
    const int posted = sd_bus_emit_signal(bus, "/com/kerrowsoftware/DistributedNotifications",
                                          "com.kerrowsoftware.DistributedNotifications", "Posted",
                                          "s", name.c_str());
    const int flushed = sd_bus_flush(bus);
    sd_bus_flush_close_unref(bus);
    return posted < 0 || flushed < 0 ? 1 : 0;
}
