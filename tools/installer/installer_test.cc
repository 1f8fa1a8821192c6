// The installer binary run as a user would run it, against a temporary home; and the launcher
// it writes for a Flatpak browser, run through real flatpak-spawn and flatpak-session-helper.
#include "tools/installer/installer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "kit/notification_names.h"
#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow::installer {
namespace {

using ::testing::HasSubstr;
namespace fs = std::filesystem;

constexpr std::string_view chromeId = "pjemfmlmnlcehcppgfmabofnjojcgifc";
constexpr std::string_view otherChromeId = "abcdefghijklmnopabcdefghijklmnop";
constexpr std::string_view firefoxId = "browser-test@kerrowsoftware.com";
constexpr std::string_view manifestName = "com.kerrowsoftware.native_messaging_host.json";

struct Outcome {
    std::optional<int> status;
    std::string out;
    std::string err;
};

// An installer run that ended with `status` and wrote `text` on standard output (Says) or on
// standard error (Complains).
MATCHER_P2(Says, status, text, "") {
    *result_listener << "status " << arg.status.value_or(-1) << ", said:\n" << arg.out << arg.err;
    return arg.status == status && arg.out.find(text) != std::string::npos;
}
MATCHER_P2(Complains, status, text, "") {
    *result_listener << "status " << arg.status.value_or(-1) << ", said:\n" << arg.out << arg.err;
    return arg.status == status && arg.err.find(text) != std::string::npos;
}

std::vector<fs::path> manifestsUnder(const fs::path& root) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.path().filename() == manifestName) {
            found.push_back(entry.path().parent_path().lexically_relative(root));
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

class InstallerTest : public ::testing::Test {
  protected:
    InstallerTest() : home_(directory_.path() / "home"), host_(directory_.path() / "host") {
        fs::create_directories(home_);
        std::ofstream(host_) << "#!/bin/sh\n";
        ::chmod(host_.c_str(), 0755);
    }

    Outcome install(std::vector<std::string> arguments,
                    const test::Environment& extraEnvironment = {}) {
        test::Environment environment = extraEnvironment;
        environment.try_emplace("HOME", home_.string());
        environment.try_emplace("PATH", "/usr/bin:/bin");
        fs::remove(directory_.path() / "stderr");
        test::HostProcess process(KERROW_INSTALLER_BINARY, arguments, environment,
                                  directory_.path() / "stderr");
        process.closeInput();
        auto out = process.receiveRest();
        const auto status = process.waitForExit();
        return {status, std::move(out), process.standardError()};
    }

    [[nodiscard]] std::vector<std::string> withIds(std::vector<std::string> arguments) const {
        arguments.insert(arguments.end(),
                         {"--extension-id", std::string(chromeId), "--extension-id",
                          std::string(firefoxId), "--host", host_.string()});
        return arguments;
    }

    test::TemporaryDirectory directory_;
    fs::path home_;
    fs::path host_;
};

TEST_F(InstallerTest, RegistersEveryBrowserFoundInUseWhereItReadsManifests) {
    // A folder that tells a browser is in use, and the manifest folders written for it; a Flatpak
    // app's manifest names the launcher in the app's folder (the last test runs it). "config/"
    // is $XDG_CONFIG_HOME, "chrome/" $CHROME_CONFIG_HOME (which Brave ignores).
    const std::string tor =
        ".local/share/torbrowser/tbb/x86_64/tor-browser_en-US/Browser/"
        "TorBrowser/Data/Browser";
    const struct {
        std::string inUse;
        std::vector<std::string> manifests;
    } cases[] = {
        {"snap/firefox", {".mozilla/native-messaging-hosts"}},
        {"config/mozilla", {".mozilla/native-messaging-hosts"}},
        {".var/app/org.mozilla.firefox",
         {".mozilla/native-messaging-hosts",
          ".var/app/org.mozilla.firefox/.mozilla/native-messaging-hosts"}},
        {".zen", {".mozilla/native-messaging-hosts"}},
        {".floorp", {".floorp/native-messaging-hosts", ".mozilla/native-messaging-hosts"}},
        {tor, {tor + "/.mozilla/native-messaging-hosts"}},
        {"config/librewolf", {".librewolf/native-messaging-hosts"}},
        {".var/app/io.gitlab.librewolf-community",
         {".var/app/io.gitlab.librewolf-community/.librewolf/native-messaging-hosts"}},
        {".var/app/net.waterfox.waterfox",
         {".var/app/net.waterfox.waterfox/.waterfox/native-messaging-hosts"}},
        {".var/app/io.github.ungoogled_software.ungoogled_chromium",
         {".var/app/io.github.ungoogled_software.ungoogled_chromium/config/chromium/"
          "NativeMessagingHosts"}},
        {".var/app/com.opera.Opera",
         {".var/app/com.opera.Opera/config/opera/NativeMessagingHosts"}},
        {"chrome/google-chrome-canary", {"chrome/google-chrome-canary/NativeMessagingHosts"}},
        {"chrome/thorium", {"chrome/thorium/NativeMessagingHosts"}},
        {"config/microsoft-edge-dev", {"config/microsoft-edge-dev/NativeMessagingHosts"}},
        {"config/BraveSoftware/Brave-Browser-Nightly",
         {"config/BraveSoftware/Brave-Browser-Nightly/NativeMessagingHosts"}},
        {"config/vivaldi-snapshot", {"config/vivaldi-snapshot/NativeMessagingHosts"}},
        {"config/opera", {"config/opera/NativeMessagingHosts"}},
    };
    const auto at = [&](const fs::path& folder) {
        const bool outside = *folder.begin() == "config" || *folder.begin() == "chrome";
        return (outside ? directory_.path() : home_) / folder;
    };
    const test::Environment xdg{{"XDG_CONFIG_HOME", at("config").string()},
                                {"CHROME_CONFIG_HOME", at("chrome").string()}};
    for (const auto& [inUse, manifests] : cases) {
        SCOPED_TRACE(inUse);
        fs::remove_all(home_);
        fs::remove_all(at("config"));
        fs::remove_all(at("chrome"));
        fs::create_directories(at(inUse));
        const auto written = install(withIds({}), xdg);
        ASSERT_EQ(written.status, 0) << written.err;
        EXPECT_EQ(manifestsUnder(directory_.path()).size(), manifests.size());
        const auto doctor = install({"--doctor"}, xdg);
        for (const fs::path folder : manifests) {
            const auto text = test::readFile(at(folder) / manifestName);
            ASSERT_FALSE(text.empty()) << folder;
            EXPECT_THAT(doctor.out, HasSubstr((at(folder) / manifestName).string() + " is sound"));
            const fs::path named = nlohmann::json::parse(text)["path"].get<std::string>();
            if (*folder.begin() != ".var") {
                EXPECT_EQ(named, host_);
                continue;
            }
            const fs::path app = home_ / ".var/app" / *std::next(folder.begin(), 2);
            EXPECT_EQ(named, app / "kerrow/kerrow-native-messaging-host");
            EXPECT_THAT(written.out,
                        HasSubstr("flatpak override --user --talk-name=org.freedesktop.Flatpak " +
                                  std::next(folder.begin(), 2)->string()));
        }
        EXPECT_EQ(install(withIds({"--check"}), xdg).status, 0);
        EXPECT_THAT(install({"--remove"}, xdg), Says(0, ""));
        EXPECT_EQ(install({"--check"}, xdg).status, 1);
    }

    fs::remove_all(home_);
    fs::create_directories(home_ / ".mozilla");  // written for Zen: Firefox is not in use
    EXPECT_THAT(install(withIds({})), Complains(1, "no browser found in use"));
    EXPECT_THAT(install(withIds({"--browser", "tor-browser"})),
                Complains(1, "tor-browser: not registered: no install found at " +
                                 (home_ / ".local/share/torbrowser/tbb/*/*").string()));

    // A browser in use that cannot be registered is reported, and the others still registered.
    for (const auto* inUse : {".mozilla/firefox", ".zen", ".config/chromium", "snap/chromium"}) {
        fs::create_directories(home_ / inUse);
    }
    const auto partial =
        install({"--extension-id", std::string(chromeId), "--host", host_.string()});
    EXPECT_THAT(partial,
                Complains(1, "firefox+zen: not registered: no Firefox family extension id"));
    EXPECT_THAT(partial, Complains(1, "chromium (snap): not registered: the snap of Chromium"));
    EXPECT_TRUE(fs::exists(home_ / ".config/chromium/NativeMessagingHosts" / manifestName));
    EXPECT_EQ(fs::status(home_ / ".config/chromium/NativeMessagingHosts").permissions(),
              fs::perms(0700));
    // A folder shared with another browser in use stays when one of them is removed.
    ASSERT_EQ(install(withIds({})).status, 1);
    EXPECT_THAT(
        install({"--browser", "zen", "--remove"}),
        Says(0, "zen: kept " + (home_ / ".mozilla/native-messaging-hosts" / manifestName).string() +
                    ", also read by firefox"));
}

TEST_F(InstallerTest, UserDataDirectoryManifestIsReplacedAtomicallyAndChecked) {
    const fs::path profile = directory_.path() / "profile";
    const fs::path manifest = profile / "NativeMessagingHosts" / manifestName;
    const auto inProfile = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--user-data-dir", profile.string()});
        return install(arguments);
    };
    ASSERT_EQ(inProfile(withIds({})).status, 0);
    ASSERT_THAT(inProfile({"--extension-id", std::string(otherChromeId), "--host", host_.string()}),
                Says(0, ""));
    EXPECT_EQ(std::distance(fs::directory_iterator(manifest.parent_path()), {}), 1)
        << "only the manifest, no temporary file";

    EXPECT_EQ(inProfile({"--check", "--extension-id", std::string(otherChromeId)}).status, 0);
    EXPECT_THAT(inProfile({"--check", "--extension-id", std::string(chromeId)}),
                Complains(1, "allowed extensions are not exactly " + std::string(chromeId)));

    ::chmod(host_.c_str(), 0644);
    EXPECT_THAT(inProfile({"--check"}),
                Complains(1, "user data dir: FAILED " + manifest.string() + ": host " +
                                 host_.string() + " is not executable"));
}

TEST_F(InstallerTest, RefusesBadCommandLinesWithoutWritingAnything) {
    fs::create_directories(home_ / ".config/chromium");
    const std::string id(chromeId);
    const struct {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{"--extension-id", "kerrow"}, "'kerrow' is neither a Chrome extension id"},
        {{"--browser", "mosaic", "--extension-id", id}, "unknown browser 'mosaic' (known: chrome,"},
        {{"--host", "bin/host", "--extension-id", id}, "--host must be an absolute path"},
        {{"--host", "/nonexistent/kerrow-host", "--extension-id", id},
         "host binary \"/nonexistent/kerrow-host\" does not exist"},
        {{"--browser", "firefox", "--extension-id", id}, "--browser firefox needs a Firefox"},
        {{"--root", "/tmp/stage", "--extension-id", id}, "--root is for --system"},
        {{"--json"}, "--json is for --doctor"},
        {{"--host", host_.string()}, "give at least one --extension-id"},
        {{"--check", "--remove"}, "--check, --remove and --doctor exclude"},
        {{"--system", "--user-data-dir", "/tmp/p", "--extension-id", id}, "exclude each other"},
        {{"--user-data-dir", "/tmp/p", "--browser", "firefox"}, "Chromium-family profile folder"},
        {{"--browser"}, "--browser needs a value"},
        {{"--system=yes"}, "--system takes no value"},
        {{"--force"}, "unknown argument '--force'"},
    };
    for (const auto& [arguments, message] : cases) {
        EXPECT_THAT(install(arguments), Complains(2, message)) << arguments.front();
    }
    EXPECT_FALSE(fs::exists(home_ / ".config/chromium/NativeMessagingHosts"));

    EXPECT_THAT(install(withIds({}), {{"HOME", "home"}}),
                Complains(2, "HOME is not an absolute path"));
}

TEST_F(InstallerTest, SystemScopeWritesEachFolderOnceUnderAStagingRoot) {
    const fs::path root = directory_.path() / "stage";
    fs::create_directories(root / "usr/lib64");  // as on Fedora and openSUSE
    ASSERT_THAT(install(withIds({"--system", "--root", root.string()})), Says(0, ""));
    const auto folders = manifestsUnder(root);
    for (const auto& folder : folders) {
        EXPECT_EQ(fs::status(root / folder / manifestName).permissions(), fs::perms(0644))
            << folder;
    }
    EXPECT_EQ(folders, (std::vector<fs::path>{
                           "etc/chromium/native-messaging-hosts",
                           "etc/opt/chrome/native-messaging-hosts",
                           "etc/opt/edge/native-messaging-hosts",
                           "usr/lib/librewolf/native-messaging-hosts",
                           "usr/lib/mozilla/native-messaging-hosts",
                           "usr/lib/waterfox/native-messaging-hosts",
                           "usr/lib64/librewolf/native-messaging-hosts",
                           "usr/lib64/mozilla/native-messaging-hosts",
                           "usr/lib64/waterfox/native-messaging-hosts",
                       }));
    // Vivaldi reads Chromium's folder, which stays while another of its readers is not named.
    EXPECT_THAT(install({"--system", "--root", root.string(), "--browser", "vivaldi", "--remove"}),
                Says(0, "vivaldi: kept " +
                            (root / "etc/chromium/native-messaging-hosts" / manifestName).string() +
                            ", also read by chromium, thorium,"));
}

TEST_F(InstallerTest, DoctorNamesEachBrokenLinkAndPassesASoundChain) {
    const test::TemporaryDirectory runtimeDirectory;  // mode 0700
    const fs::path runtime = runtimeDirectory.path();
    test::PrivateBus bus;
    test::TestCoreService core(runtime / "kerrow/browser.sock");
    fs::create_directories(home_ / ".config/chromium");
    ASSERT_EQ(install(withIds({})).status, 0);
    test::Environment environment{{"XDG_RUNTIME_DIR", runtime.string()},
                                  {"DBUS_SESSION_BUS_ADDRESS", bus.address()}};

    const auto sound = install({"--doctor", "--extension-id", std::string(chromeId)}, environment);
    EXPECT_THAT(sound, Says(0, "ok       session bus: reachable"));
    EXPECT_THAT(sound, Says(0, "trusted, and the core service listens"));
    EXPECT_THAT(sound, Says(0, "ok       confinement: "));  // information, never a problem

    fs::remove(host_);
    ::chmod((runtime / "kerrow").c_str(), 0777);
    environment["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (runtime / "nobus").string();
    const auto broken = install({"--doctor"}, environment);
    EXPECT_THAT(
        broken,
        Says(1, "PROBLEM  chromium: manifest " +
                    (home_ / ".config/chromium/NativeMessagingHosts" / manifestName).string() +
                    ": host " + host_.string() + " does not exist"));
    EXPECT_THAT(broken, Says(1, "PROBLEM  session bus: unreachable"));
    EXPECT_THAT(broken, Says(1, "PROBLEM  core service socket: "));
    EXPECT_THAT(broken, Says(1, "writable by group or others"));

    const auto json = nlohmann::json::parse(install({"--doctor", "--json"}, environment).out);
    EXPECT_EQ(json["ok"], false);
    EXPECT_EQ(json["findings"].size(), 4U);
}

TEST_F(InstallerTest, FlatpakLauncherRelaysBothWaysAndPassesEndOfInputAndSignalsToTheHost) {
    const test::TemporaryDirectory runtimeDirectory;  // mode 0700
    const fs::path runtime = runtimeDirectory.path();
    const fs::path app = home_ / ".var/app/org.chromium.Chromium";
    fs::create_directories(app);
    // The session helper runs the host with the environment the bus started with: ours.
    const test::ScopedEnvironmentVariable runtimeHome("XDG_RUNTIME_DIR", runtime.string());
    const test::ScopedEnvironmentVariable stateHome("XDG_STATE_HOME",
                                                    (directory_.path() / "state").string());
    const test::PrivateBus bus;
    test::BusClient client(bus.address());
    const auto announcement = NotificationName::nativeMessagingHostDidFinishLaunching;
    client.observe(announcement);
    test::TestCoreService core(runtime / "kerrow/browser.sock");
    ASSERT_THAT(
        install({"--extension-id", std::string(otherChromeId), "--host", KERROW_HOST_BINARY}),
        Says(0, ""));

    // Starts the launcher as the browser does; the host's connection, device-twin request read.
    std::optional<test::HostProcess> browser;
    const auto launch = [&](int announcements) {
        browser.emplace(app / "kerrow/kerrow-native-messaging-host",
                        std::vector<std::string>{"chrome-extension://kerrow/"},
                        test::Environment{{"PATH", "/usr/libexec/flatpak-xdg-utils:/usr/bin:/bin"},
                                          {"DBUS_SESSION_BUS_ADDRESS", bus.address()}},
                        directory_.path() / "launcher.err");
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
    EXPECT_EQ(browser->receive(), test::closeTabFrame(42));
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
