#include "tools/installer/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/test_support.h"

namespace kerrow::installer {
namespace {

using ::testing::IsEmpty;

TEST(ExtensionIdTest, ChromeIdsAreThirtyTwoLettersAToPAndFirefoxIdsEmailLikeOrBracedGuids) {
    const struct {
        std::string id;
        bool chrome;
        bool firefox;
    } cases[] = {
        {"pjemfmlmnlcehcppgfmabofnjojcgifc", true, false},
        {"pjemfmlmnlcehcppgfmabofnjojcgif", false, false},    // 31
        {"pjemfmlmnlcehcppgfmabofnjojcgifca", false, false},  // 33
        {"qjemfmlmnlcehcppgfmabofnjojcgifc", false, false},   // q
        {"PJEMFMLMNLCEHCPPGFMABOFNJOJCGIFC", false, false},
        {"browser-test@kerrowsoftware.com", false, true},
        {"@kerrow", false, true},
        {"{daf44bf7-a45e-4450-979c-91cf07434c3d}", false, true},
        {"{DAF44BF7-A45E-4450-979C-91CF07434C3D}", false, true},
        {"kerrowsoftware.com", false, false},
        {"kerrow@", false, false},
        {"a@b@c", false, false},
        {"daf44bf7-a45e-4450-979c-91cf07434c3d", false, false},
        {"{daf44bf7-a45e-4450-979c-91cf07434c3g}", false, false},
        {"x\"@kerrow.com", false, false},
        {"x@kerrow.com\n", false, false},
        {std::string(70, 'a') + "@b.example", false, true},  // 80 characters
        {std::string(71, 'a') + "@b.example", false, false},
    };
    for (const auto& [id, chrome, firefox] : cases) {
        EXPECT_EQ(isChromiumExtensionId(id), chrome) << id;
        EXPECT_EQ(isFirefoxExtensionId(id), firefox) << id;
    }
}

// Read back by the checker that the tests below prove: each family's members, the path exactly
// (escaped in the text), every id allowed.
TEST(ManifestTextTest, WritesAManifestThatTheCheckerFindsSoundForEachFamily) {
    const test::TemporaryDirectory directory;
    const auto path = directory.path() / "a \"b\"\\c";
    std::ofstream(path) << "#!/bin/sh\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    const auto problems = [&](BrowserFamily family, const std::vector<std::string>& ids) {
        return manifestProblems(manifestText(family, path, ids), {family, path, ids});
    };
    EXPECT_THAT(problems(BrowserFamily::chromium,
                         {"pjemfmlmnlcehcppgfmabofnjojcgifc", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"}),
                IsEmpty());
    EXPECT_THAT(problems(BrowserFamily::firefox, {"x@k.example", "y@k.example"}), IsEmpty());
}

TEST(ManifestProblemsTest, NamesEveryBrokenMemberAndEachUnmetExpectation) {
    const std::string host = "/bin/sh";
    const std::string id = "pjemfmlmnlcehcppgfmabofnjojcgifc";
    const std::string other = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
    const std::string origins =
        R"(["chrome-extension://)" + id + R"(/","chrome-extension://)" + other + R"(/"])";
    const auto chrome = [&](const std::string& name, const std::string& type,
                            const std::string& path, const std::string& allowed) {
        return R"({"name":")" + name + R"(",)" + type + R"("path":")" + path +
               R"(","allowed_origins":)" + allowed + "}";
    };
    const std::string name(hostName);
    const std::string stdio = R"("type":"stdio",)";
    const ManifestExpectation any{BrowserFamily::chromium, std::nullopt, {}};
    const struct {
        std::string text;
        ManifestExpectation expected;
        std::vector<std::string> problems;
    } cases[] = {
        {chrome(name, stdio, host, origins), any, {}},
        {"{\"name\": ", any, {"not a JSON object"}},
        {"[]", any, {"not a JSON object"}},
        {chrome("com.other", stdio, host, origins), any, {"name must be \"" + name + "\""}},
        {chrome(name, "", host, origins), any, {"type must be \"stdio\""}},
        {chrome(name, stdio, "bin/host", origins), any, {"path \"bin/host\" is not absolute"}},
        {chrome(name, stdio, host, "[]"), any, {"allowed_origins must be a non-empty array"}},
        {chrome(name, stdio, host, R"(["chrome-extension://abc/"])"),
         any,
         {"allowed_origins entry \"chrome-extension://abc/\" is not "
          "chrome-extension://<32 letters a-p>/"}},
        {chrome(name, stdio, host, origins), {BrowserFamily::chromium, host, {other, id}}, {}},
        {chrome(name, stdio, host, origins),
         {BrowserFamily::chromium, std::nullopt, {id}},
         {"allowed extensions are not exactly " + id}},
        {chrome(name, stdio, host, origins),
         {BrowserFamily::chromium, "/usr/bin/other", {}},
         {"path \"/bin/sh\" is not \"/usr/bin/other\""}},
        // A Chrome manifest is not a Firefox one: Firefox needs allowed_extensions.
        {chrome(name, stdio, host, origins),
         {BrowserFamily::firefox, std::nullopt, {}},
         {"allowed_extensions must be a non-empty array"}},
    };
    for (const auto& [text, expected, problems] : cases) {
        EXPECT_EQ(manifestProblems(text, expected), problems) << text;
    }
}

}  // namespace
}  // namespace kerrow::installer
