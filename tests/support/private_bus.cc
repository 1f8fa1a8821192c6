#include "tests/support/private_bus.h"

#include <cstring>
#include <stdexcept>

namespace kerrow::test {
namespace {

// Throws for a negative sd-bus result (-errno).
void check(int result, const std::string& what) {
    if (result < 0) {
        throw std::runtime_error(what + ": " + std::strerror(-result));
    }
}

}  // namespace

// The daemon prints its address once it listens. Its complaints (running as root it cannot raise
// its descriptor limit) go to a file, which the error below quotes when it does not come up.
PrivateBus::PrivateBus()
    : address_("unix:path=" + (directory_.path() / "bus").string()),
      daemon_("dbus-daemon",
              {"--session", "--nofork", "--nosyslog", "--address=" + address_, "--print-address=1"},
              std::nullopt, directory_.path() / "daemon.log"),
      sessionBusAddress_("DBUS_SESSION_BUS_ADDRESS", address_) {
    std::string line;
    if (!waitUntil(
            [&] {
                line += readExactly(daemon_.outputFd(), 1, 100ms);
                return line.ends_with('\n');
            },
            10s)) {
        throw std::runtime_error("dbus-daemon did not come up at " + address_ + ": " +
                                 daemon_.standardError());
    }
}

BusClient::BusClient(const std::string& address) {
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    bus_.reset(bus);
    check(sd_bus_set_address(bus, address.c_str()), "connect to " + address);
    check(sd_bus_set_bus_client(bus, 1), "connect to " + address);
    check(sd_bus_start(bus), "connect to " + address);
}

void BusClient::observe(std::string_view name) {
    const std::string rule = notificationMatchRule(name);
    sd_bus_slot* slot = nullptr;
    check(sd_bus_add_match(bus_.get(), &slot, rule.c_str(), count, this),
          "observe " + std::string(name));
    matches_.emplace_back(slot);
}

void BusClient::post(std::string_view name) {
    const std::string text(name);
    check(emitNotification(bus_.get(), text), "post " + text);
    check(sd_bus_flush(bus_.get()), "post " + text);
}

bool BusClient::waitForSignal(std::string_view name, Duration timeout, int count) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (received_[std::string(name)] < count) {
        const int processed = sd_bus_process(bus_.get(), nullptr);
        if (processed < 0) {
            return false;
        }
        if (processed > 0) {
            continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 ||
            sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left.count())) < 0) {
            return false;
        }
    }
    return true;
}

int BusClient::count(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto& client = *static_cast<BusClient*>(userdata);
    const char* name = nullptr;
    if (sd_bus_message_read_basic(message, 's', &name) > 0) {
        ++client.received_[name];
    }
    return 0;
}

}  // namespace kerrow::test
