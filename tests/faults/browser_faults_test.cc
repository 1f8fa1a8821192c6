// Faults on the browser's side of the real host: frames that arrive one byte at a time, a
// browser that stops reading the host's output, and a log that cannot be opened. (Hostile length
// headers are proven by the framing's unit tests.)
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <fstream>

#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

// Bytes written to a pipe that its reader has not taken yet (works on the write end too).
int unreadBytes(int pipeEnd) {
    int unread = -1;
    return ::ioctl(pipeEnd, FIONREAD, &unread) == 0 ? unread : -1;
}

class BrowserFaultTest : public ::testing::Test {
  protected:
    HostSession session{KERROW_HOST_BINARY};
};

TEST_F(BrowserFaultTest, ReassemblesFramesThatArriveOneByteAtATime) {
    auto connection = session.start();
    const std::string bytes = frame(R"({"tabs":[1]})") + frame("") +
                              frame("\xF0\x9F\x98\x80 split across reads") +
                              frame(std::string(300, 'x'));  // a length prefix of two bytes
    for (const char byte : bytes) {
        session.host().sendRaw(std::string(1, byte));
        // Each byte is a read of its own: the next one goes only after the host took this one.
        ASSERT_TRUE(waitUntil([&] { return unreadBytes(session.host().inputFd()) == 0; }));
    }
    EXPECT_EQ(connection.receive(), R"({"tabs":[1]}kerrow.tabList)");
    EXPECT_EQ(connection.receive(), "kerrow.tabList");
    EXPECT_EQ(connection.receive(), "\xF0\x9F\x98\x80 split across readskerrow.tabList");
    EXPECT_EQ(connection.receive(), std::string(300, 'x') + "kerrow.tabList");
}

TEST_F(BrowserFaultTest, GoesOnWhenTheBrowserStopsReadingItsOutput) {
    auto connection = session.start();
    session.host().closeOutput();
    // Every frame for the extension now meets a closed pipe (EPIPE, and no SIGPIPE death).
    for (int i = 0; i < 100; ++i) {
        connection.send("kerrow.closeTab-" + std::to_string(i));
    }
    ASSERT_TRUE(
        session.waitForLog(R"(info Closing Tab: {"action":"closeTab","payload":{"id":99}})"))
        << session.log();
    ASSERT_TRUE(session.host().running());
    session.host().send("still relayed");
    EXPECT_EQ(connection.receive(), "still relayedkerrow.tabList");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
}

TEST_F(BrowserFaultTest, LogsToStandardErrorWhenTheLogCannotBeOpened) {
    // The log's directory is taken by a file, so it cannot be made, for any user (root too).
    std::filesystem::create_directories(session.logFile().parent_path().parent_path());
    std::ofstream(session.logFile().parent_path()) << "not a directory";

    auto connection = session.start();
    session.host().send("relayed");
    EXPECT_EQ(connection.receive(), "relayedkerrow.tabList");
    connection.send("kerrow.closeTab-4");
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":4}})");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(session.host().receiveRest(), "") << "a log line reached standard output";

    // The lines themselves are the logger's (its unit tests prove their form and the fallback).
    for (const std::string expected :
         {" info KerrowNativeMessagingHost started\n",
          " info Stopping KerrowNativeMessagingHost:BrowserExtensionIO\n"}) {
        EXPECT_NE(session.standardError().find(expected), std::string::npos)
            << session.standardError();
    }
}

}  // namespace
}  // namespace kerrow::test
