#include <gtest/gtest.h>
#include <utmpx.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "model/config.h"
#include "model/login_entry.h"
#include "model/video_options.h"

namespace kerrow {
namespace {

using std::chrono::seconds;
using std::chrono::sys_seconds;

::utmpx makeRecord(int type, std::string_view user, std::string_view line) {
    ::utmpx record{};
    record.ut_type = static_cast<short>(type);
    record.ut_tv.tv_sec = 1714550400;
    record.ut_tv.tv_usec = 999999;
    std::memcpy(record.ut_user, user.data(), std::min(user.size(), sizeof record.ut_user));
    std::memcpy(record.ut_line, line.data(), std::min(line.size(), sizeof record.ut_line));
    return record;
}

// Logins and process ends only, to the second; fields that fill their array have no terminator,
// and bad UTF-8 is repaired.
TEST(LoginEntryFromUtmpx, TakesLoginsAndProcessEndsAndReadsTheirFieldsSafely) {
    for (const auto& [type, action] : {std::pair{USER_PROCESS, LoginEntry::Action::login},
                                       std::pair{DEAD_PROCESS, LoginEntry::Action::logout}}) {
        const auto entry = LoginEntry::fromUtmpx(makeRecord(type, "alice", "console"));
        ASSERT_TRUE(entry) << type;
        EXPECT_EQ(entry->action, action);
        EXPECT_EQ(entry->date, sys_seconds{seconds{1714550400}});
    }
    for (const int type : {EMPTY, RUN_LVL, BOOT_TIME, INIT_PROCESS, LOGIN_PROCESS}) {
        EXPECT_FALSE(LoginEntry::fromUtmpx(makeRecord(type, "alice", "console"))) << type;
    }
    const std::string fullLine(sizeof(::utmpx::ut_line), 'x');
    const std::string fullUser(sizeof(::utmpx::ut_user), 'u');
    auto entry = LoginEntry::fromUtmpx(makeRecord(DEAD_PROCESS, fullUser, fullLine));
    EXPECT_EQ(entry.value().line, fullLine);
    EXPECT_EQ(entry->username, fullUser);
    entry = LoginEntry::fromUtmpx(
        makeRecord(USER_PROCESS, "al\xffice", std::string("pts/1\0junk", 10)));
    EXPECT_EQ(entry.value().username, "al\xef\xbf\xbdice");
    EXPECT_EQ(entry->line, "pts/1");
}

TEST(LoginEntryCoding, ReadsOnlyCompleteWellTypedEntries) {
    const LoginEntry expected{sys_seconds{seconds{1714550400}}, LoginEntry::Action::logout, "bob",
                              "tty2"};
    EXPECT_EQ(LoginEntry::decode(
                  nlohmann::json::parse(R"({"line":"tty2","username":"bob","action":"logout",)"
                                        R"("date":"2024-05-01T10:00:00+02:00","extra":[1]})")),
              expected);
    for (const std::string_view text : {
             R"({"date":"2024-05-01T08:00:00Z","action":"Login","username":"a","line":"l"})",
             R"({"date":"yesterday","action":"login","username":"a","line":"l"})",
             R"({"date":1714550400,"action":"login","username":"a","line":"l"})",
             R"({"date":"2024-05-01T08:00:00Z","action":"login","username":null,"line":"l"})",
             R"({"date":"2024-05-01T08:00:00Z","action":"login","username":"a"})",
             R"({"action":"login","username":"a","line":"l"})",
             R"(["2024-05-01T08:00:00Z","login","a","l"])",
         }) {
        EXPECT_EQ(LoginEntry::decode(nlohmann::json::parse(text)), std::nullopt) << text;
    }
}

TEST(VideoOptionsCoding, RefusesMissingOrNonIntegerMembers) {
    for (const std::string_view text : {
             R"({"resolution":{"width":1280,"height":720}})",
             R"({"resolution":{"width":1280,"height":720},"framerate":29.97})",
             R"({"resolution":{"width":1280,"height":720},"framerate":"30"})",
             R"({"resolution":{"width":1280,"height":720},"framerate":9223372036854775808})",
             R"({"resolution":{"width":1280},"framerate":30})",
             R"({"resolution":[1280,720],"framerate":30})",
             R"({"framerate":30})",
         }) {
        EXPECT_EQ(VideoOptions::decode(nlohmann::json::parse(text)), std::nullopt) << text;
    }
}

TEST(ConfigCoding, FallsBackToEachDefaultOnItsOwn) {
    const std::string defaultAddress = "ws://localhost:8080/";
    const std::string defaultAPI = "https://api.kerrowsoftware.com";
    const struct {
        std::string_view text;
        Config expected;
    } cases[] = {
        {R"({"address":"ws://localhost:9000/"})", {"ws://localhost:9000/", defaultAPI}},
        {R"({"api":"https://api.example"})", {defaultAddress, "https://api.example"}},
        {R"({})", {defaultAddress, defaultAPI}},
        {R"({"address":null,"api":7})", {defaultAddress, defaultAPI}},
        {R"({"address":"","extra":1})", {"", defaultAPI}},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(Config::decode(nlohmann::json::parse(text)), expected) << text;
    }
    for (const std::string_view text : {R"("x")", "[]", "null", "42"}) {
        EXPECT_EQ(Config::decode(nlohmann::json::parse(text)), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace kerrow
