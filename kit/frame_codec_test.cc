#include "kit/frame_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kerrow {
namespace {

using namespace std::string_literals;

TEST(FrameCodec, WritesTheLittleEndianByteCountOverAllFourBytesThenTheBody) {
    EXPECT_EQ(encodeFrame(""), "\0\0\0\0"s);
    EXPECT_EQ(encodeFrame("ab"), "\x02\0\0\0ab"s);
    EXPECT_EQ(encodeFrame(std::string(0x0102, 'x')).substr(0, 4), "\x02\x01\0\0"s);
    const std::array<std::uint8_t, 4> header{0x04, 0x03, 0x02, 0x81};
    EXPECT_EQ(decodeFrameLength(header.data()), 0x81020304U);  // unsigned: the top bit is data
    EXPECT_EQ(encodeFrameLength(0x81020304U), header);
}

TEST(FrameCodec, DecoderCutsFramesFromPiecesOfAnySize) {
    const std::string stream = encodeFrame("first") + encodeFrame("") + encodeFrame("third");
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        FrameDecoder decoder(16);
        std::vector<std::string> frames;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            decoder.append(std::string_view(stream).substr(at, piece));
            while (auto frame = decoder.next()) {
                frames.push_back(*frame);
            }
        }
        EXPECT_EQ(frames, (std::vector<std::string>{"first", "", "third"})) << piece;
        EXPECT_FALSE(decoder.midFrame());
    }
}

TEST(FrameCodec, DecoderTellsWhatIsHeldOfAnIncompleteFrameAndRefusesOneOverItsLimit) {
    FrameDecoder decoder(16);
    decoder.append("\x10\0"s);
    EXPECT_EQ(decoder.next(), std::nullopt);
    EXPECT_EQ(decoder.describeIncomplete(), "2 of the 4 header bytes");
    decoder.append("\0\0abc"s);
    EXPECT_EQ(decoder.next(), std::nullopt);
    EXPECT_TRUE(decoder.midFrame());
    EXPECT_EQ(decoder.describeIncomplete(), "3 of 16 body bytes");
    // A body of the limit is taken; a header over it is refused before any body arrives.
    decoder.append(std::string(13, 'x') + "\x11\0\0\0"s);
    EXPECT_EQ(decoder.next(), "abc" + std::string(13, 'x'));
    EXPECT_THAT(
        [&] { static_cast<void>(decoder.next()); },
        ::testing::Throws<FrameTooLarge>(::testing::Property(&FrameTooLarge::announced, 17U)));
}

}  // namespace
}  // namespace kerrow
