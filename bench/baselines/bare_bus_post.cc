// kerrow-bench-bare-bus: the least a program can do to announce itself: open the session bus,
// post the launch notification once, flush, end. The floor of the host's start-up figure. It
// takes only header-only parts of the host (the names and the bus handle), so it stays minimal.
#include <systemd/sd-bus.h>

#include <string>

#include "kit/notification_names.h"
#include "platform/sd_bus_handles.h"

int main() {
    sd_bus* opened = nullptr;
    if (sd_bus_open_user(&opened) < 0) {
        return 1;
    }
    const kerrow::SdBus bus(opened);
    const int posted = kerrow::emitNotification(
        bus.get(), std::string(kerrow::NotificationName::nativeMessagingHostDidFinishLaunching));
    return posted < 0 || sd_bus_flush(bus.get()) < 0 ? 1 : 0;
}
