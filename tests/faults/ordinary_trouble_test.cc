// Ordinary trouble on a desktop, with the real host: a core service that is missing or stops
// reading; commands in flight at a repeated start; standard streams closed or broken at launch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <thread>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

// True once the main thread of process `pid` is in one of `calls`, as /proc shows it.
bool waitForSystemCall(pid_t pid, std::initializer_list<long> calls) {
    return waitUntil([&] {
        const std::string text = readFile("/proc/" + std::to_string(pid) + "/syscall");
        return !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) &&
               std::ranges::find(calls, std::stol(text)) != calls.end();
    });
}

// No core service listens: the start sequence waits for it outside the main loop, gives up at its
// bound, and the browser is served (a frame is taken and dropped, not kept for a later
// connection); the next start connects. A start that waits again ends at SIGTERM, which comes
// before a start notification queued behind it.
TEST(OrdinaryTroubleTest, ServesTheBrowserWithoutACoreConnectsLaterAndEndsOnSigtermWhileWaiting) {
    HostSession session{KERROW_HOST_BINARY};
    session.stopCore();
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    const auto asked = std::chrono::steady_clock::now();
    session.postStart();
    ASSERT_TRUE(session.waitForLog("error Error setting up socket: ", 30'000ms)) << session.log();
    EXPECT_GE(std::chrono::steady_clock::now() - asked, 9s) << "gave up before the retry bound";
    session.host().send("nobody listens");
    ASSERT_TRUE(session.waitForLog("info Sending Tab Data to Browser Messaging")) << session.log();
    session.startCore();
    session.postStart();
    auto back = session.core().accept();
    ASSERT_TRUE(back) << session.log();
    EXPECT_EQ(back->receive(), "kerrow.updateDeviceTwin");
    session.host().send("back");
    EXPECT_EQ(back->receive(), "backkerrow.tabList");

    session.stopCore();
    session.postStart();
    const pid_t host = session.host().pid();
    // Waiting in setupSocket(), outside the main loop.
    ASSERT_TRUE(waitForSystemCall(host, {SYS_poll, SYS_ppoll}));
    session.postStart();  // queued behind the one being served: the signal comes first
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(::kill(host, SIGTERM), 0);
    // Well before the retries end (after 9 s); the thread sanitizer hands a signal on late.
    EXPECT_EQ(session.host().waitForExit(3000ms), 0);
}

// Also: the extension message whose send the retirement cut off goes whole, first, over the new
// connection, and the old one, which got part of it, is closed.
TEST(OrdinaryTroubleTest, ARepeatedStartNeitherWaitsOnAStalledCoreNorDropsCommandsInFlight) {
    HostSession session{KERROW_HOST_BINARY};
    auto stalled = session.start();
    const std::string large(4 * 1024 * 1024, 'x');
    session.host().send(large);  // more than the socket holds
    pollfd sending{stalled.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&sending, 1, 5000), 1);

    session.postStart();
    auto fresh = session.core().accept();
    ASSERT_TRUE(fresh);
    // Standard input has one reader: the new channel reads this only once the old one let go.
    session.host().send("after");
    stalled.send("kerrow.closeTab-8");  // already on its way as the old connection retires
    EXPECT_EQ(session.host().receive(), closeTabFrame(8));
    EXPECT_EQ(fresh->receive(), "kerrow.updateDeviceTwin");
    EXPECT_EQ(fresh->receive(), large + "kerrow.tabList");
    EXPECT_TRUE(stalled.waitForClose());
    EXPECT_EQ(fresh->receive(3000ms), "afterkerrow.tabList");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(session.log().find(" error "), std::string::npos) << session.log();
}

// The host started bare (no bus), with standard output closed and standard error a broken pipe
// that it logs to (XDG_STATE_HOME is a file): standard output stays taken (by /dev/null), so that
// no descriptor it opens lands there, and a SIGTERM ends it with status 0.
TEST(OrdinaryTroubleTest, KeepsItsStandardStreamsForTheBrowserAndSurvivesABrokenOne) {
    const TemporaryDirectory directory;
    const auto state = directory.path() / "state";
    ::close(::open(state.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    // Standard error is the pipe that was standard output, whose reading end we close.
    HostProcess host("/bin/sh", {"-c", R"(exec "$0" 2>&1 1>&-)", KERROW_HOST_BINARY},
                     Environment{{"PATH", "/usr/bin:/bin"}, {"XDG_STATE_HOME", state.string()}},
                     "");
    host.closeOutput();
    EXPECT_TRUE(waitForSystemCall(host.pid(), {SYS_epoll_wait, SYS_epoll_pwait}));  // in its loop
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(host.pid()) + "/fd/1"),
              "/dev/null");
    ::kill(host.pid(), SIGTERM);
    EXPECT_EQ(host.waitForExit(), 0);
}

}  // namespace
}  // namespace kerrow::test
