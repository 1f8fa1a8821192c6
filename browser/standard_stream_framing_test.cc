#include "browser/standard_stream_framing.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using namespace std::string_literals;
using test::Pipe;

// Feeds `bytes` and end of file, and returns every frame read until end of input. readFrame()
// is peekFrame() and a copy: this reads both.
std::vector<std::string> framesOf(const std::string& bytes) {
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
    while (const auto body = readFrame(input)) {
        bodies.emplace_back(textView(*body));
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
        EXPECT_EQ(framesOf(c.input), c.bodies) << testing::PrintToString(c.input.substr(0, 16));
    }
}

// A cancelled read is no end of input (that would end the host), and consumes nothing.
TEST(StandardStreamReading, CancelledReaderLeavesTheFrameToTheNextReader) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    const Descriptor cancel(::eventfd(0, EFD_CLOEXEC));
    test::writeAll(pipe.writeEnd.get(), "\x05\0\0\0he"s);
    ASSERT_EQ(::eventfd_write(cancel.get(), 1), 0);
    Data body;
    EXPECT_EQ(readFrame(input, body, cancel.get()), FrameRead::cancelled);
    test::writeAll(pipe.writeEnd.get(), "llo"s);
    EXPECT_EQ(readFrame(input), dataFromText("hello"));
}

}  // namespace
}  // namespace kerrow
