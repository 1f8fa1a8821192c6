#include "platform/file_handle.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using test::Pipe;
using test::writeAll;

TEST(FileHandleRead, BlocksUntilTheWholeLengthArrivedInPieces) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    std::thread writer([&] {
        for (const char* piece : {"ab", "cde", "fghij"}) {
            writeAll(pipe.writeEnd(), piece);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const Data data = input.readDataOfLength(10);
    writer.join();
    EXPECT_EQ(textView(data), "abcdefghij");
}

TEST(FileHandleRead, ReturnsWhatArrivedAtEndOfFileThenEmpty) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    writeAll(pipe.writeEnd(), "xyz");
    pipe.closeWriteEnd();
    EXPECT_EQ(textView(input.readDataOfLength(10)), "xyz");
    EXPECT_TRUE(input.readDataOfLength(4).empty());
}

TEST(FileHandleRead, ZeroLengthReturnsAtOnceWithoutInput) {
    Pipe pipe;  // nothing is ever written: a read of one byte would block for ever
    FileHandle input(pipe.releaseReadEnd());
    EXPECT_TRUE(input.readDataOfLength(0).empty());
}

TEST(FileHandleRead, HugeLengthCostsOnlyWhatArrives) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    writeAll(pipe.writeEnd(), "0123456789");
    pipe.closeWriteEnd();
    const Data data = input.readDataOfLength(0x7FFFFFFF);
    EXPECT_EQ(data.size(), 10u);
    EXPECT_LE(data.capacity(), 128u * 1024u);
}

TEST(FileHandleRead, AfterCloseFileGivesEndOfFile) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    writeAll(pipe.writeEnd(), "data");
    input.closeFile();
    EXPECT_TRUE(input.readDataOfLength(4).empty());
    EXPECT_EQ(input.fileDescriptor(), -1);
}

TEST(FileHandleWait, CancellationWinsOverPendingInputAndConsumesNothing) {
    Pipe pipe;
    FileHandle input(pipe.releaseReadEnd());
    const int cancel = ::eventfd(0, EFD_CLOEXEC);
    writeAll(pipe.writeEnd(), "ab");
    EXPECT_TRUE(input.waitForInput(cancel));
    const std::uint64_t one = 1;
    ASSERT_EQ(::write(cancel, &one, sizeof one), 8);
    EXPECT_FALSE(input.waitForInput(cancel));
    EXPECT_EQ(textView(input.readDataOfLength(2)), "ab");
    ::close(cancel);
}

TEST(FileHandleWrite, WritesEveryByteOfLargeBuffers) {
    Pipe pipe;
    FileHandle output(pipe.releaseWriteEnd());
    const std::string big(1 << 20, 'q');
    std::string received;
    std::thread reader([&] { received = test::readExactly(pipe.readEnd(), big.size()); });
    EXPECT_TRUE(output.writeData({reinterpret_cast<const std::uint8_t*>(big.data()), big.size()}));
    reader.join();
    EXPECT_EQ(received, big);
}

TEST(FileHandleWrite, FailsQuietlyWhenTheReaderHasGone) {
    FileHandle::standardOutput();  // the host's standard output makes SIGPIPE harmless
    Pipe pipe;
    FileHandle output(pipe.releaseWriteEnd());
    pipe.closeReadEnd();
    const std::uint8_t byte = 'x';
    EXPECT_FALSE(output.writeData({&byte, 1}));
    output.closeFile();
    EXPECT_FALSE(output.writeData({&byte, 1}));
}

TEST(FileHandleShared, StandardHandlesAreProcessWide) {
    EXPECT_EQ(FileHandle::standardInput(), FileHandle::standardInput());
    EXPECT_EQ(FileHandle::standardOutput(), FileHandle::standardOutput());
    EXPECT_EQ(FileHandle::standardInput()->fileDescriptor(), 0);
    EXPECT_EQ(FileHandle::standardOutput()->fileDescriptor(), 1);
}

}  // namespace
}  // namespace kerrow
