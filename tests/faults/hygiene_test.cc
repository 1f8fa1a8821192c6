// What the real host leaves behind and hands on across reconnections and repeated starts: no
// descriptor but the standard streams survives an exec, it starts no process, and its
// descriptors and threads stay flat. (The log's modes are proven by the logger's unit tests.)
#include <fcntl.h>
#include <gtest/gtest.h>

#include <stdexcept>

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
