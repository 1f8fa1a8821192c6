#include "kit/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace kerrow {
namespace {

// A text is valid exactly when repair leaves it alone. Each maximal ill-formed subpart becomes
// exactly one U+FFFD, so a truncated multi-byte sequence costs one replacement, not one per byte,
// and the bytes after it survive.
TEST(UTF8, ValidatesAndReplacesEachMaximalIllFormedSubpartOnce) {
    const std::string r = "\xef\xbf\xbd";  // U+FFFD
    const struct {
        std::string_view bytes;
        std::string expected;
    } cases[] = {
        {"", ""},
        {"console", "console"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"\xe2\x82\xac\xef\xbf\xbf", "\xe2\x82\xac\xef\xbf\xbf"},
        {"\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf", "\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf"},
        {"abcdefgh\xc3\xa9ijklmnop", "abcdefgh\xc3\xa9ijklmnop"},
        {"a\x80z", "a" + r + "z"},            // lone continuation
        {"\xe2\x82", r},                      // truncated at the end
        {"abcdefgh\xc3", "abcdefgh" + r},     // truncated after a fast ASCII run
        {"\xe2\x82z", r + "z"},               // truncated mid-text
        {"\xf0\x9f\x98z", r + "z"},           // three of four bytes
        {"\xc0\xaf", r + r},                  // overlong "/"
        {"\xe0\x80\xaf", r + r + r},          // overlong
        {"\xed\xa0\x80", r + r + r},          // surrogate
        {"\xf4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
        {"\xf8\x88\x80\x80\x80", r + r + r + r + r},
        {"\xff\xfe", r + r},
        {"\xe2\x82\xc3\xa9", r + "\xc3\xa9"},  // a good sequence right after a bad one
    };
    for (const auto& [bytes, expected] : cases) {
        const auto shown = testing::PrintToString(std::string(bytes));
        EXPECT_EQ(isValidUTF8(bytes), bytes == expected) << shown;
        EXPECT_EQ(utf8::repaired(bytes), expected) << shown;
        EXPECT_TRUE(isValidUTF8(utf8::repaired(bytes))) << shown;
    }
}

}  // namespace
}  // namespace kerrow
