// Load on the real host: 100,000 extension frames and 10,000 core commands at once, in both
// directions, with nothing lost, duplicated or reordered and memory flat; and repeated start
// notifications racing with that traffic.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

std::string tabData(int i) {
    return R"({"tabs":[{"id":)" + std::to_string(i) + R"(,"url":"https:\/\/a.example"}]})";
}

std::string closeTabFrame(int i) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(i) + "}}";
}

// The index of the first element where `frames` differs from `expected`, or -1.
template <typename Make>
long firstDifference(const std::vector<std::string>& frames, int count, Make make) {
    if (frames.size() != static_cast<std::size_t>(count)) {
        return static_cast<long>(std::min(frames.size(), static_cast<std::size_t>(count)));
    }
    for (int i = 0; i < count; ++i) {
        if (frames[static_cast<std::size_t>(i)] != make(i)) {
            return i;
        }
    }
    return -1;
}

class LoadTest : public ::testing::Test {
  protected:
    HostSession session{KERROW_HOST_BINARY};
};

TEST_F(LoadTest, RelaysBothDirectionsAtOnceWithNothingLostDuplicatedOrReordered) {
    constexpr int frames = 100'000;
    constexpr int commands = 10'000;
    auto connection = session.start();
    const pid_t host = session.host().pid();

    FrameCollector towardsCore(connection.fd(), frames, 30'000ms);
    FrameCollector towardsBrowser(session.host().outputFd(), commands, 30'000ms);
    std::int64_t residentEarly = 0;
    std::thread browser([&] {
        for (int i = 0; i < frames; ++i) {
            session.host().send(tabData(i));
            if (i == frames / 10) {
                residentEarly = procFigure(host, "status", "VmRSS");
            }
        }
    });
    std::thread core([&] {
        for (int i = 0; i < commands; ++i) {
            connection.send("kerrow.closeTab-" + std::to_string(i));
        }
    });
    browser.join();
    core.join();
    ASSERT_TRUE(towardsCore.wait(600'000ms));
    ASSERT_TRUE(towardsBrowser.wait(600'000ms));
    const auto residentLate = procFigure(host, "status", "VmRSS");

    EXPECT_EQ(firstDifference(towardsCore.frames(), frames,
                              [](int i) { return tabData(i) + "kerrow.tabList"; }),
              -1)
        << towardsCore.frames().size() << " frames reached the core service";
    EXPECT_EQ(firstDifference(towardsBrowser.frames(), commands, closeTabFrame), -1)
        << towardsBrowser.frames().size() << " frames reached the browser";
#ifndef KERROW_SANITIZED
    EXPECT_LT(residentLate - residentEarly, 16 * 1024)
        << "resident memory grew from " << residentEarly << " KiB to " << residentLate << " KiB";
#endif
    RecordProperty("resident_kib_early", std::to_string(residentEarly));
    RecordProperty("resident_kib_late", std::to_string(residentLate));
}

TEST_F(LoadTest, HandsTrafficOverToTheNewestStartWithoutLosingOrRepeatingAFrame) {
    constexpr int frames = 20'000;
    constexpr int commandsBefore = 2'000;
    constexpr int commandsAfter = 100;
    auto first = session.start();
    FrameCollector output(session.host().outputFd(), commandsBefore + commandsAfter, 30'000ms,
                          [](const std::string& message) {
                              return message == closeTabFrame(commandsBefore + commandsAfter - 1);
                          });
    FrameCollector onFirst(first.fd(), frames + 1, 2'000ms);
    std::thread browser([&] {
        for (int i = 0; i < frames; ++i) {
            session.host().send(tabData(i));
        }
    });
    // Once retired, the first connection is closed by the host: sending stops at the first error.
    std::thread commands([&] {
        for (int i = 0; i < commandsBefore; ++i) {
            const std::string bytes = frame("kerrow.closeTab-" + std::to_string(i));
            if (::send(first.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(bytes.size())) {
                break;
            }
        }
    });
    // Two start notifications in quick succession, while both directions are busy. Each
    // connection is read from the moment it is accepted, as a core service would.
    session.postStart();
    session.postStart();
    auto second = session.core().accept();
    std::unique_ptr<FrameCollector> onSecond;
    if (second) {
        onSecond = std::make_unique<FrameCollector>(second->fd(), frames + 1, 2'000ms);
    }
    auto third = session.core().accept();
    std::unique_ptr<FrameCollector> onThird;
    if (third) {
        onThird = std::make_unique<FrameCollector>(
            third->fd(), frames + 1, 10'000ms, [](const std::string& message) {
                return message == tabData(frames - 1) + "kerrow.tabList";
            });
    }
    browser.join();
    commands.join();
    ASSERT_TRUE(second && third) << session.log();
    // Commands on the newest connection all arrive, after whatever the retired ones delivered.
    for (int i = commandsBefore; i < commandsBefore + commandsAfter; ++i) {
        third->send("kerrow.closeTab-" + std::to_string(i));
    }
    ASSERT_TRUE(onFirst.wait(120'000ms) && onSecond->wait(120'000ms) && onThird->wait(120'000ms));
    ASSERT_TRUE(output.wait(120'000ms));

    // Every frame went over exactly one connection, and the connections follow each other.
    std::vector<std::string> relayed;
    for (const auto* collector : {&onFirst, onSecond.get(), onThird.get()}) {
        for (const auto& message : collector->frames()) {
            if (message != "kerrow.updateDeviceTwin") {
                relayed.push_back(message);
            }
        }
    }
    EXPECT_EQ(firstDifference(relayed, frames, [](int i) { return tabData(i) + "kerrow.tabList"; }),
              -1)
        << onFirst.frames().size() << " + " << onSecond->frames().size() << " + "
        << onThird->frames().size() << " messages on the three connections";

    RecordProperty("messages_per_connection", std::to_string(onFirst.frames().size()) + " + " +
                                                  std::to_string(onSecond->frames().size()) +
                                                  " + " + std::to_string(onThird->frames().size()));
    RecordProperty("commands_delivered", std::to_string(output.frames().size()));

    // Commands: in order, none twice, and every one sent on the newest connection there.
    std::vector<int> ids;
    for (const auto& message : output.frames()) {
        const auto at = message.find("\"id\":");
        ASSERT_NE(at, std::string::npos) << message;
        ids.push_back(std::stoi(message.substr(at + 5)));
    }
    EXPECT_TRUE(std::adjacent_find(ids.begin(), ids.end(), std::greater_equal<>()) == ids.end())
        << "a command was repeated or overtaken";
    ASSERT_GE(ids.size(), static_cast<std::size_t>(commandsAfter));
    EXPECT_EQ(ids.back(), commandsBefore + commandsAfter - 1);
    EXPECT_EQ(*(ids.end() - commandsAfter), commandsBefore);
}

}  // namespace
}  // namespace kerrow::test
