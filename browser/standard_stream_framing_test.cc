#include "browser/standard_stream_framing.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::string_literals;
using test::Pipe;

// Feeds `bytes` and end of file, and returns every frame read until end of input.
std::vector<std::string> framesOf(const std::string& bytes) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    std::thread writer([&] {  // more than a pipe holds must be written while we read
        test::writeAll(pipe.writeEnd(), bytes);
        pipe.closeWriteEnd();
    });
    std::vector<std::string> bodies;
    while (const auto body = readFrame(input)) {
        bodies.emplace_back(textView(*body));
    }
    writer.join();
    return bodies;
}

std::string written(std::string_view body) {
    Pipe pipe;
    FileHandle output(pipe.releaseWriteEnd());
    std::thread writer([&] {
        writeFrame(output, body);
        output.closeFile();
    });
    auto bytes = test::readToEnd(pipe.readEnd());
    writer.join();
    return bytes;
}

TEST(StandardStreamReading, ReadsBackToBackFramesUntilEndOfInput) {
    EXPECT_EQ(framesOf("\x05\0\0\0hello"s + "\x02\0\0\0{}"s),
              (std::vector<std::string>{"hello", "{}"}));
}

TEST(StandardStreamReading, HandsOnAnEmptyBodyAndReadsOn) {
    EXPECT_EQ(framesOf("\0\0\0\0"s + "\x01\0\0\0x"s), (std::vector<std::string>{"", "x"}));
}

TEST(StandardStreamReading, HandsOnABodyCutShortThenEnds) {
    EXPECT_EQ(framesOf("\x0a\0\0\0abc"s), (std::vector<std::string>{"abc"}));
}

TEST(StandardStreamReading, TreatsAPrefixCutShortAsEndOfInput) {
    EXPECT_EQ(framesOf("\x01\0\0\0a"s + "\x05\0"s), (std::vector<std::string>{"a"}));
    EXPECT_TRUE(framesOf("\x05"s).empty());
    EXPECT_TRUE(framesOf("").empty());
}

TEST(StandardStreamReading, TreatsAPrefixWithTheTopBitSetAsEndOfInput) {
    // 0x80000000 and 0xFFFFFFFF are negative once read as signed; nothing after them is read.
    EXPECT_EQ(framesOf("\x01\0\0\0a"s + "\0\0\0\x80"s + "\x01\0\0\0b"s),
              (std::vector<std::string>{"a"}));
    EXPECT_TRUE(framesOf("\xff\xff\xff\xff"s + "rest"s).empty());
}

TEST(StandardStreamReading, LengthIsLittleEndianOverAllFourBytes) {
    const std::string body(0x010203, 'z');
    const auto bodies = framesOf("\x03\x02\x01\0"s + body);
    ASSERT_EQ(bodies.size(), 1u);
    EXPECT_EQ(bodies[0].size(), 0x010203u);
}

TEST(StandardStreamReading, AHugeAnnouncedLengthCostsOnlyWhatArrives) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    test::writeAll(pipe.writeEnd(), "\xff\xff\xff\x7f"s + "0123456789"s);
    pipe.closeWriteEnd();
    const auto body = readFrame(input);
    ASSERT_TRUE(body);
    EXPECT_EQ(body->size(), 10u);
    EXPECT_LE(body->capacity(), 128u * 1024u);
}

TEST(StandardStreamWriting, WritesTheLittleEndianByteCountThenTheBody) {
    EXPECT_EQ(written("{}"), "\x02\0\0\0{}"s);
    EXPECT_EQ(written(""), "\0\0\0\0"s);
    EXPECT_EQ(written("\xc3\xa9"), "\x02\0\0\0\xc3\xa9"s);  // bytes, not characters
    EXPECT_EQ(written(std::string(300, 'a')).substr(0, 4), "\x2c\x01\0\0"s);
    EXPECT_EQ(written(std::string(0x012345, 'b')).size(), 4u + 0x012345u);
}

}  // namespace
}  // namespace kerrow
