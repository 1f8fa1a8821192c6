#include "tools/core_peer/session_bus.h"

#include <cstring>

#include "tools/common/event_loop.h"

namespace kerrow::tools {
SessionBus::SessionBus(sd_event* loop) {
    sd_bus* bus = nullptr;
    check(sd_bus_open_user(&bus), "session bus: opening");
    bus_.reset(bus);
    check(sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL),
          "session bus: attaching to the loop");
}

SessionBus::~SessionBus() = default;

void SessionBus::observe(std::string_view name, Observer observer) {
    observer_ = std::move(observer);
    const std::string rule = notificationMatchRule(name);
    const auto onSignal = [](sd_bus_message* message, void* self, sd_bus_error*) {
        auto& bus = *static_cast<SessionBus*>(self);
        const char* sender = sd_bus_message_get_sender(message);
        const std::string from = sender ? sender : "";
        if (from != bus.uniqueName()) {
            bus.observer_(from);
        }
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    check(sd_bus_add_match(bus_.get(), &slot, rule.c_str(), onSignal, this),
          "session bus: adding the match");
    slot_.reset(slot);
}

void SessionBus::post(std::string_view name) {
    const std::string text(name);
    check(emitNotification(bus_.get(), text), "session bus: posting " + text);
    check(sd_bus_flush(bus_.get()), "session bus: flushing");
}

std::string SessionBus::uniqueName() const {
    const char* name = nullptr;
    if (sd_bus_get_unique_name(bus_.get(), &name) < 0 || name == nullptr) {
        return {};
    }
    return name;
}

}  // namespace kerrow::tools
