// The real host under faults: no log, bad core input, a closed output.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "kit/frame_codec.h"
#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

// Its log cannot be made, so it logs to standard error; the core service sends garbage, a header
// at the limit, then one over it; the browser stops reading its output, then ends its input.
TEST(HostFaultTest, GoesOnWithoutItsLogThroughGarbageFromTheCoreAndAClosedOutput) {
    HostSession session{KERROW_HOST_BINARY};
    // The log's directory is taken by a file, so it cannot be made, for any user (root too).
    std::filesystem::create_directories(session.logFile().parent_path().parent_path());
    std::ofstream(session.logFile().parent_path()) << "not a directory";
    auto connection = session.start();
    std::mt19937 random(20261122);
    for (int i = 0; i < 200; ++i) {
        std::string bytes(random() % 300, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        connection.send(bytes);
    }
    // Invalid UTF-8, and a website list nested deeper than a recursive reader's stack would take
    // (the unit tests prove each kind of bad input one by one; here, the host's wiring).
    for (const auto& message :
         {std::string(), std::string(3, '\0'), std::string("kerrow.closeTab-5\xFF"),
          "kerrow.websiteList" + std::string(100'000, '[')}) {
        connection.send(message);
    }
    connection.send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), closeTabFrame(7))
        << "garbage or a log line reached standard output\n"
        << session.standardError();
    EXPECT_FALSE(session.core().accept(200ms)) << "garbage ended the connection";

    // A header at the limit is no error, and no memory is reserved before the body arrives.
    const auto peakBefore = procFigure(session.host().pid(), "status", "VmHWM");
    const auto header = encodeFrameLength(64 * 1024 * 1024);
    connection.sendRaw(std::string(header.begin(), header.end()) + "kerrow.closeTab-8");
    connection.close();
    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << session.standardError();
    EXPECT_LT(procFigure(session.host().pid(), "status", "VmHWM") - peakBefore, 32 * 1024)
        << "memory was reserved for the announced 64 MiB";
    second->send("kerrow.enableInternet");
    EXPECT_EQ(session.host().receive(), R"({"action":"enableWeb","payload":{}})")
        << "the cut frame was delivered, or its bytes joined to the next connection's";

    session.host().closeOutput();
    // Every frame for the extension now meets a closed pipe (EPIPE, and no SIGPIPE death).
    for (int i = 0; i < 100; ++i) {
        second->send("kerrow.closeTab-" + std::to_string(i));
    }
    EXPECT_TRUE(waitUntil([&] {
        return session.standardError().find(" info Closing Tab: " + closeTabFrame(99)) !=
               std::string::npos;
    })) << session.standardError();
    session.host().send("still relayed");
    EXPECT_EQ(second->receive(), "still relayedkerrow.tabList");

    // A header over the limit is a socket error: the service stops reading for good, and the
    // browser is served until its input ends.
    second->sendRaw(std::string("\xFF\xFF\xFF\xFF", 4));
    EXPECT_TRUE(second->waitForClose()) << session.standardError();
    EXPECT_FALSE(session.core().accept(500ms)) << "reconnected after a socket error";
    session.host().send("dropped");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_TRUE(session.standardError().ends_with(
        " info Stopping KerrowNativeMessagingHost:BrowserExtensionIO\n"))
        << session.standardError();
}

}  // namespace
}  // namespace kerrow::test
