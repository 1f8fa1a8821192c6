#include "platform/confinement.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

void expect(std::string& problems, bool holds, const std::string& what) {
    if (!holds) {
        problems += what + " (errno " + std::to_string(errno) + ")\n";
    }
}

bool opens(const std::filesystem::path& path, int flags) {
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC, 0600)).valid();
}

bool connects(const std::filesystem::path& path) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT
                               sizeof address) == 0;
}

// A forked child (real files, a real listening socket) confines itself with a thread already
// running, and reports on a pipe every expectation it finds broken.
TEST(ConfinementTest, ChildReachesItsLogAndUnixSocketsAndNothingElseOnEveryThread) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer does not start threads in a child of a threaded fork";
#endif
    if (landlockAbiVersion() < 6) {
        GTEST_SKIP() << "this kernel's Landlock is older than ABI 6";
    }
    const test::TemporaryDirectory root;
    const auto logs = root.path() / "logs";
    std::filesystem::create_directory(logs);
    const test::TestCoreService core(root.path() / "kerrow" / "browser.sock");
    test::Pipe report;
    const pid_t child = ::fork();
    if (child == 0) {
        std::string problems;
        // As the user's host runs: without CAP_SYS_ADMIN, which lets Landlock and the seccomp
        // filter in without no_new_privs.
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        std::array<__user_cap_data_struct, 2> capabilities{};
        ::syscall(SYS_capget, &header, capabilities.data());
        capabilities[0].effective &= ~(1U << CAP_SYS_ADMIN);
        expect(problems, ::syscall(SYS_capset, &header, capabilities.data()) == 0, "capset");
        test::Pipe go;
        std::thread early([&] {  // filtered too, but not bound by Landlock: a note says so
            expect(problems, test::readExactly(go.readEnd.get(), 1) == "x", "waits");
            expect(problems, ::socket(AF_INET, SOCK_STREAM, 0) < 0, "an earlier thread's IPv4");
        });
        for (const auto& note : confineProcess({logs})) {
            problems += note + "\n";
        }
        test::writeAll(go.writeEnd.get(), "x");
        early.join();
        const auto log = logs / "native-messaging-host.log";
        expect(problems, opens(log, O_WRONLY | O_APPEND | O_CREAT | O_EXCL), "creates its log");
        expect(problems, ::rename(log.c_str(), (logs / "log.1").c_str()) == 0, "rotates its log");
        expect(problems, connects(core.socketPath()), "connects to the core service");
        expect(problems, !opens("/etc/passwd", O_RDONLY), "reads /etc/passwd");
        expect(problems, !opens(root.path() / "new", O_WRONLY | O_CREAT), "creates a file outside");
        expect(problems, ::socket(AF_INET, SOCK_STREAM, 0) < 0 && errno == EPERM, "IPv4 socket");
        expect(problems, ::socket(AF_INET6, SOCK_DGRAM, 0) < 0 && errno == EPERM, "IPv6 socket");
        char* const arguments[] = {const_cast<char*>("true"), nullptr};  // NOLINT
        ::execve("/bin/true", arguments, nullptr);
        expect(problems, errno == EPERM, "starts a program");
        std::thread([&] {
            expect(problems, !opens("/etc/passwd", O_RDONLY), "a later thread reads");
        }).join();
#if defined(__x86_64__)
        if (const pid_t x32 = ::fork(); x32 == 0) {
            ::syscall(__X32_SYSCALL_BIT | __NR_getpid);  // another ABI's call ends the process
            ::_exit(0);
        } else {
            int ended = 0;
            expect(
                problems,
                ::waitpid(x32, &ended, 0) == x32 && WIFSIGNALED(ended) && WTERMSIG(ended) == SIGSYS,
                "an x32 call goes on");
        }
#endif
        test::writeAll(report.writeEnd.get(), problems);
        ::_exit(0);
    }
    report.writeEnd.reset();
    EXPECT_EQ(test::readExactly(report.readEnd.get(), std::string::npos),
              "Landlock: threads started before it are not restricted by it (1)\n");
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kerrow
