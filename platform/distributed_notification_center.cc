#include "platform/distributed_notification_center.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "platform/application.h"

namespace kerrow {
namespace {

[[noreturn]] void throwBusError(int negativeErrno, const std::string& what) {
    throw std::system_error(-negativeErrno, std::system_category(), what);
}

// Where sd_bus_open_user() looks, for the message when it finds nothing there.
std::string sessionBusDescription() {
    // Main thread only, like the rest of the center, so nobody changes the environment meanwhile.
    if (const char* address =
            std::getenv("DBUS_SESSION_BUS_ADDRESS");  // NOLINT(concurrency-mt-unsafe)
        address != nullptr && address[0] != '\0') {
        return std::string("session bus at ") + address;
    }
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
        runtime != nullptr && runtime[0] != '\0') {
        return std::string("session bus at ") + runtime + "/bus";
    }
    return "session bus (neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set)";
}

// The rule of one observer. Quoting differs between dbus-daemon and sd-bus for apostrophes and
// backslashes, so names holding them are refused rather than matched differently on each side.
std::string matchRule(std::string_view name) {
    if (name.find_first_of("'\\") != std::string_view::npos) {
        throw std::invalid_argument("notification name with an apostrophe or a backslash: " +
                                    std::string(name));
    }
    return notificationMatchRule(name);
}

}  // namespace

struct DistributedNotificationCenter::Registration {
    std::string name;
    Observer observer;
    SdBusSlot match;  // null while there is no open connection
};

DistributedNotificationCenter::DistributedNotificationCenter(sd_event* loop)
    : loop_(sd_event_ref(loop)) {}

DistributedNotificationCenter::~DistributedNotificationCenter() = default;

DistributedNotificationCenter& DistributedNotificationCenter::defaultCenter() {
    static DistributedNotificationCenter center(Application::shared().eventLoop());
    return center;
}

void DistributedNotificationCenter::addObserver(std::string_view name, Observer observer) {
    sd_bus* const connection = bus();
    auto registration = std::make_unique<Registration>(
        Registration{std::string(name), std::move(observer), nullptr});
    installMatch(connection, *registration);
    registrations_.push_back(std::move(registration));
}

void DistributedNotificationCenter::postNotificationName(std::string_view name,
                                                         bool deliverImmediately) {
    sd_bus* const connection = bus();
    const std::string text(name);
    if (const int r = emitNotification(connection, text); r < 0) {
        throwBusError(r, "post " + text);
    }
    if (deliverImmediately) {
        if (const int r = sd_bus_flush(connection); r < 0) {
            throwBusError(r, "deliver " + text);
        }
    }
}

sd_bus* DistributedNotificationCenter::bus() {
    if (!bus_ || sd_bus_is_open(bus_.get()) <= 0) {
        // Lost (or never opened): the matches die with the old connection, the observers stay.
        for (const auto& registration : registrations_) {
            registration->match.reset();
        }
        bus_.reset();
        connect();
    }
    for (const auto& registration : registrations_) {
        if (!registration->match) {
            installMatch(bus_.get(), *registration);
        }
    }
    return bus_.get();
}

void DistributedNotificationCenter::connect() {
    sd_bus* opened = nullptr;
    const int r = sd_bus_open_user(&opened);
    SdBus connection(opened);
    if (r < 0) {
        throwBusError(r, "connect to the " + sessionBusDescription());
    }
    // The default already, but a lost bus must never end the loop: the host's relay goes on
    // without it.
    sd_bus_set_exit_on_disconnect(connection.get(), 0);
    if (const int attached = sd_bus_attach_event(connection.get(), loop_.get(), 0); attached < 0) {
        throwBusError(attached, "attach the session bus to the event loop");
    }
    bus_ = std::move(connection);
}

void DistributedNotificationCenter::installMatch(sd_bus* connection, Registration& registration) {
    const std::string rule = matchRule(registration.name);
    sd_bus_slot* slot = nullptr;
    // With a callback and no install callback this is synchronous: the bus has acknowledged the
    // rule when it returns.
    if (const int r = sd_bus_add_match(connection, &slot, rule.c_str(), deliver, &registration);
        r < 0) {
        throwBusError(r, "observe " + registration.name + " on the session bus");
    }
    registration.match.reset(slot);
}

int DistributedNotificationCenter::deliver(sd_bus_message* /*message*/, void* userdata,
                                           sd_bus_error* /*error*/) {
    // sd-bus calls a match only when the message satisfies the whole rule on this side too,
    // arg0 included; a signal whose first argument is not a string never does.
    const auto& registration = *static_cast<const Registration*>(userdata);
    try {
        registration.observer();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: observer of %s: %s\n", program_invocation_short_name,
                     registration.name.c_str(), error.what());
    }
    // Always 0: a negative result makes sd-bus close the connection, a positive one hides the
    // signal from the other observers of the same name.
    return 0;
}

}  // namespace kerrow
