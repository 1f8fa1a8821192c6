#include "platform/confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using test::Pipe;
using test::TemporaryDirectory;

// Runs `body` in a forked child, real files and all, and returns what it reported: a line for
// every expectation it found broken, plus the confinement's own notes.
std::string inConfinedChild(const std::function<void(std::string&)>& body) {
    Pipe report;
    const pid_t child = ::fork();
    if (child == 0) {
        std::string problems;
        body(problems);
        test::writeAll(report.writeEnd.get(), problems);
        ::_exit(0);
    }
    report.writeEnd.reset();
    std::string problems = test::readExactly(report.readEnd.get(), std::string::npos);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        problems += "the child did not end normally\n";
    }
    return problems;
}

void expect(std::string& problems, bool holds, const std::string& what) {
    if (!holds) {
        problems += what + " (errno " + std::to_string(errno) + ")\n";
    }
}

bool opens(const std::filesystem::path& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
    return fd >= 0 && ::close(fd) == 0;
}

bool connects(const std::filesystem::path& path) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT
                               sizeof address) == 0;
}

std::string notes(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) {
        text += line + "\n";
    }
    return text;
}

class ConfinementTest : public ::testing::Test {
  protected:
    void SetUp() override {
#if defined(__SANITIZE_THREAD__)
        GTEST_SKIP() << "ThreadSanitizer does not start threads in a child of a threaded fork";
#endif
        if (landlockAbiVersion() < 6) {
            GTEST_SKIP() << "this kernel's Landlock is older than ABI 6";
        }
        std::filesystem::create_directory(logs);
        std::filesystem::create_directory(outside);
        test::writeAll(Descriptor(::open(secret.c_str(), O_WRONLY | O_CREAT, 0600)).get(), "x");
    }

    TemporaryDirectory root;
    const std::filesystem::path logs = root.path() / "logs";
    const std::filesystem::path outside = root.path() / "outside";
    const std::filesystem::path secret = outside / "secret";
    test::TestCoreService core{root.path() / "kerrow" / "browser.sock"};
};

TEST_F(ConfinementTest, ChildReachesItsLogAndUnixSocketsAndNothingElse) {
    const auto problems = inConfinedChild([this](std::string& problems) {
        problems += notes(confineProcess({logs}));
        const auto log = logs / "native-messaging-host.log";
        expect(problems, opens(log, O_WRONLY | O_APPEND | O_CREAT | O_EXCL), "creates its log");
        expect(problems, ::rename(log.c_str(), (logs / "log.1").c_str()) == 0, "rotates its log");
        expect(problems, ::unlink((logs / "log.1").c_str()) == 0, "removes a rotated log");
        expect(problems, connects(core.socketPath()), "connects to the core service");
        expect(problems, !opens(secret, O_RDONLY), "reads a file outside");
        expect(problems, !opens("/etc/passwd", O_RDONLY), "reads /etc/passwd");
        expect(problems, !opens(outside / "new", O_WRONLY | O_CREAT), "creates a file outside");
        expect(problems, ::socket(AF_INET, SOCK_STREAM, 0) < 0 && errno == EPERM, "IPv4 socket");
        expect(problems, ::socket(AF_INET6, SOCK_DGRAM, 0) < 0 && errno == EPERM, "IPv6 socket");
        char* const arguments[] = {const_cast<char*>("true"), nullptr};  // NOLINT
        ::execve("/bin/true", arguments, nullptr);
        expect(problems, errno == EPERM, "starts a program");
        // A thread started afterwards is bound as its starter is.
        std::thread([&] {
            expect(problems, !opens(secret, O_RDONLY), "a later thread reads");
        }).join();
    });
    EXPECT_EQ(problems, "");
}

TEST_F(ConfinementTest, ThreadRunningBeforeIsFilteredAndReported) {
    const auto problems = inConfinedChild([this](std::string& problems) {
        Pipe go;
        std::thread early([&] {
            char byte = 0;
            expect(problems, ::read(go.readEnd.get(), &byte, 1) == 1, "waits");
            expect(problems, ::socket(AF_INET, SOCK_STREAM, 0) < 0 && errno == EPERM,
                   "an earlier thread makes an IPv4 socket");
        });
        const auto lines = confineProcess({logs});
        test::writeAll(go.writeEnd.get(), "x");
        early.join();
        if (lines != std::vector<std::string>{
                         "Landlock: threads started before it are not restricted by it (1)"}) {
            problems += "notes: " + notes(lines);
        }
    });
    EXPECT_EQ(problems, "");
}

}  // namespace
}  // namespace kerrow
