#include "tools/installer/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/support/test_support.h"

namespace kerrow::installer {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(ExtensionIdTest, ChromeIdsAreThirtyTwoLettersFromAToP) {
    EXPECT_TRUE(isChromiumExtensionId("pjemfmlmnlcehcppgfmabofnjojcgifc"));
    EXPECT_TRUE(isChromiumExtensionId("aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"));
    EXPECT_FALSE(isChromiumExtensionId("pjemfmlmnlcehcppgfmabofnjojcgif"));    // 31
    EXPECT_FALSE(isChromiumExtensionId("pjemfmlmnlcehcppgfmabofnjojcgifca"));  // 33
    EXPECT_FALSE(isChromiumExtensionId("qjemfmlmnlcehcppgfmabofnjojcgifc"));   // q
    EXPECT_FALSE(isChromiumExtensionId("PJEMFMLMNLCEHCPPGFMABOFNJOJCGIFC"));   // upper case
    EXPECT_FALSE(isChromiumExtensionId("chrome-extension://pjemfmlmnlcehcppgfmabofnjojcgifc/"));
}

TEST(ExtensionIdTest, FirefoxIdsAreEmailLikeOrBracedGuids) {
    EXPECT_TRUE(isFirefoxExtensionId("browser-test@kerrowsoftware.com"));
    EXPECT_TRUE(isFirefoxExtensionId("@kerrow"));
    EXPECT_TRUE(isFirefoxExtensionId("{daf44bf7-a45e-4450-979c-91cf07434c3d}"));
    EXPECT_TRUE(isFirefoxExtensionId("{DAF44BF7-A45E-4450-979C-91CF07434C3D}"));
    EXPECT_FALSE(isFirefoxExtensionId("kerrowsoftware.com"));
    EXPECT_FALSE(isFirefoxExtensionId("kerrow@"));
    EXPECT_FALSE(isFirefoxExtensionId("a@b@c"));
    EXPECT_FALSE(isFirefoxExtensionId("daf44bf7-a45e-4450-979c-91cf07434c3d"));
    EXPECT_FALSE(isFirefoxExtensionId("{daf44bf7-a45e-4450-979c-91cf07434c3g}"));
    EXPECT_FALSE(isFirefoxExtensionId("x\"@kerrow.com"));
    EXPECT_FALSE(isFirefoxExtensionId("x@kerrow.com\n"));
    EXPECT_TRUE(isFirefoxExtensionId(std::string(70, 'a') + "@b.example"));   // 80
    EXPECT_FALSE(isFirefoxExtensionId(std::string(71, 'a') + "@b.example"));  // 81
}

TEST(ManifestTextTest, ChromeFamilyManifestListsOrigins) {
    EXPECT_EQ(
        manifestText(BrowserFamily::chromium, "/usr/lib/kerrow/kerrow-native-messaging-host",
                     {"pjemfmlmnlcehcppgfmabofnjojcgifc", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}),
        R"({
  "name": "com.kerrowsoftware.native_messaging_host",
  "description": "Kerrow native messaging host",
  "path": "/usr/lib/kerrow/kerrow-native-messaging-host",
  "type": "stdio",
  "allowed_origins": [
    "chrome-extension://pjemfmlmnlcehcppgfmabofnjojcgifc/",
    "chrome-extension://aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa/"
  ]
}
)");
}

TEST(ManifestTextTest, FirefoxManifestListsAddOnIdsAndEscapesThePath) {
    const auto text = manifestText(BrowserFamily::firefox, "/opt/a \"b\"\\c/host", {"x@k.example"});
    EXPECT_THAT(text, HasSubstr(R"("path": "/opt/a \"b\"\\c/host",)"));
    EXPECT_THAT(text, HasSubstr(R"("allowed_extensions": [
    "x@k.example"
  ])"));
}

class ManifestProblemsTest : public ::testing::Test {
  protected:
    ManifestProblemsTest() : host_(directory_.path() / "host") {
        std::ofstream(host_) << "#!/bin/sh\n";
        ::chmod(host_.c_str(), 0755);
    }

    // A Chrome-family manifest with the given path and allowed_origins (JSON text).
    [[nodiscard]] std::string chromeManifest(const std::string& path,
                                             const std::string& origins) const {
        return R"({"name":"com.kerrowsoftware.native_messaging_host","type":"stdio","path":")" +
               path + R"(","allowed_origins":)" + origins + "}";
    }

    test::TemporaryDirectory directory_;
    std::filesystem::path host_;
    const std::string origin_ = R"(["chrome-extension://pjemfmlmnlcehcppgfmabofnjojcgifc/"])";
};

TEST_F(ManifestProblemsTest, NamesEveryBrokenMember) {
    const auto problemsOf = [](std::string_view text) {
        return manifestProblems(text, {BrowserFamily::chromium, std::nullopt, {}});
    };
    EXPECT_EQ(problemsOf("{\"name\": "), std::vector<std::string>{"not a JSON object"});
    EXPECT_EQ(problemsOf("[]"), std::vector<std::string>{"not a JSON object"});
    EXPECT_EQ(
        problemsOf(R"({"name":"com.other","type":"stdio","path":")" + host_.string() +
                   R"(","allowed_origins":)" + origin_ + "}"),
        std::vector<std::string>{"name must be \"com.kerrowsoftware.native_messaging_host\""});
    EXPECT_EQ(problemsOf(R"({"name":"com.kerrowsoftware.native_messaging_host","path":")" +
                         host_.string() + R"(","allowed_origins":)" + origin_ + "}"),
              std::vector<std::string>{"type must be \"stdio\""});
    EXPECT_EQ(problemsOf(chromeManifest("bin/host", origin_)),
              std::vector<std::string>{"path \"bin/host\" is not absolute"});
    EXPECT_EQ(problemsOf(chromeManifest(host_.string(), "[]")),
              std::vector<std::string>{"allowed_origins must be a non-empty array"});
    EXPECT_EQ(problemsOf(chromeManifest(host_.string(), R"(["chrome-extension://abc/"])")),
              std::vector<std::string>{"allowed_origins entry \"chrome-extension://abc/\" is not "
                                       "chrome-extension://<32 letters a-p>/"});
}

TEST_F(ManifestProblemsTest, ExpectationsPinPathAndExactIdSet) {
    const std::vector<std::string> ids{"pjemfmlmnlcehcppgfmabofnjojcgifc",
                                       "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"};
    const auto text = manifestText(BrowserFamily::chromium, host_, ids);
    EXPECT_THAT(manifestProblems(text, {BrowserFamily::chromium, host_, {ids[1], ids[0]}}),
                IsEmpty());
    EXPECT_EQ(manifestProblems(text, {BrowserFamily::chromium, host_, {ids[0]}}),
              std::vector<std::string>{
                  "allowed extensions are not exactly pjemfmlmnlcehcppgfmabofnjojcgifc"});
    EXPECT_EQ(
        manifestProblems(text, {BrowserFamily::chromium, "/usr/bin/other", {}}),
        std::vector<std::string>{"path \"" + host_.string() + "\" is not \"/usr/bin/other\""});
    // A Chrome manifest is not a Firefox one: Firefox needs allowed_extensions.
    EXPECT_EQ(manifestProblems(text, {BrowserFamily::firefox, std::nullopt, {}}),
              std::vector<std::string>{"allowed_extensions must be a non-empty array"});
}

}  // namespace
}  // namespace kerrow::installer
