// What the real host leaves behind and hands on across reconnections and repeated starts: no
// descriptor but the standard streams survives an exec, it starts no process, and its
// descriptors and threads stay flat. (The log's modes are proven by the logger's unit tests.)
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "tests/support/host_session.h"

namespace kerrow::test {
namespace {

// One open descriptor of a process and the flags it was opened with (from fdinfo).
struct OpenDescriptor {
    int number;
    unsigned flags;
    std::string target;  // where /proc/<pid>/fd/<number> points
};

std::vector<OpenDescriptor> openDescriptors(pid_t pid) {
    std::vector<OpenDescriptor> descriptors;
    const std::filesystem::path proc = "/proc/" + std::to_string(pid);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(proc / "fd", error)) {
        OpenDescriptor descriptor{std::stoi(entry.path().filename().string()), 0, ""};
        descriptor.target = std::filesystem::read_symlink(entry.path(), error).string();
        std::ifstream info(proc / "fdinfo" / entry.path().filename());
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("flags:")) {
                descriptor.flags = static_cast<unsigned>(std::stoul(line.substr(6), nullptr, 8));
            }
        }
        descriptors.push_back(descriptor);
    }
    std::sort(descriptors.begin(), descriptors.end(),
              [](const auto& a, const auto& b) { return a.number < b.number; });
    return descriptors;
}

std::vector<pid_t> childProcesses(pid_t pid) {
    std::vector<pid_t> children;
    std::error_code error;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
        std::ifstream list(task.path() / "children");
        for (pid_t child = 0; list >> child;) {
            children.push_back(child);
        }
    }
    return children;
}

// Marks every descriptor of the test process above 2 close-on-exec, so that a host started now
// has only the three standard streams from us (as from a browser), whatever our parent left open.
void markInheritedDescriptorsCloseOnExec() {
    for (const auto& descriptor : openDescriptors(::getpid())) {
        if (descriptor.number > 2) {
            ::fcntl(descriptor.number, F_SETFD, FD_CLOEXEC);
        }
    }
}

// True once the host has logged `count` connections to the core service in all. It logs each
// connection once it is in place, so a frame from the browser read after that goes over it.
bool waitForConnections(const HostSession& session, long count) {
    return waitUntil(
        [&] {
            const auto lines = session.logMessages();
            return std::count(lines.begin(), lines.end(),
                              "info Established a Connection in host-to-core service") >= count;
        },
        15'000ms);
}

std::string describe(const std::vector<OpenDescriptor>& descriptors) {
    std::string text;
    for (const auto& descriptor : descriptors) {
        text += std::to_string(descriptor.number) + " -> " + descriptor.target + " (flags 0" +
                std::to_string(descriptor.flags) + ")\n";
    }
    return text;
}

class HygieneTest : public ::testing::Test {
  protected:
    void SetUp() override { markInheritedDescriptorsCloseOnExec(); }

    // The host's next connection: after the core service dropped the previous one, or after a
    // repeated start (whose connection begins with the device-twin request).
    CoreConnection nextConnection(bool restarted) {
        auto connection = session.core().accept(12'000ms);
        if (!connection || !waitForConnections(session, ++connections)) {
            throw std::runtime_error("no connection " + std::to_string(connections) + "\n" +
                                     session.log());
        }
        if (restarted) {
            EXPECT_EQ(connection->receive(), "kerrow.updateDeviceTwin");
        }
        return std::move(*connection);
    }

    // Traffic both ways on `connection`, so every part of the host has opened what it opens.
    void exchange(CoreConnection& connection, int id) {
        session.host().send("tab data " + std::to_string(id));
        EXPECT_EQ(connection.receive(), "tab data " + std::to_string(id) + "kerrow.tabList")
            << session.log();
        connection.send("kerrow.closeTab-" + std::to_string(id));
        EXPECT_EQ(session.host().receive(),
                  R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}");
    }

    HostSession session{KERROW_HOST_BINARY};
    long connections = 0;
};

TEST_F(HygieneTest, LeaksNothingAcrossReconnectionsAndRestarts) {
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    const pid_t host = session.host().pid();
    session.postStart();
    auto connection = nextConnection(true);
    exchange(connection, 0);
    const auto descriptorsAtStart = openDescriptors(host);
    const auto threadsAtStart = procFigure(host, "status", "Threads");

    for (int round = 1; round <= 20; ++round) {
        const bool restart = round % 2 != 0;
        if (restart) {
            session.postStart();  // another host announced itself; this one starts again
        } else {
            connection.close();  // the core service drops the connection; the host reconnects
        }
        connection = nextConnection(restart);
        exchange(connection, round);
    }
    EXPECT_TRUE(childProcesses(host).empty());
    const auto descriptors = openDescriptors(host);
    ASSERT_GE(descriptors.size(), 3U);
    for (const auto& descriptor : descriptors) {
        EXPECT_TRUE(descriptor.number <= 2 || (descriptor.flags & O_CLOEXEC) != 0)
            << "descriptor " << descriptor.number << " would leak into a child\n"
            << describe(descriptors);
    }
    EXPECT_EQ(descriptors[2].number, 2);
    // Retired parts finish on their own threads; give them a moment to let go.
    EXPECT_TRUE(waitUntil([&] {
        return openDescriptors(host).size() <= descriptorsAtStart.size();
    })) << "before:\n"
        << describe(descriptorsAtStart) << "after:\n"
        << describe(openDescriptors(host));
    EXPECT_TRUE(waitUntil([&] { return procFigure(host, "status", "Threads") <= threadsAtStart; }))
        << threadsAtStart << " threads before, " << procFigure(host, "status", "Threads");
}

}  // namespace
}  // namespace kerrow::test
