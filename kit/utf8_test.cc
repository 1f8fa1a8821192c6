#include "kit/utf8.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kerrow
