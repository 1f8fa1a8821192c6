// The real host end to end, as a browser and the core service see it: a private session bus, a
// test core service at the browser socket location, and standard input and output as pipes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

constexpr std::string_view startedLine = "info KerrowNativeMessagingHost started";
constexpr std::string_view requestingLine = "info Requesting Device Twin update";
constexpr std::string_view sendingLine = "info Sending Tab Data to Browser Messaging";

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

class HostTest : public ::testing::Test {
  protected:
    HostSession session{KERROW_HOST_BINARY};
};

// Confined on every thread, it relays both ways; a message over the browsers' 1 MiB limit is
// dropped with an error line and the next goes out; SIGHUP ends it with status 0, the log written.
TEST_F(HostTest, AnnouncesItselfWaitsForTheAnswerThenRelaysBothWaysConfined) {
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

    auto connection = session.answer();
    ASSERT_TRUE(connection);
    // The channel starts before the device-twin request, so the waiting frame may come first.
    std::vector<std::optional<std::string>> received{connection->receive(), connection->receive()};
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received, (std::vector<std::optional<std::string>>{
                            "kerrow.updateDeviceTwin", R"({"early":true}kerrow.tabList)"}));
    connection->send(R"(kerrow.websiteList{"name":"Big","websites":[")" +
                     std::string(1024 * 1024, 'w') + R"("],"listType":1})");
    connection->send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":7}})");
    // Every thread runs now (the queues, the logger's writer), each bound by the filter (but in
    // the sanitizer builds, which run unconfined).
    const pid_t pid = session.host().pid();
    int threads = 0;
    for (const auto& task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const auto status = "task/" + task.path().filename().string() + "/status";
        EXPECT_TRUE(!KERROW_HOST_CONFINED || (procFigure(pid, status, "NoNewPrivs") == 1 &&
                                              procFigure(pid, status, "Seccomp") == 2))
            << status;
        ++threads;
    }
    EXPECT_GE(threads, 3);

    ::kill(pid, SIGHUP);
    EXPECT_EQ(session.host().waitForExit(), 0);
    const auto lines = session.logMessages();
    EXPECT_TRUE(
        inOrder(lines, {startedLine, "info Setting up Host to Core service", requestingLine}))
        << session.log();
    EXPECT_TRUE(
        inOrder(lines, {"info Starting KerrowNativeMessagingHost:BrowserExtensionIO", sendingLine}))
        << session.log();
    EXPECT_TRUE(std::ranges::any_of(lines, [](const std::string& line) {
        return line.starts_with("error ") && line.find("1048576") != std::string::npos;
    })) << session.log();
}

TEST_F(HostTest, StopsReadingTheCoreServiceAfterASocketErrorButKeepsServingTheBrowser) {
    auto connection = session.start();
    connection.sendRaw(std::string("\xFF\xFF\xFF\xFF", 4));
    EXPECT_TRUE(connection.waitForClose()) << session.log();
    EXPECT_FALSE(session.core().accept(500ms)) << "reconnected after a socket error";
    session.host().send("dropped");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(session.logMessages().back(),
              "info Stopping KerrowNativeMessagingHost:BrowserExtensionIO");
    EXPECT_EQ(session.host().receiveRest(), "") << "wrote to standard output after the stop";
}

TEST_F(HostTest, ServesTheBrowserWhileNoCoreServiceListensAndConnectsOnTheNextStart) {
    session.stopCore();
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    // The connect loop runs on the main thread, which lives on: its processor time is all.
    const auto before = sampleProcess(session.host().pid());
    const auto asked = std::chrono::steady_clock::now();
    session.postStart();
    ASSERT_TRUE(session.waitForLog("error Error setting up socket: ", 30'000ms)) << session.log();
    EXPECT_GE(std::chrono::steady_clock::now() - asked, 9s) << "gave up before the retry bound";
    EXPECT_LT(cpuNanosecondsBetween(before, sampleProcess(session.host().pid())), 1'000'000'000)
        << "retrying used the processor";
    ASSERT_TRUE(session.waitForLog(requestingLine));

    // The browser is served: a frame is taken and dropped, not kept for a later connection.
    session.host().send("nobody listens");
    ASSERT_TRUE(session.waitForLog(sendingLine)) << session.log();
    session.startCore();
    auto back = session.answer();
    ASSERT_TRUE(back) << session.log();
    EXPECT_EQ(back->receive(), "kerrow.updateDeviceTwin");
    session.host().send("back");
    EXPECT_EQ(back->receive(), "backkerrow.tabList");
    // SIGTERM: status 0, the log written out at once, not by a periodic flush that never comes.
    ::kill(session.host().pid(), SIGTERM);
    EXPECT_EQ(session.host().waitForExit(), 0);
    const auto lines = session.logMessages();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), sendingLine), 2) << session.log();
}

}  // namespace
}  // namespace kerrow::test
