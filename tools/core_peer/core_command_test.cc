#include "tools/core_peer/core_command.h"

#include <gtest/gtest.h>

namespace kerrow::tools {
namespace {

CoreCommand parsed(std::string_view line) {
    auto result = parseCoreCommand(line);
    if (const auto* error = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << line << ": " << *error;
        return {};
    }
    return std::get<CoreCommand>(result);
}

std::string errorOf(std::string_view line) {
    const auto result = parseCoreCommand(line);
    const auto* error = std::get_if<std::string>(&result);
    return error ? *error : "(accepted)";
}

TEST(CoreCommandTest, SendCommandsWriteTheCoreServiceMessages) {
    EXPECT_EQ(parsed("close-tab 42").message, "kerrow.closeTab-42");
    EXPECT_EQ(parsed("web-off Homework time,  ask later ").message,
              "kerrow.disableInternetHomework time,  ask later");
    EXPECT_EQ(parsed("web-off").message, "kerrow.disableInternet");
    EXPECT_EQ(parsed("web-on").message, "kerrow.enableInternet");
    EXPECT_EQ(
        parsed("allow a.example b.example/x").message,
        R"(kerrow.websiteList{"name":"Allowed websites","websites":["a.example","b.example/x"],"listType":0})");
    EXPECT_EQ(
        parsed("block c.example").message,
        R"(kerrow.websiteList{"name":"Blocked websites","websites":["c.example"],"listType":1})");
    EXPECT_EQ(parsed("clear").message,
              R"(kerrow.websiteList{"name":"No list","websites":[],"listType":2})");
    EXPECT_EQ(
        parsed("list 255 d.example").message,
        R"(kerrow.websiteList{"name":"Website list","websites":["d.example"],"listType":255})");
    EXPECT_EQ(parsed(R"(raw kerrow.closeTab-\x34\\2\n)").message, "kerrow.closeTab-4\\2\n");
}

TEST(CoreCommandTest, TargetsAndControlCommands) {
    EXPECT_EQ(parsed("@3 close-tab 1").host, 3u);
    EXPECT_EQ(parsed("@all close-tab 1").host, std::nullopt);
    EXPECT_EQ(parsed("close-tab 1").host, std::nullopt);
    const auto expect = parsed("@2 expect kerrow.tabList");
    EXPECT_EQ(expect.kind, CoreCommand::Kind::expect);
    EXPECT_EQ(expect.host, 2u);
    EXPECT_EQ(expect.message, "kerrow.tabList");
    EXPECT_EQ(parsed("@1 disconnect").kind, CoreCommand::Kind::disconnect);
    EXPECT_EQ(parsed("   ").kind, CoreCommand::Kind::nothing);
    EXPECT_EQ(parsed("# a comment").kind, CoreCommand::Kind::nothing);
    EXPECT_EQ(parsed("wait-hosts 2").count, 2u);
    EXPECT_DOUBLE_EQ(parsed("sleep 0.25").seconds, 0.25);
    EXPECT_EQ(parsed("start").kind, CoreCommand::Kind::start);
    EXPECT_EQ(parsed("quit").kind, CoreCommand::Kind::quit);
}

TEST(CoreCommandTest, BadLinesSayWhatIsWrong) {
    EXPECT_EQ(errorOf("frobnicate 1"), "unknown command 'frobnicate' (type help for the list)");
    EXPECT_EQ(errorOf("close-tab"), "close-tab takes one tab id: close-tab 42");
    EXPECT_EQ(errorOf("close-tab 1 2"), "close-tab takes one tab id: close-tab 42");
    EXPECT_EQ(errorOf("web-on now"), "web-on takes nothing after it");
    EXPECT_EQ(errorOf("list 256 a"), "list needs a listType from 0 to 255 first: list 2 a.example");
    EXPECT_EQ(errorOf(R"(raw \q)"), R"(raw: bad escape (use \\ \n \r \t \0 or \xHH))");
    EXPECT_EQ(errorOf("@0 web-on"), "@ needs a host number or all: @2 close-tab 42");
    EXPECT_EQ(errorOf("@2"), "@2 needs a command after it");
    EXPECT_EQ(errorOf("@2 hosts"), "@2 does not apply to hosts");
    EXPECT_EQ(errorOf("wait-hosts"), "wait-hosts takes one number of hosts: wait-hosts 2");
    EXPECT_EQ(errorOf("sleep soon"), "sleep takes a number of seconds up to 3600: sleep 0.5");
    EXPECT_EQ(errorOf("expect"), "expect needs the text to wait for: expect kerrow.tabList");
    EXPECT_EQ(errorOf("allow \xff.example"), "a site is not UTF-8 text");
}

}  // namespace
}  // namespace kerrow::tools
