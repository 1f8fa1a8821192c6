// The launcher a Flatpak browser starts, through real flatpak-spawn and flatpak-session-helper
// (activated on a private bus), which run the real host with the test's pipes as its streams.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "kit/notification_names.h"
#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow::installer {
namespace {

namespace fs = std::filesystem;

TEST(FlatpakLauncherTest, RelaysBothWaysAndPassesEndOfInputAndSignalsToTheHost) {
    const test::TemporaryDirectory directory;
    const fs::path runtime = directory.path() / "runtime";
    const fs::path app = directory.path() / "home/.var/app/org.chromium.Chromium";
    fs::create_directories(runtime);
    ::chmod(runtime.c_str(), 0700);
    fs::create_directories(app);
    // The session helper runs the host with the environment the bus started with: ours.
    const test::ScopedEnvironmentVariable runtimeHome("XDG_RUNTIME_DIR", runtime.string());
    const test::ScopedEnvironmentVariable stateHome("XDG_STATE_HOME",
                                                    (directory.path() / "state").string());
    const test::PrivateBus bus;
    test::BusClient client(bus.address());
    const auto announcement = NotificationName::nativeMessagingHostDidFinishLaunching;
    client.observe(announcement);
    test::TestCoreService core(runtime / "kerrow/browser.sock");
    test::HostProcess installer(
        KERROW_INSTALLER_BINARY,
        {"--extension-id", "abcdefghijklmnopabcdefghijklmnop", "--host", KERROW_HOST_BINARY},
        test::Environment{{"HOME", (directory.path() / "home").string()}},
        directory.path() / "installer.err");
    installer.closeInput();
    ASSERT_EQ(installer.waitForExit(), 0) << installer.standardError();

    // Starts the launcher as the browser does; the host's connection, device-twin request read.
    std::optional<test::HostProcess> browser;
    const auto launch = [&](int announcements) {
        browser.emplace(app / "kerrow/kerrow-native-messaging-host",
                        std::vector<std::string>{"chrome-extension://kerrow/"},
                        test::Environment{{"PATH", "/usr/libexec/flatpak-xdg-utils:/usr/bin:/bin"},
                                          {"DBUS_SESSION_BUS_ADDRESS", bus.address()}},
                        directory.path() / "launcher.err");
        EXPECT_TRUE(client.waitForSignal(announcement, test::Duration(10000), announcements))
            << browser->standardError();
        client.post(NotificationName::startCoreHostServices);
        auto connection = core.accept();
        EXPECT_EQ(connection ? connection->receive() : std::nullopt, "kerrow.updateDeviceTwin");
        return connection;
    };

    auto connection = launch(1);
    ASSERT_TRUE(connection);
    browser->send(R"({"tabs":[]})");
    EXPECT_EQ(connection->receive(), R"({"tabs":[]}kerrow.tabList)");
    connection->send("kerrow.closeTab-42");
    EXPECT_EQ(browser->receive(), R"({"action":"closeTab","payload":{"id":42}})");
    browser->closeInput();
    EXPECT_EQ(browser->waitForExit(), 0);
    EXPECT_TRUE(connection->waitForClose());

    // SIGTERM to the launcher reaches the host: it ends, though its input stays open.
    auto second = launch(2);
    ASSERT_TRUE(second);
    ASSERT_EQ(::kill(browser->pid(), SIGTERM), 0);
    EXPECT_TRUE(second->waitForClose());
    EXPECT_EQ(browser->waitForExit(), 0);
}

}  // namespace
}  // namespace kerrow::installer
