#include "browser/standard_stream_framing.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::string_literals;
using test::Pipe;

// Feeds `bytes` and end of file, and returns every frame read until end of input, copied out
// (readFrame) or seen in place (peekFrame).
std::vector<std::string> framesOf(const std::string& bytes, bool inPlace) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    // Short inputs arrive a byte per write, prefixes included; a long one is more than a pipe
    // holds, written while we read.
    std::thread writer([&] {
        const std::size_t piece = bytes.size() < 64 ? 1 : bytes.size();
        for (std::size_t at = 0; at < bytes.size(); at += piece) {
            test::writeAll(pipe.writeEnd.get(), std::string_view(bytes).substr(at, piece));
        }
        pipe.writeEnd.reset();
    });
    std::vector<std::string> bodies;
    Data body;
    std::size_t length = 0;
    while (inPlace ? peekFrame(input, length) == FrameRead::body
                   : readFrame(input, body) == FrameRead::body) {
        if (inPlace) {
            const auto frame = input.peek(0)->first(length).subspan(4);
            bodies.emplace_back(frame.begin(), frame.end());
            input.consume(length);
        } else {
            bodies.emplace_back(textView(body));
        }
    }
    writer.join();
    return bodies;
}

TEST(StandardStreamReading, ReadsFramesUntilEndOfInput) {
    const std::string big(0x010203, 'z');  // the length is little-endian over all four bytes
    const struct {
        std::string input;
        std::vector<std::string> bodies;
    } cases[] = {
        {"\x05\0\0\0hello"s + "\x02\0\0\0{}"s, {"hello", "{}"}},
        {"\0\0\0\0"s + "\x01\0\0\0x"s, {"", "x"}},  // an empty body is handed on
        {"\x0a\0\0\0abc"s, {"abc"}},                // a body cut short is handed on, then end
        {"\x01\0\0\0a"s + "\x05\0"s, {"a"}},        // a prefix cut short is end of input
        {"\x05"s, {}},
        {"", {}},
        // 0x80000000 and 0xFFFFFFFF are negative once read as signed: end of input.
        {"\x01\0\0\0a"s + "\0\0\0\x80"s + "\x01\0\0\0b"s, {"a"}},
        {"\xff\xff\xff\xff"s + "rest"s, {}},
        {"\x03\x02\x01\0"s + big + "\x01\0\0\0!"s, {big, "!"}},
    };
    for (const auto& c : cases) {
        for (const bool inPlace : {false, true}) {
            EXPECT_EQ(framesOf(c.input, inPlace), c.bodies)
                << testing::PrintToString(c.input.substr(0, 16)) << inPlace;
        }
    }
}

TEST(StandardStreamReading, CancelledReaderLeavesTheFrameToTheNextReader) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    const Descriptor cancel(::eventfd(0, EFD_CLOEXEC));
    test::writeAll(pipe.writeEnd.get(), "\x01\0\0\0a"s + "\x05\0\0\0he"s);
    Data body;
    ASSERT_EQ(readFrame(input, body, cancel.get()), FrameRead::body);
    EXPECT_EQ(textView(body), "a");
    ASSERT_EQ(::eventfd_write(cancel.get(), 1), 0);
    EXPECT_EQ(readFrame(input, body, cancel.get()), FrameRead::cancelled);
    test::writeAll(pipe.writeEnd.get(), "llo"s + "\x01\0\0\0b"s);
    pipe.writeEnd.reset();
    EXPECT_EQ(readFrame(input), dataFromText("hello"));
    EXPECT_EQ(readFrame(input), dataFromText("b"));
    EXPECT_EQ(readFrame(input), std::nullopt);
}

}  // namespace
}  // namespace kerrow
