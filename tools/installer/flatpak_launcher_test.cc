// The launcher that a Flatpak browser starts, run through real flatpak-spawn: Debian's
// flatpak-spawn asks a real flatpak-session-helper, activated on a private session bus, to run
// the real host outside the (here absent) sandbox, with the test's pipes as its standard streams.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "kit/notification_names.h"
#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow::installer {
namespace {

namespace fs = std::filesystem;
const std::string announcement(NotificationName::nativeMessagingHostDidFinishLaunching);

class FlatpakLauncherTest : public ::testing::Test {
  protected:
    FlatpakLauncherTest() {
        // The session helper, which the bus starts on demand, runs the host with the bus's
        // environment: the one of this process when the bus starts.
        fs::create_directories(runtime_);
        ::chmod(runtime_.c_str(), 0700);
        ::setenv("XDG_RUNTIME_DIR", runtime_.c_str(), 1);                      // NOLINT
        ::setenv("XDG_STATE_HOME", (directory_.path() / "state").c_str(), 1);  // NOLINT
        bus_.emplace();
        client_.emplace(bus_->address());
        client_->observe(announcement);
        core_.emplace(runtime_ / "kerrow/browser.sock");

        const fs::path home = directory_.path() / "home";
        fs::create_directories(home / ".var/app/org.chromium.Chromium");
        test::HostProcess installer(
            KERROW_INSTALLER_BINARY,
            {"--extension-id", "abcdefghijklmnopabcdefghijklmnop", "--host", KERROW_HOST_BINARY},
            test::Environment{{"HOME", home.string()}}, directory_.path() / "installer.err");
        installer.closeInput();
        EXPECT_EQ(installer.waitForExit(), 0)
            << test::readFile(directory_.path() / "installer.err");
        const auto manifest =
            nlohmann::json::parse(test::readFile(
                home / ".var/app/org.chromium.Chromium/config/chromium/NativeMessagingHosts/"
                       "com.kerrowsoftware.native_messaging_host.json"));
        launcher_ = manifest["path"].get<std::string>();
    }

    // Starts the launcher as the browser does, waits for the host's announcement, answers it
    // and returns the host's connection, the device-twin request taken off.
    std::optional<test::CoreConnection> launch(int announcements) {
        browser_.emplace(launcher_, std::vector<std::string>{"chrome-extension://kerrow/"},
                         test::Environment{{"PATH", "/usr/libexec/flatpak-xdg-utils:/usr/bin:/bin"},
                                           {"DBUS_SESSION_BUS_ADDRESS", bus_->address()}},
                         directory_.path() / "launcher.err");
        if (!client_->waitForSignal(announcement, test::Duration(10000), announcements)) {
            ADD_FAILURE() << "no announcement: "
                          << test::readFile(directory_.path() / "launcher.err");
            return std::nullopt;
        }
        client_->post(NotificationName::startCoreHostServices);
        auto connection = core_->accept();
        if (connection) {
            EXPECT_EQ(connection->receive(), "kerrow.updateDeviceTwin");
        }
        return connection;
    }

    test::TemporaryDirectory directory_;
    fs::path runtime_ = directory_.path() / "runtime";
    std::optional<test::PrivateBus> bus_;
    std::optional<test::BusClient> client_;
    std::optional<test::TestCoreService> core_;
    fs::path launcher_;
    std::optional<test::HostProcess> browser_;
};

TEST_F(FlatpakLauncherTest, RelaysBothWaysAndPassesEndOfInputAndSignalsToTheHost) {
    auto connection = launch(1);
    ASSERT_TRUE(connection);
    browser_->send(R"({"tabs":[]})");
    EXPECT_EQ(connection->receive(), R"({"tabs":[]}kerrow.tabList)");
    connection->send("kerrow.closeTab-42");
    EXPECT_EQ(browser_->receive(), R"({"action":"closeTab","payload":{"id":42}})");
    browser_->closeInput();
    EXPECT_EQ(browser_->waitForExit(), 0);
    EXPECT_TRUE(connection->waitForClose());

    // SIGTERM to the launcher reaches the host: it ends, though its input stays open.
    auto second = launch(2);
    ASSERT_TRUE(second);
    ASSERT_EQ(::kill(browser_->pid(), SIGTERM), 0);
    EXPECT_TRUE(second->waitForClose());
    EXPECT_EQ(browser_->waitForExit(), 0);
}

}  // namespace
}  // namespace kerrow::installer
