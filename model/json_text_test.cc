#include "model/json_text.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace kerrow {
namespace {

using namespace std::string_view_literals;

TEST(JSONStringWriter, EscapesExactlyTheAgreedCharactersAndRefusesIllFormedUTF8) {
    const struct {
        std::string_view text;
        std::string_view expected;
    } cases[] = {
        {"", R"("")"},
        {"site-a.example", R"("site-a.example")"},
        {"https://a.example/x", R"("https:\/\/a.example\/x")"},
        {R"(say "hi")", R"("say \"hi\"")"},
        {R"(C:\dir)", R"("C:\\dir")"},
        {"\b\f\n\r\t", R"("\b\f\n\r\t")"},
        {"\x01\x1f"sv, R"("\u0001\u001f")"},
        {"a\0b"sv, R"("a\u0000b")"},
        {"\x7f", "\"\x7f\""},  // DEL is not a control here
        {"caf\xc3\xa9 \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xf0\x9f\x98\x80\""},  // raw UTF-8
        {"<script>'&'", R"("<script>'&'")"},
    };
    for (const auto& [text, expected] : cases) {
        std::string out = "prefix:";
        ASSERT_TRUE(appendJSONString(out, text)) << testing::PrintToString(std::string(text));
        EXPECT_EQ(out, "prefix:" + std::string(expected));
    }
    // Ill-formed UTF-8 is refused, the output left untouched.
    for (const std::string_view text : {"\xff"sv, "ok/\xc3"sv, "\xed\xa0\x80"sv, "\xc0\xaf"sv}) {
        std::string out = "{\"a\":";
        EXPECT_FALSE(appendJSONString(out, text)) << testing::PrintToString(std::string(text));
        EXPECT_EQ(out, "{\"a\":");
    }
}

}  // namespace
}  // namespace kerrow
