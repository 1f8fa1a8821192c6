// What the real host leaves behind and hands on: no descriptor survives an exec, the log is its
// user's alone, it starts no process, and descriptors and threads stay flat across reconnections
// and repeated starts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

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
    std::optional<CoreConnection> nextConnection(bool restarted) {
        auto connection = session.core().accept(12'000ms);
        if (!connection || !waitForConnections(session, ++connections)) {
            ADD_FAILURE() << "no connection " << connections << "\n" << session.log();
            return std::nullopt;
        }
        if (restarted) {
            EXPECT_EQ(connection->receive(), "kerrow.updateDeviceTwin");
        }
        return connection;
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

TEST_F(HygieneTest, MarksEveryDescriptorButTheStandardStreamsCloseOnExec) {
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    session.postStart();
    auto first = nextConnection(true);
    ASSERT_TRUE(first);
    exchange(*first, 1);
    session.postStart();
    auto second = nextConnection(true);
    ASSERT_TRUE(second);
    exchange(*second, 2);

    const auto descriptors = openDescriptors(session.host().pid());
    ASSERT_GE(descriptors.size(), 3U);
    for (int standard = 0; standard < 3; ++standard) {
        EXPECT_EQ(descriptors[static_cast<std::size_t>(standard)].number, standard);
    }
    for (const auto& descriptor : descriptors) {
        if (descriptor.number > 2) {
            EXPECT_NE(descriptor.flags & O_CLOEXEC, 0U)
                << "descriptor " << descriptor.number << " (" << descriptor.target
                << ") would leak into a child\n"
                << describe(descriptors);
        }
    }
}

TEST_F(HygieneTest, KeepsItsLogToItsUser) {
    auto connection = session.start();
    ASSERT_TRUE(session.waitForLog("info Requesting Device Twin update"));
    struct stat file {};
    struct stat directory {};
    ASSERT_EQ(::stat(session.logFile().c_str(), &file), 0);
    ASSERT_EQ(::stat(session.logFile().parent_path().c_str(), &directory), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600U);
    EXPECT_EQ(directory.st_mode & 07777, 0700U);
}

TEST_F(HygieneTest, StartsNoProcess) {
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    const pid_t host = session.host().pid();
    EXPECT_TRUE(childProcesses(host).empty());
    session.postStart();
    auto first = nextConnection(true);
    ASSERT_TRUE(first);
    exchange(*first, 1);
    first->close();
    auto second = nextConnection(false);
    ASSERT_TRUE(second);
    exchange(*second, 2);
    session.postStart();
    auto third = nextConnection(true);
    ASSERT_TRUE(third);
    exchange(*third, 3);
    EXPECT_TRUE(childProcesses(host).empty());
}

TEST_F(HygieneTest, KeepsDescriptorsAndThreadsFlatAcrossReconnectionsAndRestarts) {
    session.launch();
    ASSERT_TRUE(session.waitForAnnouncement());
    session.postStart();
    auto connection = nextConnection(true);
    ASSERT_TRUE(connection);
    exchange(*connection, 0);
    const pid_t host = session.host().pid();
    const auto descriptorsAtStart = openDescriptors(host);
    const auto threadsAtStart = procFigure(host, "status", "Threads");

    for (int round = 1; round <= 20; ++round) {
        const bool restart = round % 2 != 0;
        if (restart) {
            session.postStart();  // another host announced itself; this one starts again
        } else {
            connection->close();  // the core service drops the connection; the host reconnects
        }
        auto next = nextConnection(restart);
        ASSERT_TRUE(next) << "round " << round;
        connection.emplace(std::move(*next));
        exchange(*connection, round);
    }
    // Retired parts finish on their own threads; give them a moment to let go.
    EXPECT_TRUE(waitUntil([&] { return openDescriptors(host).size() <= descriptorsAtStart.size(); },
                          5000ms))
        << "before:\n"
        << describe(descriptorsAtStart) << "after:\n"
        << describe(openDescriptors(host));
    EXPECT_TRUE(
        waitUntil([&] { return procFigure(host, "status", "Threads") <= threadsAtStart; }, 5000ms))
        << threadsAtStart << " threads before, " << procFigure(host, "status", "Threads")
        << " after";
}

}  // namespace
}  // namespace kerrow::test
