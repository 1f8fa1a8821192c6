// The real host end to end, as a browser and the core service see it: a private session bus, a
// test core service at the browser socket location, and standard input and output as pipes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

using ::testing::UnorderedElementsAre;

constexpr std::string_view startedLine = "info KerrowNativeMessagingHost started";

// True when `expected` occur in `lines` in this order (other lines may come between).
bool inOrder(const std::vector<std::string>& lines, const std::vector<std::string_view>& expected) {
    auto next = lines.begin();
    for (const auto line : expected) {
        next = std::find(next, lines.end(), line);
        if (next == lines.end()) {
            return false;
        }
        ++next;
    }
    return true;
}

// Confined on every thread, it relays both ways; SIGHUP ends it with status 0, the log written.
TEST(HostTest, AnnouncesItselfWaitsForTheAnswerThenRelaysBothWaysConfined) {
    HostSession session{KERROW_HOST_BINARY};
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    // A frame that arrives before the answer stays unread in the pipe.
    session.host().send(R"({"early":true})");
    EXPECT_FALSE(session.core().accept(300ms)) << "connected before the start notification";
    int unread = 0;
    EXPECT_EQ(::ioctl(session.host().inputFd(), FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 4 + 14) << "read standard input before the start notification";
    ASSERT_TRUE(session.waitForLog(startedLine));
    EXPECT_EQ(session.logMessages(), std::vector<std::string>{std::string(startedLine)});

    session.postStart();
    auto connection = session.core().accept();
    ASSERT_TRUE(connection);
    // The channel starts before the device-twin request, so the waiting frame may come first.
    EXPECT_THAT((std::vector{connection->receive(), connection->receive()}),
                UnorderedElementsAre("kerrow.updateDeviceTwin", R"({"early":true}kerrow.tabList)"));
    connection->send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), closeTabFrame(7));
    // Both pipes widened, so a large message crosses in a turn or two.
    EXPECT_EQ(::fcntl(session.host().inputFd(), F_GETPIPE_SZ), 1024 * 1024);
    EXPECT_EQ(::fcntl(session.host().outputFd(), F_GETPIPE_SZ), 1024 * 1024);
    // Every thread runs now (the queues, the logger's writer), each bound by the filter (but in
    // the sanitizer builds, which run unconfined).
    const pid_t pid = session.host().pid();
    const auto threads = sampleProcess(pid).threadsById;
    EXPECT_GE(threads.size(), 3U);
    for (const auto& [id, thread] : threads) {
        const auto status = "task/" + std::to_string(id) + "/status";
        EXPECT_TRUE(!KERROW_HOST_CONFINED || (procFigure(pid, status, "NoNewPrivs") == 1 &&
                                              procFigure(pid, status, "Seccomp") == 2))
            << status;
    }

    ::kill(pid, SIGHUP);
    EXPECT_EQ(session.host().waitForExit(), 0);
    const auto lines = session.logMessages();
    EXPECT_TRUE(inOrder(lines, {startedLine, "info Setting up Host to Core service",
                                "info Requesting Device Twin update"}))
        << session.log();
    EXPECT_TRUE(inOrder(lines, {"info Starting KerrowNativeMessagingHost:BrowserExtensionIO",
                                "info Sending Tab Data to Browser Messaging",
                                R"(info Closing Tab: {"action":"closeTab","payload":{"id":7}})"}))
        << session.log();
}

}  // namespace
}  // namespace kerrow::test
