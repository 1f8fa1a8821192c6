#include <gtest/gtest.h>
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

    // Every frame written so far, as bodies.
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

TEST_F(CommandTest, TakesAPlusSignedIdAndWritesEachKindOfWebsiteList) {
    channel->closeTab("+5");
    channel->setWebsiteList(
        dataFromText(R"({"name":"S","websites":["c.example","a.example"],"listType":0})"));
    // A list of neither kind clears allow, then block.
    channel->setWebsiteList(dataFromText(R"({"name":"N","websites":["x"],"listType":2})"));
    const std::vector<std::string> written = {
        R"({"action":"closeTab","payload":{"id":5}})",
        R"({"action":"setWhitelist","payload":{"whitelist":["c.example","a.example"]}})",
        R"({"action":"setWhitelist","payload":{"whitelist":[]}})",
        R"({"action":"setBlacklist","payload":{"blacklist":[]}})"};
    EXPECT_EQ(frames(), written);
    EXPECT_EQ(logLines(),
              (std::vector<std::string>{
                  "info Closing Tab: " + written[0], "info Setting Website List: " + written[1],
                  "info Clearing Allow Website Lists", "info Clearing Block Website Lists"}));
}

TEST_F(CommandTest, CloseTabRefusesAnythingButAStrictDecimalInt64) {
    const std::vector<std::string> refused = {"",
                                              " 42",
                                              "42 ",
                                              "42a",
                                              "+",
                                              "+-5",
                                              "0x2A",
                                              "9223372036854775808",
                                              "-9223372036854775809",
                                              "\xd9\xa4",
                                              "4.2"};
    for (const auto& id : refused) {
        channel->closeTab(id);
    }
    channel->closeTab("9223372036854775807");
    channel->closeTab("-9223372036854775808");
    EXPECT_EQ(frames(), (std::vector<std::string>{
                            R"({"action":"closeTab","payload":{"id":9223372036854775807}})",
                            R"({"action":"closeTab","payload":{"id":-9223372036854775808}})"}));
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), refused.size() + 2);
    for (std::size_t index = 0; index < refused.size(); ++index) {
        EXPECT_EQ(lines[index], "info Could not cast to Int: " + refused[index]);
    }
}

TEST_F(CommandTest, UndecodableListsAndInvalidTextsWriteAndLogNothing) {
    channel->setWebsiteList(dataFromText("not json"));
    channel->disableInternet("\xc3");
    channel->enableInternet();  // the channel goes on as before
    EXPECT_EQ(frames(), (std::vector<std::string>{R"({"action":"enableWeb","payload":{}})"}));
    EXPECT_EQ(logLines().size(), 1u);
}

// Also among messages held to go out together: the others go, in order.
TEST_F(CommandTest, AMessageOverTheBrowsersLimitIsDroppedAndLoggedAndLaterOnesGoThrough) {
    // The last guard before standard output, whatever built the message.
    const std::string list = R"({"action":"setBlacklist","payload":{"blacklist":[")" +
                             std::string(maximumMessageLength, 'a') + "\"]}}";
    channel->holdMessages();
    channel->closeTab("6");
    channel->writeMessage(list);
    channel->closeTab("7");
    channel->writeHeldMessages();
    EXPECT_EQ(frames(), (std::vector<std::string>{R"({"action":"closeTab","payload":{"id":6}})",
                                                  R"({"action":"closeTab","payload":{"id":7}})"}));
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "error Dropped a message for the extension: setBlacklist of " +
                            std::to_string(list.size()) + " bytes exceeds the 1048576-byte limit");
}

// A message of exactly the browser's 1 MiB goes out; a command whose message would be longer is
// dropped with one error line before it is expanded, and the channel goes on.
TEST_F(CommandTest, RefusesCommandsWhoseMessageWouldPassTheBrowsersLimit) {
    const std::string prefix = R"({"action":"setWhitelist","payload":{"whitelist":[")";
    const std::size_t fitting = 1024 * 1024 - prefix.size() - std::string(R"("]}})").size();
    const auto list = [](std::size_t length) {
        return dataFromText(R"({"name":"n","websites":[")" + std::string(length, 'w') +
                            R"("],"listType":0})");
    };
    const std::size_t disableFitting =
        1024 * 1024 - std::string(R"({"action":"disableWeb","payload":""})").size();
    std::vector<std::string> written;
    {
        std::jthread commands([&] {
            channel->setWebsiteList(list(fitting));
            channel->setWebsiteList(list(fitting + 1));
            channel->disableInternet(std::string(disableFitting, 'd'));
            channel->disableInternet(std::string(disableFitting + 1, 'd'));
            channel->enableInternet();
        });
        // Read until the last, however slowly the large ones come: the writer blocks meanwhile.
        while (auto body = test::readFrameFrom(output.readEnd.get(), 30s)) {
            written.push_back(std::move(*body));
            if (written.back() == R"({"action":"enableWeb","payload":{}})") {
                break;
            }
        }
    }
    ASSERT_EQ(written.size(), 3u);
    EXPECT_EQ(written[0].size(), 1024u * 1024);
    EXPECT_EQ(written[1].size(), 1024u * 1024);
    EXPECT_EQ(written[2], R"({"action":"enableWeb","payload":{}})");
    const auto lines = logLines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[1], "error Not Setting Website List: a list of " +
                            std::to_string(list(fitting + 1).size()) +
                            " bytes would give a message over the browser's limit of 1048576 "
                            "bytes");
    EXPECT_EQ(lines[3], "error Not Disabling Internet: a payload of " +
                            std::to_string(disableFitting + 1) +
                            " bytes would give a message over the browser's limit of 1048576 "
                            "bytes");
}

TEST_F(CommandTest, FramesFromSeveralThreadsNeverInterleave) {
    // Two channels on one output handle, as after a repeated start, writing at once.
    auto second = std::make_shared<BrowserExtensionIO>(
        std::make_shared<FileHandle>(::dup(input.readEnd.get())), outputHandle);
    constexpr int each = 300;
    std::vector<std::string> bodies;
    std::thread reader([&] {
        std::optional<std::string> body;
        while (bodies.size() < 2 * each &&
               (body = test::readFrameFrom(output.readEnd.get(), 5000ms))) {
            bodies.push_back(std::move(*body));
        }
    });
    std::thread one([&] {
        for (int index = 0; index < each; ++index) {
            channel->disableInternet(std::string(5000, 'a'));
        }
    });
    for (int index = 0; index < each; ++index) {
        second->closeTab(std::to_string(index));
    }
    one.join();
    reader.join();
    ASSERT_EQ(bodies.size(), 2u * each);
    const std::string disable =
        R"({"action":"disableWeb","payload":")" + std::string(5000, 'a') + "\"}";
    int closes = 0;
    for (const auto& body : bodies) {
        EXPECT_TRUE(body == disable || body == R"({"action":"closeTab","payload":{"id":)" +
                                                   std::to_string(closes++) + "}}");
    }
}

}  // namespace
}  // namespace kerrow
