#include "platform/file_handle.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <thread>

#include "tests/support/test_support.h"

namespace kerrow {
namespace {

using test::Pipe;
using test::writeAll;

// One read takes what is there and the handle keeps the rest for the next read. A cancellation
// ends only a wait: held bytes and input that is already there are read first, and nothing is
// consumed.
TEST(FileHandleRead, ReadsAheadAndACancellationEndsOnlyAWait) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    const Descriptor cancel(::eventfd(0, EFD_CLOEXEC));
    writeAll(pipe.writeEnd.get(), "0123456789");
    EXPECT_EQ(textView(input.readDataOfLength(3)), "012");
    int unread = -1;
    ASSERT_EQ(::ioctl(input.fileDescriptor(), FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 0);
    ASSERT_EQ(::eventfd_write(cancel.get(), 1), 0);
    EXPECT_EQ(input.peek(7, cancel.get())->size(), 7u);
    EXPECT_FALSE(input.peek(8, cancel.get()));
    writeAll(pipe.writeEnd.get(), "a");
    EXPECT_EQ(input.peek(8, cancel.get())->size(), 8u);
    EXPECT_EQ(textView(input.readDataOfLength(4)), "3456");
    input.closeFile();
    EXPECT_TRUE(input.readDataOfLength(3).empty());  // the bytes read ahead went with it
}

// Memory follows the bytes that arrive, never the length asked for, and a buffer that grew for a
// long record goes once the record is consumed.
TEST(FileHandleRead, CostsOnlyWhatArrivesAndGivesBackTheBufferOfALongRecord) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    const std::string record(8 * 1024 * 1024, 'r');
    const std::size_t before = test::heapInUse();
    if (before == 0) {
        GTEST_SKIP() << "no heap figures under a sanitizer";
    }
    std::jthread writer([&] {
        writeAll(pipe.writeEnd.get(), record + "next");
        pipe.writeEnd.reset();
    });
    // A hostile length: everything up to the end of input is read, and only that is held.
    ASSERT_EQ(input.peek(0x8000'0003)->size(), record.size() + 4);
    EXPECT_GT(test::heapInUse(), before + record.size() / 2);  // the buffer grew for it
    EXPECT_LT(test::heapInUse(), before + 2 * record.size());  // but not for the length
    input.consume(record.size());
    EXPECT_EQ(input.peek(0x8000'0003)->size(), 4u);  // "next"
    EXPECT_LT(test::heapInUse(), before + 1024 * 1024);
}

// A run of records longer than the read-ahead gets room for several, so that a partial record is
// seldom moved; the room goes back once the input has paused.
TEST(FileHandleRead, GivesBackTheRoomOfARunOfLongRecordsOnceTheInputPauses) {
    Pipe pipe;
    FileHandle input(pipe.readEnd.release());
    const Descriptor cancel(::eventfd(0, EFD_CLOEXEC));
    const std::string record(64 * 1024 + 100, 'r');
    const std::size_t before = test::heapInUse();
    if (before == 0) {
        GTEST_SKIP() << "no heap figures under a sanitizer";
    }
    std::jthread writer([&] {
        for (int i = 0; i < 8; ++i) {
            writeAll(pipe.writeEnd.get(), record);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        writeAll(pipe.writeEnd.get(), "next");
    });
    for (int i = 0; i < 8; ++i) {
        ASSERT_GE(input.peek(record.size(), cancel.get())->size(), record.size());
        input.consume(record.size());
    }
    EXPECT_GT(test::heapInUse(), before + 3 * record.size());
    EXPECT_EQ(input.peek(4, cancel.get())->size(), 4u);  // read after the pause
    EXPECT_LT(test::heapInUse(), before + 2 * record.size());
}

TEST(FileHandleWrite, FailsQuietlyWhenTheReaderHasGone) {
    FileHandle::standardOutput();  // the host's standard output makes SIGPIPE harmless
    Pipe pipe;
    FileHandle output(pipe.writeEnd.release());
    pipe.readEnd.reset();
    const std::uint8_t byte = 'x';
    EXPECT_FALSE(output.writeData({&byte, 1}));
    output.closeFile();
    EXPECT_FALSE(output.writeData({&byte, 1}));
}

}  // namespace
}  // namespace kerrow
