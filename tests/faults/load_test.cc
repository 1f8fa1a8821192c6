// The real host under load and repeated starts: nothing lost, reordered or leaked, memory flat.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>

#include <algorithm>
#include <fstream>
#include <future>
#include <iostream>
#include <thread>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

// Frames read from `fd` on a thread of their own until `last`, end of stream or `idle`.
std::future<std::vector<std::string>> collect(int fd, std::string last, Duration idle) {
    return std::async(std::launch::async, [fd, last = std::move(last), idle] {
        std::vector<std::string> frames;
        while (auto next = readFrameFrom(fd, idle)) {
            frames.push_back(std::move(*next));
            if (frames.back() == last) {
                break;
            }
        }
        return frames;
    });
}

std::string tabData(int i) {
    return R"({"tabs":[{"id":)" + std::to_string(i) + R"(,"url":"https:\/\/a.example"}]})";
}

std::string relayedTabData(int i) {
    return tabData(i) + "kerrow.tabList";
}

// The first `count` frames made by `make`.
template <typename Make>
std::vector<std::string> made(int count, Make make) {
    std::vector<std::string> frames;
    for (int i = 0; i < count; ++i) {
        frames.push_back(make(i));
    }
    return frames;
}

TEST(LoadTest, RelaysBothDirectionsAcrossRepeatedStartsWithNothingLostDuplicatedOrReordered) {
    constexpr int frames = 100'000;
    constexpr int commandsBefore = 2'000;  // on the first connection, until it is retired
    constexpr int commands = 10'000;       // on the newest connection
    HostSession session{KERROW_HOST_BINARY};
    auto first = session.start();
    const pid_t host = session.host().pid();
    auto output =
        collect(session.host().outputFd(), closeTabFrame(commandsBefore + commands - 1), 30'000ms);
    auto onFirst = collect(first.fd(), "", 2'000ms);
    std::int64_t residentEarly = 0;
    std::jthread browser([&] {
        for (int i = 0; i < frames; ++i) {
            session.host().send(tabData(i));
            if (i == frames / 10) {
                residentEarly = procFigure(host, "status", "VmRSS");
            }
        }
    });
    // Once retired, the first connection is closed by the host: sending stops at the first error.
    std::jthread commandsOnFirst([&] {
        for (int i = 0; i < commandsBefore; ++i) {
            const std::string bytes = frame("kerrow.closeTab-" + std::to_string(i));
            if (::send(first.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(bytes.size())) {
                break;
            }
        }
    });
    // Two starts while both directions are busy; each connection is read from its accept on.
    session.postStart();
    session.postStart();
    // Threads are std::jthread, so that a failed assertion joins them before the host goes.
    auto second = session.core().accept();
    ASSERT_TRUE(second) << session.log();
    auto onSecond = collect(second->fd(), "", 2'000ms);
    auto third = session.core().accept();
    ASSERT_TRUE(third) << session.log();
    auto onThird = collect(third->fd(), relayedTabData(frames - 1), 10'000ms);
    std::jthread commandsOnThird([&] {
        for (int i = commandsBefore; i < commandsBefore + commands; ++i) {
            third->send("kerrow.closeTab-" + std::to_string(i));
        }
    });
    browser.join();
    commandsOnFirst.join();
    commandsOnThird.join();
    [[maybe_unused]] const auto residentLate = procFigure(host, "status", "VmRSS");
    EXPECT_TRUE(first.waitForClose() && second->waitForClose()) << session.log();
    EXPECT_FALSE(session.waitForAnnouncement(0ms, 2)) << "announced twice";

    // Every frame went over exactly one connection, and the connections follow each other. Each
    // start made its own (the first one's device-twin request was taken by start()).
    std::vector<std::string> relayed;
    for (auto* collected : {&onFirst, &onSecond, &onThird}) {
        const auto received = collected->get();
        EXPECT_EQ(std::ranges::count(received, "kerrow.updateDeviceTwin"),
                  collected == &onFirst ? 0 : 1);
        std::ranges::remove_copy(received, std::back_inserter(relayed), "kerrow.updateDeviceTwin");
    }
    EXPECT_TRUE(relayed == made(frames, relayedTabData)) << relayed.size() << " frames relayed";
    // Commands: the first few of the retired connection, then all of the newest one, in order.
    const auto commanded = output.get();
    auto ordered = made(commandsBefore + commands, closeTabFrame);
    const auto early = std::min<std::ptrdiff_t>(
        std::ranges::mismatch(commanded, ordered).in1 - commanded.begin(), commandsBefore);
    ordered.erase(ordered.begin() + early, ordered.begin() + commandsBefore);
    EXPECT_TRUE(commanded == ordered)
        << early << " of " << commanded.size() << " commands from the retired connection";
#ifndef KERROW_SANITIZED
    EXPECT_LT(residentLate - residentEarly, 16 * 1024)
        << "resident memory grew from " << residentEarly << " KiB to " << residentLate << " KiB";
#endif
}

// Any process on the session bus may post the start notification, as often as it likes, and the
// core service may drop the connection: neither leaves a descriptor or a thread behind.
TEST(LoadTest, AStartFloodStaysBoundedLosesNothingLeaksNothingAndEndsOnOneConnection) {
    constexpr int starts = 2'000;
    constexpr int frames = 2'000;
    HostSession session{KERROW_HOST_BINARY};
    std::vector<CoreConnection> connections;
    connections.push_back(session.start());
    const pid_t host = session.host().pid();
    // Traffic both ways makes every part open what it opens.
    session.host().send(tabData(0));
    ASSERT_EQ(connections[0].receive(), relayedTabData(0));
    connections[0].send("kerrow.closeTab-0");
    ASSERT_EQ(session.host().receive(), closeTabFrame(0));
    const auto threadsAtRest = procFigure(host, "status", "Threads");
    const auto descriptorsAtRest = openDescriptors(host).size();

    std::int64_t threadsPeak = 0;
    std::size_t descriptorsPeak = 0;
    std::jthread sampler([&](const std::stop_token& flooding) {
        while (!flooding.stop_requested()) {
            threadsPeak = std::max(threadsPeak, procFigure(host, "status", "Threads"));
            descriptorsPeak = std::max(descriptorsPeak, openDescriptors(host).size());
        }
    });
    std::jthread browser([&] {
        for (int i = 1; i < frames; ++i) {
            session.host().send(tabData(i));
        }
    });
    for (int i = 0; i < starts; ++i) {
        session.postStart();
    }
    // The core accepts every connection until none has come for a while.
    while (auto next = session.core().accept(2'000ms)) {
        connections.push_back(std::move(*next));
    }
    browser.join();
    sampler.request_stop();
    sampler.join();
    EXPECT_LE(threadsPeak, threadsAtRest + 8);
    EXPECT_LE(descriptorsPeak, descriptorsAtRest + 32);

    // Every frame once, in order, over the connections one after the other; all but the newest
    // closed.
    std::vector<std::string> relayed{relayedTabData(0)};
    for (std::size_t index = 0; index < connections.size(); ++index) {
        const bool newest = index + 1 == connections.size();
        while (auto message = connections[index].receive(newest ? 500ms : 2'000ms)) {
            if (*message != "kerrow.updateDeviceTwin") {
                relayed.push_back(std::move(*message));
            }
        }
        EXPECT_TRUE(newest || connections[index].waitForClose(100ms)) << "connection " << index;
    }
    EXPECT_TRUE(relayed == made(frames, relayedTabData)) << relayed.size() << " frames relayed";
    EXPECT_EQ(connections.size(), starts + 1U) << "every start runs the whole start sequence";
    connections.back().close();  // the newest service connects again and serves both ways
    auto again = session.core().accept(12'000ms);
    ASSERT_TRUE(again) << session.log();
    again->send("kerrow.closeTab-2");
    EXPECT_EQ(session.host().receive(), closeTabFrame(2));
    session.host().send(tabData(frames));
    EXPECT_EQ(again->receive(), relayedTabData(frames));
    const auto descriptors = openDescriptors(host);
    EXPECT_EQ(descriptors.count(2), 1U) << "standard error was closed";
    for (const auto& [number, flags] : descriptors) {
        EXPECT_TRUE(number <= 2 || (flags & O_CLOEXEC) != 0)
            << "descriptor " << number << " would leak into a child";
    }
    // Retired parts finish on their own threads; give them a moment to let go.
    EXPECT_TRUE(waitUntil([&] { return openDescriptors(host).size() <= descriptorsAtRest; }))
        << descriptorsAtRest << " descriptors before, " << openDescriptors(host).size();
    EXPECT_TRUE(waitUntil([&] { return procFigure(host, "status", "Threads") <= threadsAtRest; }))
        << threadsAtRest << " threads before, " << procFigure(host, "status", "Threads");
}

// The host's peak resident memory in KiB since the last reset.
std::int64_t peakSinceReset(pid_t host) {
    const std::int64_t peak = procFigure(host, "status", "VmHWM");
    std::ofstream("/proc/" + std::to_string(host) + "/clear_refs") << "5";
    return peak;
}

// A command costs memory in proportion to its size and gives it back; so does an extension
// message. Prints the figures of the memory table in docs/reliability.md.
TEST(LoadTest, LargeMessagesCostASmallMultipleOfTheirSizeAndTheMemoryIsGivenBack) {
    HostSession session{KERROW_HOST_BINARY};
    auto core = session.start();
    const pid_t host = session.host().pid();
    core.send(R"(kerrow.websiteList{"name":"n","websites":["a"],"listType":1})");  // warm up
    ASSERT_TRUE(session.host().receive());
    session.host().send(tabData(0));
    ASSERT_EQ(core.receive(), relayedTabData(0));
    std::this_thread::sleep_for(500ms);
    const std::int64_t rest = procFigure(host, "status", "VmRSS");
    (void)peakSinceReset(host);
    // 16 MiB website list: its message would pass 1 MiB, so it is refused; the next goes out.
    std::string list = R"(kerrow.websiteList{"name":"n","websites":[)";
    while (list.size() < 16 * 1024 * 1024) {
        list += R"("",)";
    }
    core.send(list + R"(""],"listType":0})");
    core.send(R"(kerrow.websiteList{"name":"n","websites":["b"],"listType":0})");
    EXPECT_EQ(session.host().receive(10'000ms),
              R"({"action":"setWhitelist","payload":{"whitelist":["b"]}})");
    EXPECT_TRUE(session.waitForLog("error Not Setting Website List: a list of "));
    const std::int64_t listPeak = peakSinceReset(host) - rest;
    std::this_thread::sleep_for(3s);
    const std::int64_t listAfter = procFigure(host, "status", "VmRSS") - rest;
    // 48 MiB extension message, then 1,000 small ones.
    const std::string large = R"({"tabs":")" + std::string(48 * 1024 * 1024, 't') + R"("})";
    std::jthread browser([&] {
        session.host().send(large);
        for (int i = 1; i <= 1000; ++i) {
            session.host().send(tabData(i));
        }
    });
    EXPECT_EQ(core.receive(20'000ms), large + "kerrow.tabList");
    for (int i = 1; i <= 1000; ++i) {
        ASSERT_EQ(core.receive(), relayedTabData(i));
    }
    const std::int64_t messagePeak = peakSinceReset(host) - rest;
    std::this_thread::sleep_for(3s);
    const std::int64_t messageAfter = procFigure(host, "status", "VmRSS") - rest;
    std::cout << "KiB at rest " << rest << "; 16 MiB list: peak +" << listPeak << ", 3 s later +"
              << listAfter << "; 48 MiB message: peak +" << messagePeak << ", 3 s later +"
              << messageAfter << "\n";
#ifndef KERROW_SANITIZED
    EXPECT_LT(listPeak, 96 * 1024);
    EXPECT_LT(listAfter, 8 * 1024);
    EXPECT_LT(messageAfter, 8 * 1024);
#endif
}

// Another process holds the lock of the log while commands come in whose lines call for
// rotations: the host waits for it neither while it relays nor when it ends.
TEST(LoadTest, ALockHeldOnTheLogNeverHoldsUpTheHost) {
    HostSession session{KERROW_HOST_BINARY};
    auto core = session.start();
    const Descriptor log(::open(session.logFile().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(log.get(), LOCK_EX), 0);  // our lock: the host's flock() is refused
    std::jthread commands([&] {
        for (int i = 0; i < 160; ++i) {
            core.send("kerrow.disableInternet" + std::string(60 * 1024, 'p'));
        }
    });
    for (int i = 0; i < 160; ++i) {
        ASSERT_TRUE(session.host().receive()) << i << " commands reached the extension";
    }
    session.host().send(tabData(1));
    EXPECT_EQ(core.receive(), relayedTabData(1));
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0) << "the end waited for the log's lock";
}

}  // namespace
}  // namespace kerrow::test
