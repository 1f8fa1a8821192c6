// Faults on the core service's side of the real host: connections that end mid-frame or are
// reset, a core service that is away for longer than the retry bound, garbage, invalid UTF-8,
// oversized headers, and thousands of commands in one burst.
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <random>
#include <thread>

#include "tests/e2e/host_session.h"
#include "tests/faults/fault_support.h"

namespace kerrow::test {
namespace {

std::string closeTabFrame(int id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}

bool hasLogLineStartingWith(const HostSession& session, std::string_view prefix) {
    const auto lines = session.logMessages();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.starts_with(prefix); });
}

constexpr std::string_view socketErrorLine = "error Error with socket in host-to-core service: ";

class CoreFaultTest : public ::testing::Test {
  protected:
    HostSession session;
};

TEST_F(CoreFaultTest, DropsAFrameCutShortByTheCoreServiceAndReconnects) {
    auto first = session.start();
    ASSERT_TRUE(first);
    // One whole command, then the first 10 of 20 announced bytes, then the connection ends.
    first->sendRaw(frame("kerrow.closeTab-1") + lengthPrefix(20) + "kerrow.clo");
    first->close();
    EXPECT_EQ(session.host().receive(), closeTabFrame(1));

    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << "no reconnection\n" << session.log();
    ASSERT_TRUE(waitForConnections(session, 2)) << session.log();
    second->send("kerrow.closeTab-2");
    EXPECT_EQ(session.host().receive(), closeTabFrame(2))
        << "the cut frame's bytes were joined to the next connection's";
    session.host().send("after");
    EXPECT_EQ(second->receive(), "afterkerrow.tabList");
    EXPECT_FALSE(hasLogLineStartingWith(session, socketErrorLine)) << session.log();
}

TEST_F(CoreFaultTest, TakesAResetByTheCoreServiceAsTheEndOfTheConnection) {
    auto first = session.start();
    ASSERT_TRUE(first);
    // Closing a Unix socket with unread bytes in it resets the connection: the host's next read
    // fails with ECONNRESET instead of seeing the end of the stream.
    session.host().send("never read");
    ASSERT_TRUE(waitUntil([&] {
        int unread = 0;
        return ::ioctl(first->fd(), FIONREAD, &unread) == 0 && unread > 0;
    }));
    first->close();

    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << "a reset stopped the host for good\n" << session.log();
    second->send("kerrow.enableInternet");
    EXPECT_EQ(session.host().receive(), R"({"action":"enableWeb","payload":{}})");
    EXPECT_FALSE(hasLogLineStartingWith(session, socketErrorLine)) << session.log();
}

TEST_F(CoreFaultTest, ReconnectsByItselfWhenTheCoreServiceRestartsWithinTheRetryBound) {
    auto first = session.start();
    ASSERT_TRUE(first);
    session.stopCore();
    first->close();
    // The outage itself: the core service stays away for two of the ten seconds of retrying.
    std::this_thread::sleep_for(2s);
    session.startCore();
    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << session.log();
    second->send("kerrow.closeTab-3");
    EXPECT_EQ(session.host().receive(), closeTabFrame(3));
    EXPECT_FALSE(hasLogLineStartingWith(session, socketErrorLine)) << session.log();
}

TEST_F(CoreFaultTest, GivesUpAfterTheRetryBoundWithoutSpinningAndReturnsOnTheNextStart) {
    auto first = session.start();
    ASSERT_TRUE(first);
    const pid_t host = session.host().pid();
    session.stopCore();
    const auto processorBefore = processorTime(host);
    const auto lost = std::chrono::steady_clock::now();
    first->close();

    ASSERT_TRUE(
        waitUntil([&] { return hasLogLineStartingWith(session, socketErrorLine); }, 30'000ms))
        << session.log();
    const auto retried = std::chrono::steady_clock::now() - lost;
    EXPECT_GE(retried, 9s) << "gave up before the retry bound";
    EXPECT_LT(retried, 30s);
    EXPECT_LT(processorTime(host) - processorBefore, 1000ms)
        << "retrying a missing socket used the processor";

    // Meanwhile the browser is still served: a frame is taken and dropped, not queued.
    session.host().send("while away");
    ASSERT_TRUE(waitUntil([&] {
        const auto lines = session.logMessages();
        return std::count(lines.begin(), lines.end(),
                          "info Sending Tab Data to Browser Messaging") == 1;
    })) << session.log();

    // The core service is back and answers with its start notification.
    session.startCore();
    session.postStart();
    auto second = session.core().accept();
    ASSERT_TRUE(second) << session.log();
    EXPECT_EQ(second->receive(), "kerrow.updateDeviceTwin");
    session.host().send("back");
    EXPECT_EQ(second->receive(), "backkerrow.tabList");
    second->send("kerrow.closeTab-4");
    EXPECT_EQ(session.host().receive(), closeTabFrame(4));
}

TEST_F(CoreFaultTest, DropsGarbageAndInvalidUTF8AndStaysInStep) {
    auto connection = session.start();
    ASSERT_TRUE(connection);
    std::mt19937 random(20261122);
    std::vector<std::string> garbage;
    for (int i = 0; i < 200; ++i) {
        std::string bytes(random() % 300, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        garbage.push_back(bytes);
    }
    garbage.insert(garbage.end(),
                   {"", std::string(3, '\0'), "kerrow.closeTab-5\xFF",
                    "kerrow.closeTab-\xC0\xB6",               // an overlong "6"
                    "kerrow.disableInternet\xED\xA0\x80",     // a surrogate
                    "kerrow.enableInternet\xF4\x90\x80\x80",  // above U+10FFFF
                    "kerrow.closeTab-99999999999999999999", "kerrow.closeTab--",
                    "kerrow.websiteList{not json", "kerrow.websiteList" + std::string(100'000, '['),
                    R"(kerrow.websiteList{"name":1,"websites":[],"listType":0})"});
    for (const auto& message : garbage) {
        connection->send(message);
    }
    connection->send("kerrow.closeTab-7");
    EXPECT_EQ(session.host().receive(), closeTabFrame(7)) << session.log();
    EXPECT_FALSE(session.core().accept(200ms)) << "garbage ended the connection";
    EXPECT_TRUE(session.host().running());
}

TEST_F(CoreFaultTest, TakesAHeaderAtTheLimitWithoutReservingItsSize) {
    auto first = session.start();
    ASSERT_TRUE(first);
    const pid_t host = session.host().pid();
    const auto peakBefore = peakResidentKilobytes(host);
    first->sendRaw(lengthPrefix(64 * 1024 * 1024) + "kerrow.closeTab-8");
    first->close();
    auto second = session.core().accept(12'000ms);
    ASSERT_TRUE(second) << "a header at the limit is no error\n" << session.log();
    EXPECT_LT(peakResidentKilobytes(host) - peakBefore, 32 * 1024)
        << "memory was reserved for the announced 64 MiB";
    EXPECT_FALSE(session.host().receive(200ms)) << "an incomplete frame was delivered";
}

TEST_F(CoreFaultTest, StopsReadingAtAHeaderOverTheLimitAndKeepsServingTheBrowser) {
    auto connection = session.start();
    ASSERT_TRUE(connection);
    connection->sendRaw(frame("kerrow.closeTab-9") + lengthPrefix(64 * 1024 * 1024 + 1));
    EXPECT_EQ(session.host().receive(), closeTabFrame(9));
    ASSERT_TRUE(waitUntil([&] { return hasLogLineStartingWith(session, socketErrorLine); }))
        << session.log();
    EXPECT_TRUE(connection->waitForClose());
    session.host().send("still served");
    session.host().closeInput();
    EXPECT_EQ(session.host().waitForExit(), 0);
}

TEST_F(CoreFaultTest, DeliversThousandsOfCommandsSentInOneBurstInOrder) {
    auto connection = session.start();
    ASSERT_TRUE(connection);
    constexpr int count = 5000;
    std::string burst;
    std::vector<std::string> expected;
    for (int i = 0; i < count; ++i) {
        if (i % 2 == 0) {
            burst += frame("kerrow.closeTab-" + std::to_string(i));
            expected.push_back(closeTabFrame(i));
        } else {
            burst += frame("kerrow.disableInternet" + std::to_string(i));
            expected.push_back(R"({"action":"disableWeb","payload":")" + std::to_string(i) + "\"}");
        }
    }
    FrameCollector output(session.host().outputFd(), count, 20'000ms);
    connection->sendRaw(burst);  // one write; the host reads it while it writes standard output
    ASSERT_TRUE(output.wait(240'000ms));
    ASSERT_EQ(output.frames().size(), expected.size()) << session.log();
    const auto mismatch = std::mismatch(expected.begin(), expected.end(), output.frames().begin());
    EXPECT_TRUE(mismatch.first == expected.end())
        << "frame " << (mismatch.first - expected.begin()) << ": " << *mismatch.second;
}

}  // namespace
}  // namespace kerrow::test
