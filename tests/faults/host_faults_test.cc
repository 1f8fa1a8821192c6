// The real host under faults: bad core input, no log, a closed output, leaks.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <random>

#include "kit/frame_codec.h"
#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

using ::testing::HasSubstr;

std::string closeTabFrame(int id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}

class HostFaultTest : public ::testing::Test {
  protected:
    HostSession session{KERROW_HOST_BINARY};
};

TEST_F(HostFaultTest, DropsGarbageFromTheCoreTakesAHeaderAtTheLimitUnreservedStopsAtOneOver) {
    auto connection = session.start();
    std::mt19937 random(20261122);
    std::vector<std::string> garbage;
    for (int i = 0; i < 200; ++i) {
        std::string bytes(random() % 300, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        garbage.push_back(bytes);
    }
    garbage.insert(garbage.end(),
                   {"", std::string(3, '\0'), "kerrow.closeTab-5\xFF",
                    "kerrow.closeTab-\xC0\xB6",               // an overlong "6"
                    "kerrow.disableInternet\xED\xA0\x80",     // a surrogate
                    "kerrow.enableInternet\xF4\x90\x80\x80",  // above U+10FFFF
                    "kerrow.closeTab-99999999999999999999", "kerrow.closeTab--",
                    "kerrow.websiteList{not json", "kerrow.websiteList" + std::string(100'000, '['),
                    R"(kerrow.websiteList{"name":1,"websites":[],"listType":0})"});
    for (const auto& message : garbage) {
        connection.send(message);
    }
    connection.send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), closeTabFrame(7)) << session.log();
    EXPECT_FALSE(session.core().accept(200ms)) << "garbage ended the connection";

    // A header at the limit is no error, and no memory is reserved before the body arrives.
    const auto peakBefore = procFigure(session.host().pid(), "status", "VmHWM");
    const auto header = encodeFrameLength(64 * 1024 * 1024);
    connection.sendRaw(std::string(header.begin(), header.end()) + "kerrow.closeTab-8");
    connection.close();
    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << session.log();
    EXPECT_LT(procFigure(session.host().pid(), "status", "VmHWM") - peakBefore, 32 * 1024)
        << "memory was reserved for the announced 64 MiB";
    EXPECT_FALSE(session.host().receive(200ms)) << "an incomplete frame was delivered";
    second->send("kerrow.enableInternet");
    EXPECT_EQ(session.host().receive(), R"({"action":"enableWeb","payload":{}})")
        << "the cut frame's bytes were joined to the next connection's";

    // A header over the limit is a socket error: the service stops reading for good, and the
    // browser is served until its input ends.
    second->sendRaw(std::string("\xFF\xFF\xFF\xFF", 4));
    EXPECT_TRUE(second->waitForClose()) << session.log();
    EXPECT_FALSE(session.core().accept(500ms)) << "reconnected after a socket error";
    session.host().send("dropped");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(session.logMessages().back(),
              "info Stopping KerrowNativeMessagingHost:BrowserExtensionIO");
}

TEST_F(HostFaultTest, GoesOnWithoutItsLogAndWhenTheBrowserStopsReadingItsOutput) {
    // The log's directory is taken by a file, so it cannot be made, for any user (root too).
    std::filesystem::create_directories(session.logFile().parent_path().parent_path());
    std::ofstream(session.logFile().parent_path()) << "not a directory";
    auto connection = session.start();
    connection.send("kerrow.closeTab-4");
    EXPECT_EQ(session.host().receive(), closeTabFrame(4)) << "a log line reached standard output";

    session.host().closeOutput();
    // Every frame for the extension now meets a closed pipe (EPIPE, and no SIGPIPE death).
    for (int i = 0; i < 100; ++i) {
        connection.send("kerrow.closeTab-" + std::to_string(i));
    }
    EXPECT_TRUE(waitUntil([&] {
        return session.standardError().find(" info Closing Tab: " + closeTabFrame(99)) !=
               std::string::npos;
    })) << session.standardError();
    session.host().send("still relayed");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(connection.receive(), "still relayedkerrow.tabList");
    EXPECT_TRUE(connection.waitForClose());
    EXPECT_THAT(session.standardError(), HasSubstr(" info Stopping KerrowNativeMessagingHost:"));
}

TEST_F(HostFaultTest, LeaksNothingAcrossReconnectionsAndRestarts) {
    // Like a browser, we give the host only the three standard streams, whatever we inherited.
    for (const auto& [number, flags] : openDescriptors(::getpid())) {
        if (number > 2) {
            ::fcntl(number, F_SETFD, FD_CLOEXEC);
        }
    }
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    const pid_t host = session.host().pid();
    std::optional<CoreConnection> connection;
    std::map<int, unsigned> descriptorsAtStart;
    std::int64_t threadsAtStart = 0;
    for (int round = 0; round <= 20; ++round) {
        // Odd rounds drop the connection; even ones post a start (the device-twin request follows).
        if (round % 2 != 0) {
            connection->close();
        } else {
            session.postStart();
        }
        connection = session.core().accept(12'000ms);
        ASSERT_TRUE(connection) << "no connection in round " << round << "\n" << session.log();
        if (round % 2 == 0) {
            EXPECT_EQ(connection->receive(), "kerrow.updateDeviceTwin");
        }
        // Once the connection is logged, traffic both ways makes every part open what it opens.
        ASSERT_TRUE(waitUntil(
            [&] {
                const auto lines = session.logMessages();
                return std::count(lines.begin(), lines.end(),
                                  "info Established a Connection in host-to-core service") > round;
            },
            15'000ms))
            << session.log();
        session.host().send("tab data " + std::to_string(round));
        EXPECT_EQ(connection->receive(), "tab data " + std::to_string(round) + "kerrow.tabList");
        connection->send("kerrow.closeTab-" + std::to_string(round));
        EXPECT_EQ(session.host().receive(), closeTabFrame(round));
        if (round == 0) {
            descriptorsAtStart = openDescriptors(host);
            threadsAtStart = procFigure(host, "status", "Threads");
        }
    }
    const auto descriptors = openDescriptors(host);
    EXPECT_EQ(descriptors.count(2), 1U) << "standard error was closed";
    for (const auto& [number, flags] : descriptors) {
        EXPECT_TRUE(number <= 2 || (flags & O_CLOEXEC) != 0)
            << "descriptor " << number << " would leak into a child";
    }
    // Retired parts finish on their own threads; give them a moment to let go.
    EXPECT_TRUE(waitUntil([&] {
        return openDescriptors(host).size() <= descriptorsAtStart.size();
    })) << descriptorsAtStart.size()
        << " descriptors before, " << openDescriptors(host).size();
    EXPECT_TRUE(waitUntil([&] { return procFigure(host, "status", "Threads") <= threadsAtStart; }))
        << threadsAtStart << " threads before, " << procFigure(host, "status", "Threads");
}

}  // namespace
}  // namespace kerrow::test
