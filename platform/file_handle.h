// FileHandle: a POSIX file descriptor with read-ahead, whole-length reads and whole writes.
//
// A handle owns its descriptor and closes it when destroyed (or on closeFile()). Standard input
// and standard output are process-wide shared handles, so every user of them shares one handle,
// and with it the handle's read-ahead and its two serialising locks (see readingLock() and
// writingLock()).
//
// Read-ahead: a read asks the kernel for as much as the buffer holds, so one system call serves
// many small records. The bytes read but not yet consumed belong to the handle, not to a reader:
// a reader that stops (a retired channel) leaves them for the next holder of readingLock(), so
// nothing is lost and nothing is read twice. Memory grows with the bytes that actually arrive,
// never with the length asked for, and a buffer that grew for a long record shrinks back to the
// ordinary read-ahead once that record is consumed. A run of long records gets room for several
// (so a partial one is seldom moved), which a reader that waits with a cancel descriptor gives
// back once the input has paused for 200 ms.
//
// Threads: reads (peek, consume, readDataOfLength) by one reader at a time, the holder of
// readingLock(); writes by any thread, the holder of writingLock() where a record spans several
// writes. closeFile() on the reading thread or while nobody reads.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "platform/data.h"
#include "platform/descriptor.h"

namespace kerrow {

class FileHandle {
  public:
    /// Takes ownership of `fileDescriptor`.
    explicit FileHandle(int fileDescriptor);
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    /// The process's standard input (descriptor 0), one handle for the whole process. A pipe
    /// there is widened to 1 MiB where the system allows it.
    static std::shared_ptr<FileHandle> standardInput();
    /// The process's standard output (descriptor 1), one handle for the whole process. The first
    /// call makes writes to a vanished reader fail with EPIPE instead of raising SIGPIPE, and
    /// widens a pipe there to 1 MiB where the system allows it.
    static std::shared_ptr<FileHandle> standardOutput();

    /// Blocks until `length` bytes have arrived or the input reaches end of file (or fails), and
    /// returns what arrived: empty at end of file, empty at once for a length of 0.
    [[nodiscard]] Data readDataOfLength(std::size_t length);

    /// The unconsumed bytes, at least `count` of them: reads (blocking) while fewer are held.
    /// Fewer only at end of file or on a read failure. No value when `cancelDescriptor` (-1 for
    /// none) became readable while it waited for more; input that is already there is read
    /// before a cancellation is looked at. Consumes nothing; the view is valid until the next
    /// peek, consume or read.
    [[nodiscard]] std::optional<std::span<const std::uint8_t>> peek(std::size_t count,
                                                                    int cancelDescriptor = -1);
    /// Drops the first `count` unconsumed bytes. REQUIRES: count <= the bytes peek() showed.
    void consume(std::size_t count);

    /// Writes all bytes. A failure (a closed descriptor, a reader that has gone) is quiet: the
    /// call returns false and the process goes on.
    bool writeData(std::span<const std::uint8_t> bytes);
    /// Writes all bytes of `parts`, in order, in as few writev() calls as the descriptor takes.
    bool writeParts(std::span<const std::span<const std::uint8_t>> parts);

    /// Closes the descriptor. Later reads give end of file and later writes fail quietly.
    void closeFile();

    [[nodiscard]] int fileDescriptor() const { return descriptor_.get(); }

    /// Held by whoever reads from this handle (one reader, who owns the read-ahead meanwhile).
    [[nodiscard]] std::mutex& readingLock() { return readingLock_; }
    /// Held by whoever writes a record as several writes to this handle (records never interleave).
    [[nodiscard]] std::mutex& writingLock() { return writingLock_; }

  private:
    /// Makes room for a read-ahead after the held bytes, which a read brings towards `count`.
    void makeRoom(std::size_t count);
    /// Moves the held bytes to the front of a new buffer of `capacity` bytes.
    void reallocate(std::size_t capacity);
    /// One read into the room, waiting on `cancelDescriptor` too (-1: a plain blocking read).
    enum class Fill { more, ended, cancelled };
    Fill fill(int cancelDescriptor);
    /// Counts the bytes of a read that returned `got`.
    Fill took(ssize_t got);

    Descriptor descriptor_;  // invalid once closed
    // The read-ahead: capacity_ bytes, of which [begin_, end_) are read and not yet consumed.
    std::unique_ptr<std::uint8_t[]> buffer_;
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    bool readsWithoutWaiting_ = true;  // preadv2(RWF_NOWAIT) works on the descriptor
    std::mutex readingLock_;
    std::mutex writingLock_;
};

}  // namespace kerrow
