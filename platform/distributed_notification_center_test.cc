#include "platform/distributed_notification_center.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace test;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;
using ::testing::UnorderedElementsAre;

using EventLoop = SdEvent;

EventLoop newLoop() {
    sd_event* loop = nullptr;
    EXPECT_GE(sd_event_new(&loop), 0);
    return EventLoop(loop);
}

// Runs `loop` until `condition` holds; false if it does not within five seconds.
bool runUntil(sd_event* loop, const std::function<bool()>& condition) {
    return waitUntil(
        [&] { return condition() || (sd_event_run(loop, 10'000) >= 0 && condition()); });
}

// Dispatches everything that is ready, without waiting; false if the loop keeps finding work.
bool runUntilIdle(sd_event* loop) {
    for (int round = 0; round < 1000; ++round) {
        const int dispatched = sd_event_run(loop, 0);
        if (dispatched <= 0) {
            return dispatched == 0;
        }
    }
    return false;
}

class DistributedNotificationCenterTest : public ::testing::Test {
  protected:
    std::optional<PrivateBus> bus{std::in_place};
    EventLoop loop = newLoop();
    DistributedNotificationCenter center{loop.get()};
};

// A signal whose first argument is an observed name (extra ones aside) reaches every observer;
// others, malformed ones among them, reach none. Posts reach other connections and the
// center's own observers, also once the bus has gone and come back.
TEST_F(DistributedNotificationCenterTest, DeliversTheObservedNamesAndPostsAlsoOnceTheBusComesBack) {
    std::optional<BusClient> client{std::in_place, bus->address()};
    client->observe("com.example.b");
    // The first use: the connection is still being set up when the signal is queued.
    center.postNotificationName("com.example.b", true);
    EXPECT_TRUE(client->waitForSignal("com.example.b")) << "not written out before it returned";

    std::vector<std::string> seen;
    center.addObserver("com.example.a", [&] { seen.emplace_back("a, first observer"); });
    center.addObserver("com.example.a", [&] { seen.emplace_back("a, second observer"); });
    center.addObserver("com.example.b", [&] { seen.emplace_back("b"); });
    client->post("com.example.c");
    client->post("com.example.a");
    client->post("com.example.ab");
    const auto emit = [&](const char* types, auto... arguments) {
        return sd_bus_emit_signal(client->connection(), notificationObjectPath,
                                  notificationInterface, notificationMember, types, arguments...);
    };
    ASSERT_GE(emit(nullptr), 0);
    ASSERT_GE(emit("i", 7), 0);
    ASSERT_GE(emit("si", "com.example.a", 7), 0);
    client->post("com.example.b");  // one sender's signals arrive in order: this one last
    ASSERT_TRUE(runUntil(loop.get(), [&] { return !seen.empty() && seen.back() == "b"; }));
    EXPECT_THAT(seen, UnorderedElementsAre("a, first observer", "a, second observer",
                                           "a, first observer", "a, second observer", "b"));

    seen.clear();
    center.postNotificationName("com.example.b", false);
    EXPECT_TRUE(runUntil(loop.get(), [&] { return seen.size() == 1; }));
    EXPECT_TRUE(client->waitForSignal("com.example.b", 5000ms, 3));
    client.reset();
    bus.reset();
    EXPECT_TRUE(runUntilIdle(loop.get())) << "the loop keeps waking after the bus went away";
    bus.emplace();
    center.postNotificationName("com.example.b", false);
    ASSERT_TRUE(runUntil(loop.get(), [&] { return seen.size() == 2; }));
    client.emplace(bus->address());
    client->post("com.example.b");
    EXPECT_TRUE(runUntil(loop.get(), [&] { return seen.size() == 3; }));
}

TEST(DistributedNotificationCenterWithoutBusTest, ThrowsANamedErrorAndConnectsOnceThereIsABus) {
    const TemporaryDirectory runtime;
    const ScopedEnvironmentVariable noAddress("DBUS_SESSION_BUS_ADDRESS", std::nullopt);
    std::optional<ScopedEnvironmentVariable> runtimeDirectory{std::in_place, "XDG_RUNTIME_DIR",
                                                              runtime.path().string()};
    const EventLoop loop = newLoop();
    DistributedNotificationCenter center(loop.get());
    bool seen = false;
    const auto observe = [&] { center.addObserver("com.example.start", [&] { seen = true; }); };
    const auto post = [&] { center.postNotificationName("com.example.start", true); };

    EXPECT_THAT(observe, ThrowsMessage<std::system_error>(
                             HasSubstr("connect to the session bus at " + runtime.path().string() +
                                       "/bus: " + std::strerror(ENOENT))));
    runtimeDirectory.emplace("XDG_RUNTIME_DIR", std::nullopt);
    EXPECT_THAT(post, ThrowsMessage<std::system_error>(
                          HasSubstr("neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR")));

    const PrivateBus bus;
    observe();
    post();
    EXPECT_TRUE(runUntil(loop.get(), [&] { return seen; }));
}

}  // namespace
}  // namespace kerrow
