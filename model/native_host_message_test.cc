#include "model/native_host_message.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace kerrow {
namespace {

using Payload = NativeHostMessagePayload;
using Type = NativeHostMessageType;

// One message of every type, in the exact form the extension receives, and read back.
TEST(NativeHostMessageCoding, WritesEveryTypeTagByteForByteAndReadsItBack) {
    const LoginEntry entry{std::chrono::sys_seconds{std::chrono::seconds{1714550400}},
                           LoginEntry::Action::login, "alice", "console"};
    const std::vector<std::pair<std::string_view, NativeHostMessage>> forms{
        {R"({"action":"sendLoginHistory","payload":{"username":"alice"}})",
         {Type::sendLoginHistory, Payload::sendLoginHistory("alice")}},
        {R"({"action":"loginHistory","payload":{"history":[{"date":"2024-05-01T08:00:00Z",)"
         R"("action":"login","username":"alice","line":"console"}]}})",
         {Type::loginHistory, Payload::loginHistory({entry})}},
        {R"({"action":"sendVideo","payload":{"callee":"bob","video":{"resolution":)"
         R"({"width":0,"height":-1},"framerate":-9223372036854775808}}})",
         {Type::sendVideo,
          Payload::sendVideo("bob", VideoOptions{{0, -1}, -9223372036854775807 - 1})}},
        {R"({"action":"sendConfig","payload":{}})", {Type::sendConfig, Payload::empty()}},
        {R"({"action":"config","payload":{"config":{"address":"ws:\/\/10.0.0.2:8080\/",)"
         R"("api":"https:\/\/api.example"}}})",
         {Type::config, Payload::config(Config{"ws://10.0.0.2:8080/", "https://api.example"})}},
        {R"({"action":"setBlacklist","payload":{"blacklist":["site-a","site-b"]}})",
         {Type::setBlacklist, Payload::setBlacklist({"site-a", "site-b"})}},
        {R"({"action":"setWhitelist","payload":{"whitelist":[]}})",
         {Type::setWhitelist, Payload::setWhitelist({})}},
        {R"({"action":"setWhitelist","payload":{"whitelist":["a.example","","a.example"]}})",
         {Type::setWhitelist, Payload::setWhitelist({"a.example", "", "a.example"})}},
        {R"({"action":"closeTab","payload":{"id":-9223372036854775808}})",
         {Type::closeTab, Payload::closeTab(-9223372036854775807 - 1)}},
        {R"({"action":"disableWeb","payload":{}})", {Type::disableWeb, Payload::empty()}},
        {R"({"action":"enableWeb","payload":{}})", {Type::enableWeb, Payload::empty()}},
    };
    for (const auto& [json, message] : forms) {
        EXPECT_EQ(message.toJSONString(), json);
        EXPECT_EQ(NativeHostMessage::fromJSONString(json), message) << json;
    }
}

TEST(NativeHostMessageCoding, ReadsLenientlyWhereTheFormAllows) {
    const struct {
        std::string_view json;
        NativeHostMessage expected;
    } cases[] = {
        {R"({"action":"enableWeb"})", {Type::enableWeb, Payload::empty()}},
        {R"({"action":"sendConfig","payload":42})", {Type::sendConfig, Payload::empty()}},
        {R"({"action":"disableWeb","payload":null})", {Type::disableWeb, Payload::empty()}},
        {R"({"payload":{"id":7,"extra":"x"},"action":"closeTab","type":"enableWeb"})",
         {Type::closeTab, Payload::closeTab(7)}},
        {" {\n \"action\" : \"setWhitelist\" , \"payload\" : { \"whitelist\" : [ ] } } ",
         {Type::setWhitelist, Payload::setWhitelist({})}},
        {R"({"action":"setBlacklist","payload":{"blacklist":["\u00e9\/"]}})",
         {Type::setBlacklist, Payload::setBlacklist({"\xc3\xa9/"})}},
    };
    for (const auto& [json, expected] : cases) {
        EXPECT_EQ(NativeHostMessage::fromJSONString(json), expected) << json;
    }
}

TEST(NativeHostMessageCoding, RefusesIncompleteOrMistypedMessages) {
    for (const std::string_view json : {
             R"({"type":"closeTab","payload":{"id":1}})",
             R"({"action":"CloseTab","payload":{"id":1}})",
             R"({"action":" closeTab","payload":{"id":1}})",
             R"({"action":7,"payload":{}})",
             R"({"action":"closeTab"})",
             R"({"action":"closeTab","payload":null})",
             R"({"action":"closeTab","payload":{}})",
             R"({"action":"closeTab","payload":[{"id":1}]})",
             R"({"action":"closeTab","payload":{"id":"42"}})",
             R"({"action":"closeTab","payload":{"id":42.0}})",
             R"({"action":"closeTab","payload":{"id":9223372036854775808}})",
             R"({"action":"closeTab","payload":{"id":-9223372036854775809}})",
             R"({"action":"closeTab","payload":{"id":true}})",
             R"({"action":"setBlacklist","payload":{"blacklist":["site-a",1]}})",
             R"({"action":"setWhitelist","payload":{"whitelist":"site-a"}})",
             R"({"action":"setWhitelist","payload":{"blacklist":[]}})",
             R"({"action":"sendLoginHistory","payload":{}})",
             R"({"action":"loginHistory","payload":{"history":[{}]}})",
             R"({"action":"sendVideo","payload":{"callee":"bob"}})",
             R"({"action":"config","payload":{"config":"x"}})",
             R"({"action":"config","payload":{}})",
             R"(["closeTab",{"id":1}])",
             "",
             R"({"action":"enableWeb"} {})",
             R"(/**/{"action":"enableWeb"})",
             "{\"action\":\"setBlacklist\",\"payload\":{\"blacklist\":[\"\xff\"]}}",
         }) {
        EXPECT_EQ(NativeHostMessage::fromJSONString(json), std::nullopt) << json;
    }
}

TEST(NativeHostMessageCoding, GivesNoTextForTextsThatAreNotUTF8OrDatesItCannotWrite) {
    const LoginEntry farFuture{std::chrono::sys_seconds{std::chrono::seconds{253402300800}},
                               LoginEntry::Action::login, "alice", "console"};
    for (const NativeHostMessage& message : {
             NativeHostMessage{Type::setWhitelist, Payload::setWhitelist({"ok", "bad\xc3"})},
             NativeHostMessage{Type::sendLoginHistory, Payload::sendLoginHistory("\xff")},
             NativeHostMessage{Type::config, Payload::config(Config{"ws://a/", "\xed\xa0\x80"})},
             NativeHostMessage{Type::loginHistory, Payload::loginHistory({farFuture})},
         }) {
        EXPECT_EQ(message.toJSONString(), std::nullopt);
    }
}

std::string nested(int depth) {
    return R"({"action":"enableWeb","extra":)" + std::string(depth - 1, '[') +
           std::string(depth - 1, ']') + "}";
}

TEST(NativeHostMessageCoding, BoundsNestingDepthButIgnoresBracketsInStrings) {
    const int limit = NativeHostMessage::kMaxNestingDepth;
    EXPECT_TRUE(NativeHostMessage::fromJSONString(nested(limit)));
    EXPECT_EQ(NativeHostMessage::fromJSONString(nested(limit + 1)), std::nullopt);
    EXPECT_EQ(NativeHostMessage::fromJSONString(std::string(1'000'000, '[')), std::nullopt);
    const std::string bracketsInText = R"({"action":"enableWeb","extra":")" +
                                       std::string(2 * static_cast<std::size_t>(limit), '[') +
                                       R"(\"{"})";
    EXPECT_TRUE(NativeHostMessage::fromJSONString(bracketsInText));
}

}  // namespace
}  // namespace kerrow
