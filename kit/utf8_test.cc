#include "kit/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace kerrow {
namespace {

TEST(UTF8Validation, AcceptsWellFormedTexts) {
    for (const char* text :
         {"", "plain ascii text of some length", "caf\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
          "\xef\xbf\xbf", "\xf4\x8f\xbf\xbf", "abcdefgh\xc3\xa9ijklmnop"}) {
        EXPECT_TRUE(isValidUTF8(text)) << text;
    }
}

TEST(UTF8Validation, RefusesMalformedSequences) {
    for (const char* text : {
             "\x80",              // lone continuation
             "\xc3",              // truncated
             "abcdefgh\xc3",      // truncated after a fast ASCII run
             "\xc0\xaf",          // overlong "/"
             "\xe0\x80\xaf",      // overlong
             "\xed\xa0\x80",      // surrogate
             "\xf4\x90\x80\x80",  // above U+10FFFF
             "\xf8\x88\x80\x80\x80",
             "\xff",
             "\xe2\x82",
         }) {
        EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(std::string(text));
    }
}

// Each maximal ill-formed subpart becomes exactly one U+FFFD, so a truncated multi-byte sequence
// costs one replacement, not one per byte, and the bytes after it survive.
TEST(UTF8Repair, ReplacesEachMaximalIllFormedSubpartOnce) {
    const std::string r = "\xef\xbf\xbd";  // U+FFFD
    const struct {
        std::string_view bytes;
        std::string expected;
    } cases[] = {
        {"", ""},
        {"console", "console"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80"},
        {"a\x80z", "a" + r + "z"},
        {"\xe2\x82", r},              // truncated at the end
        {"\xe2\x82z", r + "z"},       // truncated mid-text
        {"\xf0\x9f\x98z", r + "z"},   // three of four bytes
        {"\xc0\xaf", r + r},          // overlong: two subparts
        {"\xed\xa0\x80", r + r + r},  // surrogate
        {"\xff\xfe", r + r},
        {"\xe2\x82\xc3\xa9", r + "\xc3\xa9"},  // a good sequence right after a bad one
    };
    for (const auto& [bytes, expected] : cases) {
        EXPECT_EQ(utf8::repaired(bytes), expected) << testing::PrintToString(std::string(bytes));
        EXPECT_TRUE(isValidUTF8(utf8::repaired(bytes)));
    }
}

}  // namespace
}  // namespace kerrow
