// Ordinary trouble on a desktop, with the real host: a core service that drops every connection,
// never accepts or stops reading; commands in flight at a repeated start; standard streams closed
// or broken at launch; a FIFO at the log's place.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/descriptor.h"
#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

long countLines(const HostSession& session, std::string_view line) {
    const auto lines = session.logMessages();
    return std::count(lines.begin(), lines.end(), line);
}

constexpr std::string_view connected = "info Established a Connection in host-to-core service";

// The system call that the host's main thread is in, as /proc shows it.
long mainThreadSystemCall(pid_t pid) {
    const std::string text = readFile("/proc/" + std::to_string(pid) + "/syscall");
    return text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) ? -1
                                                                              : std::stol(text);
}

TEST(OrdinaryTroubleTest, PacesACoreThatDropsEveryConnectionAndReachesItWhenItRecovers) {
    HostSession session{KERROW_HOST_BINARY};
    session.start().close();
    int connections = 0;
    for (const auto until = std::chrono::steady_clock::now() + 4s;
         std::chrono::steady_clock::now() < until;) {
        if (auto connection = session.core().accept(100ms)) {
            ++connections;
            connection->close();
        }
    }
    EXPECT_LE(connections, 12);  // not tens of thousands
    auto lasting = session.core().accept(2000ms);
    ASSERT_TRUE(lasting) << session.log();
    ASSERT_TRUE(waitUntil([&] { return countLines(session, connected) >= connections + 2; }))
        << session.log();
    EXPECT_LE(countLines(session, connected), connections + 2);
    lasting->send("kerrow.closeTab-3");
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":3}})");
}

TEST(OrdinaryTroubleTest, EndsOnSigtermWhileWaitingForACoreThatNeverAccepts) {
    HostSession session{KERROW_HOST_BINARY};
    session.stopCore();
    const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, session.socketPath().c_str(), sizeof address.sun_path - 1);
    const auto* target = reinterpret_cast<const sockaddr*>(&address);
    ASSERT_EQ(::bind(listener.get(), target, sizeof address), 0);
    ASSERT_EQ(::listen(listener.get(), 0), 0);
    std::vector<Descriptor> backlog;  // fills the queue: nothing more is taken
    do {
        backlog.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    } while (::connect(backlog.back().get(), target, sizeof address) == 0);

    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    session.postStart();
    const pid_t host = session.host().pid();
    ASSERT_TRUE(waitUntil([&] {  // in setupSocket(), outside the main loop
        const long call = mainThreadSystemCall(host);
        return call == SYS_poll || call == SYS_ppoll;
    }));
    ASSERT_EQ(::kill(host, SIGTERM), 0);
#ifdef KERROW_SANITIZED
    // The thread sanitizer hands a signal on from its own thread only at its next wake-up.
    constexpr Duration patience = 3000ms;
#else
    constexpr Duration patience = 1000ms;
#endif
    EXPECT_EQ(session.host().waitForExit(patience), 0);
}

TEST(OrdinaryTroubleTest, ARepeatedStartNeitherWaitsOnAStalledCoreNorDropsCommandsInFlight) {
    HostSession session{KERROW_HOST_BINARY};
    auto stalled = session.start();
    session.host().send(std::string(4 * 1024 * 1024, 'x'));  // more than the socket holds
    pollfd sending{stalled.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&sending, 1, 5000), 1);

    session.postStart();
    auto fresh = session.core().accept();
    ASSERT_TRUE(fresh);
    stalled.send("kerrow.closeTab-8");  // already on its way as the old connection retires
    EXPECT_EQ(session.host().receive(), R"({"action":"closeTab","payload":{"id":8}})");
    EXPECT_EQ(fresh->receive(), "kerrow.updateDeviceTwin");
    session.host().send("after");
    EXPECT_EQ(fresh->receive(3000ms), "afterkerrow.tabList");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
    EXPECT_EQ(countLines(session, "error Error with socket in host-to-core service"), 0);
}

// A FIFO at the log's place neither blocks the host nor receives its lines.
TEST(OrdinaryTroubleTest, StartsWithAFifoAtTheLogsPlace) {
    HostSession session{KERROW_HOST_BINARY};
    std::filesystem::create_directories(session.logFile().parent_path());
    ::chmod(session.logFile().parent_path().c_str(), 0700);
    ASSERT_EQ(::mkfifo(session.logFile().c_str(), 0600), 0);
    session.launch();
    EXPECT_TRUE(session.waitForAnnouncement());
    EXPECT_TRUE(waitUntil([&] {
        return session.standardError().find("info KerrowNativeMessagingHost started") !=
               std::string::npos;
    }));
}

// The host started bare (no bus), with standard streams as given: the lines it logs go to its log
// directory, or to standard error where XDG_STATE_HOME is a file.
pid_t launchBare(const TemporaryDirectory& directory, bool logToStandardError, int out, int err) {
    const std::string host = KERROW_HOST_BINARY;
    const std::string state = "XDG_STATE_HOME=" + (directory.path() / "state").string();
    if (logToStandardError) {
        ::close(::open((directory.path() / "state").c_str(), O_CREAT | O_WRONLY, 0600));
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out, 1);
        ::dup2(err, 2);
        if (out < 0) {
            ::close(1);
        }
        const char* environment[] = {"PATH=/usr/bin:/bin", state.c_str(), nullptr};
        ::execle(host.c_str(), host.c_str(), static_cast<char*>(nullptr), environment);
        ::_exit(127);
    }
    return pid;
}

int exitStatus(pid_t pid) {
    int status = 0;
    if (!waitUntil([&] { return ::waitpid(pid, &status, WNOHANG) == pid; })) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(OrdinaryTroubleTest, KeepsItsStandardStreamsForTheBrowserAndSurvivesABrokenOne) {
    TemporaryDirectory directory;
    const int err = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t closedOutput = launchBare(directory, false, -1, err);
    const auto log = directory.path() / "state" / "kerrow" / "native-messaging-host.log";
    ASSERT_TRUE(waitUntil([&] { return !readFile(log).empty(); }));
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(closedOutput) + "/fd/1"),
              "/dev/null");
    ::kill(closedOutput, SIGTERM);
    EXPECT_EQ(exitStatus(closedOutput), 0);

    TemporaryDirectory other;
    Pipe broken;
    broken.closeReadEnd();
    const pid_t brokenError = launchBare(other, true, err, broken.writeEnd());
    ASSERT_TRUE(waitUntil([&] {
        const long call = mainThreadSystemCall(brokenError);
        return call == SYS_epoll_wait || call == SYS_epoll_pwait;
    }));
    ::kill(brokenError, SIGTERM);  // writes out its log: to the broken pipe
    EXPECT_EQ(exitStatus(brokenError), 0);
    ::close(err);
}

}  // namespace
}  // namespace kerrow::test
