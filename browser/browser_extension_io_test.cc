#include "browser/browser_extension_io.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "tests/support/host_process.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::string_literals;
using namespace std::chrono_literals;
using test::frame;

// A channel on pipes, connected to a test core service on a real Unix socket.
class RelayTest : public ::testing::Test {
  protected:
    void SetUp() override {
        socket = std::make_shared<SocketHelper>(SocketType::browser, core.socketPath().string());
        socket->setupSocket();
        auto accepted = core.accept();
        ASSERT_TRUE(accepted);
        connection.emplace(std::move(*accepted));
        channel = newChannel();
    }

    std::shared_ptr<BrowserExtensionIO> newChannel() {
        return std::make_shared<BrowserExtensionIO>(
            inputHandle, std::make_shared<FileHandle>(::dup(output.writeEnd.get())));
    }

    // Retires the channel (closing the pipes must not end the test) and waits for its loop.
    void TearDown() override {
        channel->retire();
        EXPECT_TRUE(test::waitUntil([&] { return inputHandle->readingLock().try_lock(); }));
        inputHandle->readingLock().unlock();
    }

    test::TemporaryDirectory directory;
    test::ScopedEnvironmentVariable state{"XDG_STATE_HOME", (directory.path() / "state").string()};
    test::TestCoreService core{directory.path() / "run" / "kerrow" / "browser.sock"};
    std::shared_ptr<SocketHelper> socket;
    std::optional<test::CoreConnection> connection;
    test::Pipe input;
    test::Pipe output;
    std::shared_ptr<FileHandle> inputHandle =
        std::make_shared<FileHandle>(::dup(input.readEnd.get()));
    std::shared_ptr<BrowserExtensionIO> channel;
};

// Every message goes unparsed with the suffix (an empty one as the suffix alone). A message
// whose send the retirement cut off goes whole, first, on the next connection, and those sent
// whole before it (together, when they were read together) are not sent again.
TEST_F(RelayTest, RetiredChannelStopsAtAFrameBoundaryAndTheNextReadsOn) {
    // The large frame's send blocks (more than the socket holds), and the handle has read the
    // start of the next frame ahead.
    const std::string large(4 * 1024 * 1024, 'x');
    const std::string after = frame("after");
    channel->browserSocket = socket;
    channel->start();
    test::writeAll(input.writeEnd.get(),
                   frame("\xff\xfe\x00 bytes"s) + frame("") + frame(large) + after.substr(0, 6));
    EXPECT_EQ(connection->receive(), "\xff\xfe\x00 byteskerrow.tabList"s);
    EXPECT_EQ(connection->receive(), "kerrow.tabList");
    pollfd sending{connection->fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&sending, 1, 5000), 1);

    // A second endpoint stands for the new connection of a repeated start.
    auto second = std::make_shared<SocketHelper>(SocketType::browser, core.socketPath().string());
    second->setupSocket();
    auto newConnection = core.accept();
    ASSERT_TRUE(newConnection);
    channel->retire();
    socket->retire(100ms);
    auto next = newChannel();
    next->follow(*channel);
    next->browserSocket = second;
    next->start();

    // Each message whole, once, over the new connection, the cut-off one first; the old
    // connection, which got part of it, is closed.
    test::writeAll(input.writeEnd.get(), after.substr(6));
    EXPECT_EQ(newConnection->receive(), large + "kerrow.tabList");
    EXPECT_EQ(newConnection->receive(), "afterkerrow.tabList");
    EXPECT_TRUE(connection->waitForClose());

    // A channel retired while it waits for the lock (two quick starts: the later one took it)
    // gives up waiting and lets go of itself and its endpoint.
    auto late = newChannel();
    late->start();
    std::weak_ptr<BrowserExtensionIO> waiting = late;
    ASSERT_TRUE(test::waitUntil([&] { return waiting.use_count() == 2; }));  // its loop runs
    late->retire();
    late.reset();
    EXPECT_TRUE(test::waitUntil([&] { return waiting.expired(); }));
    channel = next;  // retired by TearDown
}

// Standard input has one reader: a channel reads nothing while another holds the reading lock.
// Its loop retired, the channel's queue ends its thread at once, while the channel lives on.
TEST_F(RelayTest, ReadsOnlyUnderTheReadingLockAndEndsItsThreadWithItsLoop) {
    const auto threads = [] { return test::procFigure(::getpid(), "status", "Threads"); };
    std::unique_lock otherReader(inputHandle->readingLock());
    channel->browserSocket = socket;
    channel->start();
    test::writeAll(input.writeEnd.get(), frame("waited"));
    EXPECT_EQ(connection->receive(200ms), std::nullopt);
    otherReader.unlock();
    EXPECT_EQ(connection->receive(), "waitedkerrow.tabList");
    const auto running = threads();
    channel->retire();
    EXPECT_TRUE(test::waitUntil([&] { return threads() < running; }));
}

}  // namespace
}  // namespace kerrow
