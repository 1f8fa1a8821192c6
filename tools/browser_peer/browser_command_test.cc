#include "tools/browser_peer/browser_command.h"

#include <gtest/gtest.h>

#include "tools/browser_peer/json_lines.h"

namespace kerrow::tools {
namespace {

TEST(BrowserCommandTest, JsonLinesAreSentByteForByteAndDirectivesTakeTheRest) {
    const auto command =
        std::get<BrowserCommand>(parseBrowserCommand(R"( {"url":"\/", "n" : 1} )"));
    EXPECT_EQ(command.kind, BrowserCommand::Kind::send);
    EXPECT_EQ(command.body, R"( {"url":"\/", "n" : 1} )");
    EXPECT_EQ(std::get<BrowserCommand>(parseBrowserCommand("close")).kind,
              BrowserCommand::Kind::close);
    EXPECT_EQ(std::get<BrowserCommand>(parseBrowserCommand("expect \"id\":42")).text, "\"id\":42");
    EXPECT_EQ(std::get<BrowserCommand>(parseBrowserCommand(R"(raw not json\x00)")).body,
              std::string("not json") + '\0');
    EXPECT_EQ(std::get<BrowserCommand>(parseBrowserCommand("# note")).kind,
              BrowserCommand::Kind::nothing);
    EXPECT_EQ(std::get<std::string>(parseBrowserCommand(R"({"a":1)")),
              "line is not JSON: parse error at line 1, column 7: syntax error while parsing "
              "object - unexpected end of input; expected '}' (type help for the line forms)");
    EXPECT_EQ(std::get<std::string>(parseBrowserCommand("close now")),
              "close takes nothing after it");
}

// Frames that are JSON are shown compact, and spread ones noted, by the --decode path in
// peers_test.
TEST(JsonLineTest, NotesOnlyFramesThatAreNotCompactJsonAndChecksDeepNestingWithoutRecursion) {
    EXPECT_EQ(jsonLine(R"({"a":"\/"})").note, std::nullopt);
    const auto text = jsonLine("not \"json\"\n\xff");
    EXPECT_EQ(text.line, R"("not \"json\"\n�")");
    EXPECT_TRUE(text.note);
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(jsonError(deep), std::nullopt);
    EXPECT_TRUE(jsonError(std::string(100000, '[')));
}

}  // namespace
}  // namespace kerrow::tools
