#include "core/host_to_core_socket_service.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// A service wired as the application wires it, to a channel whose standard output is a pipe and
// to a test core service at the browser socket location of a private XDG_RUNTIME_DIR.
class ServiceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ::setenv("XDG_RUNTIME_DIR", (directory.path() / "run").c_str(), 1);
        ::setenv("XDG_STATE_HOME", (directory.path() / "state").c_str(), 1);
        channel = std::make_shared<BrowserExtensionIO>(
            std::make_shared<FileHandle>(::dup(input.readEnd())),
            std::make_shared<FileHandle>(::dup(output.writeEnd())));
        endpoint = std::make_shared<SocketHelper>(SocketType::browser,
                                                  SocketHelper::browserSocketLocation());
        endpoint->setupSocket();
        auto accepted = core.accept();
        ASSERT_TRUE(accepted);
        connection.emplace(std::move(*accepted));
        service = std::make_shared<HostToCoreSocketService>();
        service->browserConnection = channel;
        service->socketHelper = endpoint;
        endpoint->setReaderDelegate(service);
    }

    void TearDown() override { service->retire(); }

    std::vector<std::string> logLines() {
        Logger::flushAll();
        return test::logMessages(directory.path() / "state" / "kerrow" /
                                 "native-messaging-host.log");
    }

    bool logShows(const std::string& line, int times = 1) {
        return test::waitUntil([&] {
            const auto lines = logLines();
            return std::count(lines.begin(), lines.end(), line) >= times;
        });
    }

    std::optional<std::string> nextFrame() { return test::readFrameFrom(output.readEnd()); }

    test::TemporaryDirectory directory;
    test::TestCoreService core{directory.path() / "run" / "kerrow" / "browser.sock"};
    test::Pipe input;
    test::Pipe output;
    std::shared_ptr<BrowserExtensionIO> channel;
    std::shared_ptr<SocketHelper> endpoint;
    std::optional<test::CoreConnection> connection;
    std::shared_ptr<HostToCoreSocketService> service;
};

TEST_F(ServiceTest, RoutesEachCommandToTheChannelWithItsLogLine) {
    service->setup();
    connection->send("kerrow.closeTab-42");
    EXPECT_EQ(nextFrame(), R"({"action":"closeTab","payload":{"id":42}})");
    connection->send("kerrow.disableInternetTime for bed");
    EXPECT_EQ(nextFrame(), R"({"action":"disableWeb","payload":"Time for bed"})");
    connection->send("kerrow.enableInternet and whatever follows");
    EXPECT_EQ(nextFrame(), R"({"action":"enableWeb","payload":{}})");
    connection->send(R"(kerrow.websiteList{"name":"n","websites":["a.example"],"listType":1})");
    EXPECT_EQ(nextFrame(), R"({"action":"setBlacklist","payload":{"blacklist":["a.example"]}})");
    ASSERT_TRUE(logShows(
        R"(info Setting Website List: {"action":"setBlacklist","payload":{"blacklist":["a.example"]}})"));
    const auto lines = logLines();
    const std::vector<std::string> expected = {
        "info Established a Connection in host-to-core service",
        "info Received Close Tab ID: -42",
        R"(info Closing Tab: {"action":"closeTab","payload":{"id":42}})",
        "info Received Disable Internet: Time for bed",
        R"(info Disabling Internet: {"action":"disableWeb","payload":"Time for bed"})",
        "info Received Enable Internet",
        R"(info Enabling Internet: {"action":"enableWeb","payload":{}})",
        "info Received Website list",
        R"(info Setting Website List: {"action":"setBlacklist","payload":{"blacklist":["a.example"]}})"};
    EXPECT_EQ(lines, expected);
}

TEST_F(ServiceTest, FirstKeywordInRoutingOrderWinsAndEveryOccurrenceIsRemoved) {
    service->setup();
    // closeTab before disableInternet, whatever their places in the text.
    connection->send("kerrow.disableInternetkerrow.closeTab-7");
    EXPECT_EQ(nextFrame(), R"({"action":"closeTab","payload":{"id":7}})");
    // Both occurrences go before the id is taken: "-1-9" gives 9.
    connection->send("kerrow.closeTab-1kerrow.closeTab-9");
    EXPECT_EQ(nextFrame(), R"({"action":"closeTab","payload":{"id":9}})");
    connection->send("tab-kerrow.closeTab-12-");
    EXPECT_EQ(nextFrame(), R"({"action":"closeTab","payload":{"id":12}})");
    EXPECT_TRUE(logShows("info Received Close Tab ID: -1-9"));
}

TEST_F(ServiceTest, DropsWhatItCannotRouteAndGoesOn) {
    const auto idle = std::make_shared<HostToCoreSocketService>();
    idle->setup();  // without an endpoint: starts nothing, logs nothing
    service->setup();
    connection->send("kerrow.CLOSETAB-1");               // another letter case
    connection->send("\xff\xfekerrow.enableInternet"s);  // not UTF-8
    connection->send("kerrow.closeTab-");                // no id: logged, nothing sent
    connection->send("kerrow.closeTab-x1");              // not a number: the channel reports it
    connection->send("kerrow.websiteList");              // empty list text: logged, nothing sent
    connection->send("kerrow.enableInternet");
    EXPECT_EQ(nextFrame(), R"({"action":"enableWeb","payload":{}})");
    ASSERT_TRUE(logShows(R"(info Enabling Internet: {"action":"enableWeb","payload":{}})"));
    const std::vector<std::string> expected = {
        "info Established a Connection in host-to-core service",
        "info Received Close Tab ID: -",
        "info Received Close Tab ID: -x1",
        "info Could not cast to Int: x1",
        "info Received Website list",
        "info Received Enable Internet",
        R"(info Enabling Internet: {"action":"enableWeb","payload":{}})"};
    EXPECT_EQ(logLines(), expected);
}

// A repeated start retires the service: commands already on their way still arrive, and neither
// the end of the connection nor a reconnect under way is an error or leads to a reconnect.
TEST_F(ServiceTest, RetiredServiceDeliversWhatIsOnItsWayThenStopsQuietly) {
    service->setup();
    ASSERT_TRUE(logShows("info Established a Connection in host-to-core service"));
    service->retire();
    connection->send("kerrow.enableInternet");
    EXPECT_EQ(nextFrame(), R"({"action":"enableWeb","payload":{}})");
    endpoint->sendData(dataFromText("still sends"));  // the channel's last frame can go out
    EXPECT_EQ(connection->receive(), "still sends");
    connection->close();
    EXPECT_FALSE(core.accept(300ms));

    core.stop();  // a second service retired while it waits for the socket to come back
    auto other = std::make_shared<HostToCoreSocketService>();
    other->socketHelper = std::make_shared<SocketHelper>(SocketType::browser, "");
    other->setup();
    ASSERT_TRUE(logShows("info Established a Connection in host-to-core service", 2));
    other->retire();
    EXPECT_FALSE(test::waitUntil(
        [&] {
            const auto lines = logLines();
            return std::any_of(lines.begin(), lines.end(),
                               [](const auto& line) { return line.rfind("error", 0) == 0; });
        },
        500ms));
}

}  // namespace
}  // namespace kerrow
