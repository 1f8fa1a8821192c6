#include "tools/common/text.h"

#include <gtest/gtest.h>

namespace kerrow::tools {
namespace {

TEST(LineSplitterTest, SplitsLinesAndDropsOnlyTheLineTooLong) {
    LineSplitter lines(5);
    lines.append("ab\r\ncd");
    EXPECT_EQ(lines.next(), "ab");
    EXPECT_EQ(lines.next(), std::nullopt);
    lines.append("\n0123456789");
    EXPECT_EQ(lines.next(), "cd");
    EXPECT_THROW((void)lines.next(), LineTooLong);
    lines.append("more of the long line\nok\n");
    EXPECT_EQ(lines.next(), "ok");
    lines.append("last");
    EXPECT_EQ(lines.next(), std::nullopt);
    EXPECT_EQ(lines.finish(), "last");
    EXPECT_EQ(lines.finish(), std::nullopt);
}

TEST(TextTest, PrintableShowsControlAndForeignBytesEscaped) {
    EXPECT_EQ(printable("caf\xc3\xa9 {\"a\":\"\\/\"}"), "caf\xc3\xa9 {\"a\":\"\\/\"}");
    EXPECT_EQ(printable("a\nb\tc\x01"), "a\\nb\\tc\\x01");
    EXPECT_EQ(printable("\xff\xc3\xa9"), "\\xff\\xc3\\xa9");
    EXPECT_EQ(printable("abcdef", 3), "abc... (6 bytes)");
    EXPECT_EQ(printable("a\xc3\xa9z", 2), "a... (4 bytes)");  // never half a character
}

TEST(TextTest, UnescapeTakesTheDocumentedEscapesOnly) {
    EXPECT_EQ(unescape(R"(a\\b\n\r\t\x41\x7e)"), "a\\b\n\r\tA~");
    EXPECT_EQ(unescape(R"(\0)"), std::string(1, '\0'));
    EXPECT_EQ(unescape(R"(\)"), std::nullopt);
    EXPECT_EQ(unescape(R"(\x4g)"), std::nullopt);
    EXPECT_EQ(unescape(R"(\u0041)"), std::nullopt);
}

TEST(TextTest, NumbersAreStrict) {
    EXPECT_EQ(parseSeconds("1.5"), 1.5);
    EXPECT_EQ(parseSeconds("-1"), std::nullopt);
    EXPECT_EQ(parseSeconds("1e3"), std::nullopt);
    EXPECT_EQ(parseSeconds(""), std::nullopt);
    EXPECT_EQ(parseCount("255", 255), 255u);
    EXPECT_EQ(parseCount("256", 255), std::nullopt);
    EXPECT_EQ(parseCount("+1", 255), std::nullopt);
    EXPECT_EQ(parseCount("99999999999999999999999", ~0ull), std::nullopt);
}

}  // namespace
}  // namespace kerrow::tools
