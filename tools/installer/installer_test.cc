// The installer binary run as a user would run it, against a temporary home.
#include "tools/installer/installer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/host_process.h"
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

mode_t modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

class InstallerTest : public ::testing::Test {
  protected:
    InstallerTest() : home_(directory_.path() / "home"), host_(directory_.path() / "host") {
        fs::create_directories(home_);
        std::ofstream(host_) << "#!/bin/sh\n";
        ::chmod(host_.c_str(), 0755);
    }

    Outcome install(std::vector<std::string> arguments,
                    const std::map<std::string, std::string>& extraEnvironment = {}) {
        std::map<std::string, std::string> environment{{"HOME", home_.string()},
                                                       {"PATH", "/usr/bin:/bin"}};
        for (const auto& [name, value] : extraEnvironment) {
            environment[name] = value;
        }
        const fs::path errorFile = directory_.path() / "stderr";
        fs::remove(errorFile);
        test::HostProcess process(KERROW_INSTALLER_BINARY, arguments, environment, errorFile);
        process.closeInput();
        Outcome outcome;
        outcome.out = process.receiveRest();
        outcome.status = process.waitForExit();
        outcome.err = test::readFile(errorFile);
        return outcome;
    }

    [[nodiscard]] std::vector<std::string> withIds(std::vector<std::string> arguments) const {
        for (const auto id : {chromeId, firefoxId}) {
            arguments.insert(arguments.end(), {"--extension-id", std::string(id)});
        }
        arguments.insert(arguments.end(), {"--host", host_.string()});
        return arguments;
    }

    test::TemporaryDirectory directory_;
    fs::path home_;
    fs::path host_;
};

TEST_F(InstallerTest, WritesChecksAndRemovesForTheBrowsersInUse) {
    fs::create_directories(home_ / ".config/chromium");
    fs::create_directories(home_ / ".mozilla");
    const fs::path chromium = home_ / ".config/chromium/NativeMessagingHosts" / manifestName;
    const fs::path firefox = home_ / ".mozilla/native-messaging-hosts" / manifestName;

    const auto written = install(withIds({}));
    ASSERT_EQ(written.status, 0) << written.err;
    EXPECT_THAT(written.out, HasSubstr("chromium: wrote " + chromium.string()));
    EXPECT_THAT(written.out, HasSubstr("firefox: wrote " + firefox.string()));
    EXPECT_THAT(written.out, HasSubstr("chrome: skipped"));
    EXPECT_FALSE(fs::exists(home_ / ".config/google-chrome"));
    EXPECT_EQ(modeOf(chromium), 0644);

    const auto chromiumManifest = nlohmann::json::parse(test::readFile(chromium));
    EXPECT_EQ(chromiumManifest["path"], host_.string());
    EXPECT_EQ(chromiumManifest["allowed_origins"],
              nlohmann::json::array({"chrome-extension://" + std::string(chromeId) + "/"}));
    EXPECT_EQ(nlohmann::json::parse(test::readFile(firefox))["allowed_extensions"],
              nlohmann::json::array({firefoxId}));

    const auto checked = install(withIds({"--check"}));
    EXPECT_EQ(checked.status, 0) << checked.err;
    EXPECT_THAT(checked.out, HasSubstr("chromium: ok " + chromium.string()));
    EXPECT_THAT(checked.out, HasSubstr("firefox: ok " + firefox.string()));

    const auto removed = install({"--remove"});
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_THAT(removed.out, HasSubstr("chromium: removed " + chromium.string()));
    EXPECT_FALSE(fs::exists(chromium));
    EXPECT_FALSE(fs::exists(firefox));

    const auto checkedAgain = install({"--check"});
    EXPECT_EQ(checkedAgain.status, 1);
    EXPECT_THAT(checkedAgain.err, HasSubstr("no manifest found"));
}

TEST_F(InstallerTest, NamedBrowserIsWrittenUnderXdgConfigHomeInAPrivateFolder) {
    const fs::path config = directory_.path() / "config";
    const auto written =
        install(withIds({"--browser", "edge"}), {{"XDG_CONFIG_HOME", config.string()}});
    ASSERT_EQ(written.status, 0) << written.err;
    EXPECT_TRUE(fs::exists(config / "microsoft-edge/NativeMessagingHosts" / manifestName));
    EXPECT_EQ(modeOf(config / "microsoft-edge"), 0700);
    EXPECT_FALSE(fs::exists(home_ / ".mozilla"));

    const auto missing = install({"--check", "--browser", "edge", "--browser", "chrome"},
                                 {{"XDG_CONFIG_HOME", config.string()}});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.out, HasSubstr("edge: ok"));
    EXPECT_THAT(missing.err, HasSubstr("chrome: missing " + (config / "google-chrome").string()));
}

TEST_F(InstallerTest, UserDataDirectoryManifestIsReplacedAtomicallyAndChecked) {
    const fs::path profile = directory_.path() / "profile";
    const fs::path folder = profile / "NativeMessagingHosts";
    ASSERT_EQ(install(withIds({"--user-data-dir", profile.string()})).status, 0);
    ASSERT_EQ(install({"--user-data-dir", profile.string(), "--extension-id",
                       std::string(otherChromeId), "--host", host_.string()})
                  .status,
              0);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1)
        << "only the manifest, no temporary file";

    EXPECT_EQ(install({"--check", "--user-data-dir", profile.string(), "--extension-id",
                       std::string(otherChromeId), "--host", host_.string()})
                  .status,
              0);
    const auto stale = install(
        {"--check", "--user-data-dir", profile.string(), "--extension-id", std::string(chromeId)});
    EXPECT_EQ(stale.status, 1);
    EXPECT_THAT(stale.err,
                HasSubstr("allowed extensions are not exactly " + std::string(chromeId)));

    ::chmod(host_.c_str(), 0644);
    const auto broken = install({"--check", "--user-data-dir", profile.string()});
    EXPECT_EQ(broken.status, 1);
    EXPECT_THAT(broken.err, HasSubstr("user data dir: FAILED " + (folder / manifestName).string() +
                                      ": host " + host_.string() + " is not executable"));
}

TEST_F(InstallerTest, RefusesBadCommandLinesWithoutWritingAnything) {
    fs::create_directories(home_ / ".config/chromium");
    const std::string id(chromeId);
    const struct {
        std::vector<std::string> arguments;
        std::string message;
    } cases[] = {
        {{"--extension-id", "kerrow"}, "'kerrow' is neither a Chrome extension id"},
        {{"--extension-id", id + "a"}, "is neither a Chrome extension id"},
        {{"--browser", "opera", "--extension-id", id}, "unknown browser 'opera' (known: chrome,"},
        {{"--host", "bin/host", "--extension-id", id}, "--host must be an absolute path"},
        {{"--host", "/nonexistent/kerrow-host", "--extension-id", id},
         "host binary \"/nonexistent/kerrow-host\" does not exist"},
        {{"--browser", "firefox", "--extension-id", id}, "--browser firefox needs a Firefox"},
        {{"--host", host_.string()}, "give at least one --extension-id"},
        {{"--check", "--remove"}, "--check and --remove exclude each other"},
        {{"--system", "--user-data-dir", "/tmp/p", "--extension-id", id}, "exclude each other"},
        {{"--user-data-dir", "/tmp/p", "--browser", "firefox"}, "Chromium-family profile folder"},
        {{"--browser"}, "--browser needs a value"},
        {{"--system=yes"}, "--system takes no value"},
        {{"--force"}, "unknown argument '--force'"},
    };
    for (const auto& [arguments, message] : cases) {
        const auto outcome = install(arguments);
        EXPECT_EQ(outcome.status, 2) << arguments.front();
        EXPECT_THAT(outcome.err, HasSubstr(message));
    }
    EXPECT_FALSE(fs::exists(home_ / ".config/chromium/NativeMessagingHosts"));

    const auto homeless = install(withIds({}), {{"HOME", "home"}});
    EXPECT_EQ(homeless.status, 2);
    EXPECT_THAT(homeless.err, HasSubstr("HOME is not an absolute path"));
}

TEST_F(InstallerTest, SharedSystemFolderStaysWhenOnlyOneOfItsBrowsersIsRemoved) {
    // Touches nothing: Google Chrome's folder is also read by Chrome and Vivaldi.
    const auto kept = install({"--system", "--browser", "brave", "--remove"});
    EXPECT_EQ(kept.status, 0) << kept.err;
    EXPECT_EQ(kept.out, "brave: kept /etc/opt/chrome/native-messaging-hosts/" +
                            std::string(manifestName) + ", also read by chrome, vivaldi\n");
}

TEST(SelectTargetsTest, SystemScopeHasOneEntryPerFolder) {
    Options options;
    options.scope = Scope::system;
    const auto targets = selectTargets(options, Environment{});
    std::vector<std::string> described;
    for (const auto& target : targets) {
        described.push_back(target.label() + " " + target.directory.string());
    }
    EXPECT_EQ(described, (std::vector<std::string>{
                             "chrome+brave+vivaldi /etc/opt/chrome/native-messaging-hosts",
                             "chromium /etc/chromium/native-messaging-hosts",
                             "edge /etc/opt/edge/native-messaging-hosts",
                             "firefox /usr/lib/mozilla/native-messaging-hosts",
                         }));
}

}  // namespace
}  // namespace kerrow::installer
