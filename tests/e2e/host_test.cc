// The real host end to end, as a browser and the core service see it: a private session bus, a
// test core service at the browser socket location, and standard input and output as pipes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kit/frame_codec.h"
#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

constexpr std::string_view startedLine = "info KerrowNativeMessagingHost started";
constexpr std::string_view settingUpLine = "info Setting up Host to Core service";
constexpr std::string_view requestingLine = "info Requesting Device Twin update";
constexpr std::string_view establishedLine =
    "info Established a Connection in host-to-core service";
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

TEST_F(HostTest, AnnouncesItselfAndWaitsForTheAnswerBeforeReadingOrConnecting) {
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

    ASSERT_TRUE(session.waitForLog(sendingLine));
    const auto lines = session.logMessages();
    EXPECT_TRUE(inOrder(lines, {startedLine, settingUpLine, requestingLine})) << session.log();
    EXPECT_TRUE(
        inOrder(lines, {"info Starting KerrowNativeMessagingHost:BrowserExtensionIO", sendingLine}))
        << session.log();
}

TEST_F(HostTest, ReconnectsWhenTheCoreServiceDropsTheConnectionMidFrame) {
    auto first = session.start();
    // One whole command, then 10 of 20 announced bytes, then the connection ends.
    const auto header = encodeFrameLength(20);
    first.sendRaw(frame("kerrow.closeTab-1") + std::string(header.begin(), header.end()) +
                  "kerrow.clo");
    first.close();
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":1}})");
    auto second = session.core().accept();
    ASSERT_TRUE(second) << "no reconnection\n" << session.log();
    // Frames are dropped while the host reconnects; once it logs the connection, they reach it.
    ASSERT_TRUE(waitUntil([&] {
        const auto lines = session.logMessages();
        return std::count(lines.begin(), lines.end(), std::string(establishedLine)) == 2;
    })) << session.log();
    session.host().send("after");
    EXPECT_EQ(second->receive(), "afterkerrow.tabList");
    second->send("kerrow.enableInternet");
    EXPECT_EQ(session.host().receive(), R"({"action":"enableWeb","payload":{}})")
        << "the cut frame's bytes were joined to the next connection's";
}

TEST_F(HostTest, StopsReadingTheCoreServiceAfterASocketErrorButKeepsServingTheBrowser) {
    auto connection = session.start();
    connection.sendRaw(std::string("\xFF\xFF\xFF\xFF", 4));
    EXPECT_TRUE(connection.waitForClose()) << session.log();
    ASSERT_TRUE(session.waitForLog(
        "error Error with socket in host-to-core service: inbound frame of 4294967295 bytes "
        "exceeds the 64 MiB limit"));
    EXPECT_FALSE(session.core().accept(500ms)) << "reconnected after a socket error";
    session.host().send("dropped");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
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
    EXPECT_TRUE(inOrder(session.logMessages(), {startedLine, settingUpLine, requestingLine}));

    // The browser is served: a frame is taken and dropped, not kept for a later connection.
    session.host().send("nobody listens");
    ASSERT_TRUE(session.waitForLog(sendingLine)) << session.log();
    session.startCore();
    auto back = session.answer();
    ASSERT_TRUE(back) << session.log();
    EXPECT_EQ(back->receive(), "kerrow.updateDeviceTwin");
    session.host().send("back");
    EXPECT_EQ(back->receive(), "backkerrow.tabList");
}

TEST_F(HostTest, ARepeatedStartMovesTheTrafficToTheNewConnection) {
    auto first = session.start();
    session.host().send("one");
    EXPECT_EQ(first.receive(), "onekerrow.tabList");

    session.postStart();
    auto second = session.core().accept();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->receive(), "kerrow.updateDeviceTwin");
    session.host().send("two");
    EXPECT_EQ(second->receive(), "twokerrow.tabList");
    // The previous endpoint is closed once its channel finished; it never reconnects.
    EXPECT_TRUE(first.waitForClose()) << session.log();
    EXPECT_FALSE(session.core().accept(500ms)) << "the retired service reconnected";
    second->send("kerrow.closeTab-8");
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":8}})");
    EXPECT_FALSE(session.waitForAnnouncement(0ms, 2)) << "announced twice";
}

TEST_F(HostTest, EndOfInputEndsTheProcessWithStatusZero) {
    auto connection = session.start();
    session.host().send("last");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(connection.receive(), "lastkerrow.tabList");
    EXPECT_TRUE(connection.waitForClose());
    const auto lines = session.logMessages();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "info Stopping KerrowNativeMessagingHost:BrowserExtensionIO");
    EXPECT_EQ(session.host().receiveRest(), "") << "wrote to standard output after the stop";
}

TEST_F(HostTest, SigtermEndsTheHostWithStatusZeroAndItsLogWritten) {
    auto connection = session.start();
    session.host().send("before the end");
    EXPECT_EQ(connection.receive(), "before the endkerrow.tabList");
    ::kill(session.host().pid(), SIGTERM);
    EXPECT_EQ(session.host().waitForExit(), 0);
    // Written out at once, not by the next periodic flush, which never comes.
    EXPECT_TRUE(session.waitForLog(sendingLine, 0ms)) << session.log();
}

}  // namespace
}  // namespace kerrow::test
