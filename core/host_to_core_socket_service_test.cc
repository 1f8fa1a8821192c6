#include "core/host_to_core_socket_service.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

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
        channel = newChannel();
        auto [wired, accepted] = wire(channel);
        service = wired;
        connection.emplace(std::move(accepted));
    }

    std::shared_ptr<BrowserExtensionIO> newChannel() {
        return std::make_shared<BrowserExtensionIO>(
            std::make_shared<FileHandle>(::dup(input.readEnd.get())),
            std::make_shared<FileHandle>(::dup(output.writeEnd.get())));
    }

    // A service wired to `to` and to a new connection, and the core service's side of that.
    std::pair<std::shared_ptr<HostToCoreSocketService>, test::CoreConnection> wire(
        std::shared_ptr<BrowserExtensionIO> to) {
        auto wired = std::make_shared<HostToCoreSocketService>();
        wired->browserConnection = std::move(to);
        wired->socketHelper = std::make_shared<SocketHelper>(SocketType::browser,
                                                             SocketHelper::browserSocketLocation());
        wired->socketHelper->setupSocket();
        auto accepted = core->accept();
        wired->socketHelper->setReaderDelegate(wired);
        return {wired, std::move(accepted.value())};
    }

    void TearDown() override { service->retire(); }

    std::vector<std::string> logLines() {
        Logger::flushAll();
        return test::logMessages(directory.path() / "state" / "kerrow" /
                                 "native-messaging-host.log");
    }

    // True once `times` lines are `line`, or start with it when it ends in ": ".
    bool logShows(const std::string& line, int times = 1, test::Duration timeout = 5000ms) {
        return test::waitUntil(
            [&] {
                return std::ranges::count_if(logLines(), [&](const auto& logged) {
                           return line.ends_with(": ") ? logged.starts_with(line) : logged == line;
                       }) >= times;
            },
            timeout);
    }

    std::optional<std::string> nextFrame() { return test::readFrameFrom(output.readEnd.get()); }

    test::TemporaryDirectory directory;
    test::ScopedEnvironmentVariable runtime{"XDG_RUNTIME_DIR", (directory.path() / "run").string()};
    test::ScopedEnvironmentVariable state{"XDG_STATE_HOME", (directory.path() / "state").string()};
    std::optional<test::TestCoreService> core{std::in_place,
                                              directory.path() / "run" / "kerrow" / "browser.sock"};
    test::Pipe input;
    test::Pipe output;
    std::shared_ptr<BrowserExtensionIO> channel;
    std::optional<test::CoreConnection> connection;
    std::shared_ptr<HostToCoreSocketService> service;
};

std::string closeTab(int id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}

// What the core service sends, the frame the extension gets ("": none) and the lines logged (the
// channel's lines of the frames it writes aside: its own tests prove them).
struct Routing {
    std::string incoming;
    std::string frame;
    std::vector<std::string> logged;
};

TEST_F(ServiceTest, RoutesByTheFirstKeywordInRoutingOrderAndDropsTheRest) {
    const std::string enableWeb = R"({"action":"enableWeb","payload":{}})";
    const std::vector<Routing> cases{
        {"kerrow.closeTab-42", closeTab(42), {"Received Close Tab ID: -42"}},
        {"kerrow.disableInternetTime for bed",
         R"({"action":"disableWeb","payload":"Time for bed"})",
         {"Received Disable Internet: Time for bed"}},
        {"kerrow.enableInternet and whatever follows", enableWeb, {"Received Enable Internet"}},
        {R"(kerrow.websiteList{"name":"n","websites":["a.example"],"listType":1})",
         R"({"action":"setBlacklist","payload":{"blacklist":["a.example"]}})",
         {"Received Website list"}},
        // closeTab goes before disableInternet wherever they stand, and every occurrence goes.
        {"kerrow.disableInternetkerrow.closeTab-7",
         closeTab(7),
         {"Received Close Tab ID: kerrow.disableInternet-7"}},
        {"kerrow.closeTab-1kerrow.closeTab-9", closeTab(9), {"Received Close Tab ID: -1-9"}},
        {"tab-kerrow.closeTab-12-", closeTab(12), {"Received Close Tab ID: tab--12-"}},
        {"kerrow.CLOSETAB-1", "", {}},
        {"\xff\xfekerrow.enableInternet"s, "", {}},
        {"kerrow.closeTab-", "", {"Received Close Tab ID: -"}},
        {"kerrow.closeTab-x1", "", {"Received Close Tab ID: -x1", "Could not cast to Int: x1"}},
        {"kerrow.websiteList", "", {"Received Website list"}},
        {"kerrow.enableInternet", enableWeb, {"Received Enable Internet"}},
    };
    const auto idle = std::make_shared<HostToCoreSocketService>();
    idle->setup();  // without an endpoint: starts nothing, logs nothing
    service->setup();
    std::vector<std::string> expected{"info Established a Connection in host-to-core service"};
    for (const auto& routing : cases) {
        connection->send(routing.incoming);
        for (const auto& line : routing.logged) {
            expected.push_back("info " + line);
        }
    }
    for (const auto& routing : cases) {
        if (!routing.frame.empty()) {
            EXPECT_EQ(nextFrame(), routing.frame) << routing.incoming;
        }
    }
    ASSERT_TRUE(logShows("info Enabling Internet: " + enableWeb, 2));
    std::vector<std::string> lines = logLines();
    std::erase_if(lines, [](const auto& line) { return line.ends_with("}"); });
    EXPECT_EQ(lines, expected);
}

// A service retired while it waits for the socket to come back stops quietly: that is no error.
TEST_F(ServiceTest, ARetirementDuringAReconnectIsNoError) {
    core.reset();
    auto other = std::make_shared<HostToCoreSocketService>();
    other->socketHelper = std::make_shared<SocketHelper>(SocketType::browser, "");
    other->setup();
    ASSERT_TRUE(logShows("info Established a Connection in host-to-core service"));
    other->retire();
    EXPECT_FALSE(logShows("error Error with socket in host-to-core service: ", 1, 500ms));
}

// A repeated start while the browser reads nothing: everything the retired service read reaches
// the extension, however long the browser takes, and before anything of its successor. The end
// of the retired connection leads to no reconnect.
TEST_F(ServiceTest, ARetiredServiceDeliversAllItReadBeforeItsSuccessorWritesAnything) {
    service->setup();
    const std::string large(256 * 1024, 'd');  // fills the pipe: the writer blocks
    connection->send("kerrow.disableInternet" + large);
    ASSERT_TRUE(logShows("info Disabling Internet: "));  // being written
    connection->send("kerrow.closeTab-1");               // not read yet when the retirement comes

    auto successor = newChannel();
    successor->follow(*channel);
    auto [next, newConnection] = wire(successor);
    service->retire();
    next->setup();
    newConnection.send("kerrow.closeTab-2");
    ASSERT_TRUE(logShows("info Received Close Tab ID: -2"));
    std::this_thread::sleep_for(HostToCoreSocketService::retirementGrace + 500ms);

    EXPECT_EQ(nextFrame(), R"({"action":"disableWeb","payload":")" + large + "\"}");
    EXPECT_EQ(nextFrame(), closeTab(1));
    EXPECT_EQ(nextFrame(), closeTab(2));
    connection->close();
    EXPECT_FALSE(core->accept(300ms));
    next->retire();
}

}  // namespace
}  // namespace kerrow
