// A private session bus for tests, and a plain client of it that plays the core service's part
// in the distributed notifications. PrivateBus runs a dbus-daemon of its own and points this
// process's DBUS_SESSION_BUS_ADDRESS (so that of every process it starts) at it: one at a time.
// BusClient is tied to no event loop: waiting drives it. Use each from one thread at a time.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sd_bus_handles.h"
#include "tests/support/host_process.h"

namespace kerrow::test {

class PrivateBus {
  public:
    /// Starts the daemon and waits until it accepts connections; throws std::runtime_error.
    PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    [[nodiscard]] const std::string& address() const { return address_; }

  private:
    TemporaryDirectory directory_;
    std::string address_;
    HostProcess daemon_;
    ScopedEnvironmentVariable sessionBusAddress_;
};

class BusClient {
  public:
    /// Connects to the bus at `address` (PrivateBus::address()); throws std::runtime_error.
    explicit BusClient(const std::string& address);
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// Starts counting notification `name` (observe each name once); the bus has acknowledged
    /// the match on return.
    void observe(std::string_view name);
    void post(std::string_view name);
    /// Waits until at least `count` notifications `name` have arrived since observe(name), after
    /// reading what the bus has delivered (so a zero `timeout` only looks). False on time-out.
    [[nodiscard]] bool waitForSignal(std::string_view name, Duration timeout = 5000ms,
                                     int count = 1);

    /// For signals the helpers above do not cover.
    [[nodiscard]] sd_bus* connection() { return bus_.get(); }

  private:
    static int count(sd_bus_message* message, void* userdata, sd_bus_error* error);

    SdBus bus_;
    std::vector<SdBusSlot> matches_;       // destroyed before the connection they refer to
    std::map<std::string, int> received_;  // per observed name
};

}  // namespace kerrow::test
