#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "browser/browser_extension_io.h"
#include "browser/standard_stream_framing.h"
#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;

// A channel whose standard output is a pipe; its log goes to a private directory.
class CommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        outputHandle = std::make_shared<FileHandle>(output.writeEnd.release());
        channel = std::make_shared<BrowserExtensionIO>(
            std::make_shared<FileHandle>(::dup(input.readEnd.get())), outputHandle);
    }

    std::vector<std::string> frames() {
        std::vector<std::string> bodies;
        while (auto body = test::readFrameFrom(output.readEnd.get(), 100ms)) {
            bodies.push_back(std::move(*body));
        }
        return bodies;
    }

    std::vector<std::string> logLines() {
        Logger::flushAll();
        return test::logMessages(directory.path() / "kerrow" / "native-messaging-host.log");
    }

    test::TemporaryDirectory directory;
    test::ScopedEnvironmentVariable state{"XDG_STATE_HOME", directory.path().string()};
    test::Pipe input;
    test::Pipe output;
    std::shared_ptr<FileHandle> outputHandle;
    std::shared_ptr<BrowserExtensionIO> channel;
};

// A tab id is a strict decimal int64 (a plus sign allowed): anything else is logged, not written.
// An undecodable list and an invalid text write and log nothing. A list of neither kind clears
// allow, then block. The channel goes on after each.
TEST_F(CommandTest, WritesEachCommandAndRefusesWhatItCannotWrite) {
    // clang-format off
    const std::vector<std::string> refused{"", " 42", "42 ", "42a", "+", "+-5", "0x2A", "4.2",
        "\xd9\xa4", "9223372036854775808", "-9223372036854775809"};
    // clang-format on
    for (const auto& id : refused) {
        channel->closeTab(id);
    }
    channel->setWebsiteList(dataFromText("not json"));
    channel->disableInternet("\xc3");
    for (const auto* id : {"+5", "9223372036854775807", "-9223372036854775808"}) {
        channel->closeTab(id);
    }
    channel->setWebsiteList(
        dataFromText(R"({"name":"S","websites":["c.example","a.example"],"listType":0})"));
    channel->setWebsiteList(dataFromText(R"({"name":"N","websites":["x"],"listType":2})"));
    const std::vector<std::string> written = {
        R"({"action":"closeTab","payload":{"id":5}})",
        R"({"action":"closeTab","payload":{"id":9223372036854775807}})",
        R"({"action":"closeTab","payload":{"id":-9223372036854775808}})",
        R"({"action":"setWhitelist","payload":{"whitelist":["c.example","a.example"]}})",
        R"({"action":"setWhitelist","payload":{"whitelist":[]}})",
        R"({"action":"setBlacklist","payload":{"blacklist":[]}})"};
    EXPECT_EQ(frames(), written);
    std::vector<std::string> lines;
    for (const auto& id : refused) {
        lines.push_back("info Could not cast to Int: " + id);
    }
    for (const auto& closing : {written[0], written[1], written[2]}) {
        lines.push_back("info Closing Tab: " + closing);
    }
    lines.insert(lines.end(),
                 {"info Setting Website List: " + written[3], "info Clearing Allow Website Lists",
                  "info Clearing Block Website Lists"});
    EXPECT_EQ(logLines(), lines);
}

// A message of exactly the browser's 1 MiB goes out. A list or text whose message would be longer
// is refused with one error line before it is expanded; any other message over the limit is
// dropped by the last guard before standard output. The channel goes on.
TEST_F(CommandTest, NothingOverTheBrowsersLimitIsWrittenAndLaterMessagesGoThrough) {
    const auto list = [](std::size_t length) {
        return dataFromText(R"({"name":"n","websites":[")" + std::string(length, 'w') +
                            R"("],"listType":0})");
    };
    // The room that the envelopes leave for the one website and for the text.
    const std::size_t listFits =
        maximumMessageLength -
        std::string_view(R"({"action":"setWhitelist","payload":{"whitelist":[""]}})").size();
    const std::size_t textFits =
        maximumMessageLength - std::string_view(R"({"action":"disableWeb","payload":""})").size();
    const std::string blockList = R"({"action":"setBlacklist","payload":{"blacklist":[")" +
                                  std::string(maximumMessageLength, 'a') + "\"]}}";
    const std::string enable = R"({"action":"enableWeb","payload":{}})";
    std::vector<std::size_t> written;
    std::jthread commands([&] {
        channel->setWebsiteList(list(listFits));
        channel->setWebsiteList(list(listFits + 1));
        channel->disableInternet(std::string(textFits, 'd'));
        channel->disableInternet(std::string(textFits + 1, 'd'));
        channel->writeMessage(blockList);
        channel->enableInternet();
    });
    // However slowly the large ones come: the writer blocks meanwhile.
    while (auto body = test::readFrameFrom(output.readEnd.get(), 30s)) {
        written.push_back(body->size());
        if (*body == enable) {
            break;
        }
    }
    EXPECT_EQ(written, (std::vector{maximumMessageLength, maximumMessageLength, enable.size()}));
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 6u);
    const std::string over =
        " bytes would give a message over the browser's limit of 1048576 bytes";
    EXPECT_EQ(lines[1], "error Not Setting Website List: a list of " +
                            std::to_string(list(listFits + 1).size()) + over);
    EXPECT_EQ(lines[3],
              "error Not Disabling Internet: a payload of " + std::to_string(textFits + 1) + over);
    EXPECT_EQ(lines[4], "error Dropped a message for the extension: setBlacklist of " +
                            std::to_string(blockList.size()) +
                            " bytes exceeds the 1048576-byte limit");
}

// The frames of the commands of one delivered read go out together, in one write: a datagram
// socket shows the writes as they were made.
TEST_F(CommandTest, HeldFramesGoOutInOneWriteWhenReleased) {
    std::array<int, 2> pair{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()), 0);
    const Descriptor reader(pair[0]);
    BrowserExtensionIO held(std::make_shared<FileHandle>(::dup(input.readEnd.get())),
                            std::make_shared<FileHandle>(pair[1]));
    held.holdMessages();
    held.closeTab("1");
    held.enableInternet();
    std::string packet(4096, '\0');
    EXPECT_EQ(::recv(reader.get(), packet.data(), packet.size(), MSG_DONTWAIT), -1);
    held.writeHeldMessages();
    packet.resize(std::max<ssize_t>(::recv(reader.get(), packet.data(), packet.size(), 0), 0));
    EXPECT_EQ(packet, test::frame(R"({"action":"closeTab","payload":{"id":1}})") +
                          test::frame(R"({"action":"enableWeb","payload":{}})"));
}

TEST_F(CommandTest, FramesFromSeveralThreadsNeverInterleave) {
    // Two channels on one output handle, as after a repeated start, writing at once; frames
    // longer than a pipe's atomic write.
    auto second = std::make_shared<BrowserExtensionIO>(
        std::make_shared<FileHandle>(::dup(input.readEnd.get())), outputHandle);
    constexpr int each = 300;
    const std::jthread disabling([&] {
        for (int index = 0; index < each; ++index) {
            channel->disableInternet(std::string(5000, 'a'));
        }
    });
    const std::jthread closing([&] {
        for (int index = 0; index < each; ++index) {
            second->closeTab(std::to_string(index));
        }
    });
    const std::string disable =
        R"({"action":"disableWeb","payload":")" + std::string(5000, 'a') + "\"}";
    int closes = 0;
    for (int index = 0; index < 2 * each; ++index) {
        const auto body = test::readFrameFrom(output.readEnd.get());
        ASSERT_TRUE(body == disable || body == R"({"action":"closeTab","payload":{"id":)" +
                                                   std::to_string(closes++) + "}}");
    }
}

}  // namespace
}  // namespace kerrow
