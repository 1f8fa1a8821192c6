// FileHandle: a POSIX file descriptor with blocking, whole-length reads and whole writes.
//
// A handle owns its descriptor and closes it when destroyed (or on closeFile()). Standard input
// and standard output are process-wide shared handles, so every user of them shares one handle,
// and with it the handle's two serialising locks (see readingLock() and writingLock()).
// Reads, writes and closeFile() may be called from any thread; the caller keeps one reader and
// one writer at a time by taking the locks where its records span several calls.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <span>

#include "platform/data.h"

namespace kerrow {

class FileHandle {
  public:
    /// Takes ownership of `fileDescriptor`.
    explicit FileHandle(int fileDescriptor);
    ~FileHandle();
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    /// The process's standard input (descriptor 0), one handle for the whole process.
    static std::shared_ptr<FileHandle> standardInput();
    /// The process's standard output (descriptor 1), one handle for the whole process. The first
    /// call makes writes to a vanished reader fail with EPIPE instead of raising SIGPIPE.
    static std::shared_ptr<FileHandle> standardOutput();

    /// Blocks until `length` bytes have arrived or the input reaches end of file (or fails), and
    /// returns what arrived: empty at end of file, empty at once for a length of 0. Memory grows
    /// with the bytes that actually arrive, never with the length asked for.
    [[nodiscard]] Data readDataOfLength(std::size_t length);

    /// Waits until the handle has input (or end of file) or `cancelDescriptor` becomes readable.
    /// Returns false when cancelled; a cancellation that coincides with input still wins, so a
    /// cancelled caller has consumed nothing.
    [[nodiscard]] bool waitForInput(int cancelDescriptor);

    /// Writes all bytes. A failure (a closed descriptor, a reader that has gone) is quiet: the
    /// call returns false and the process goes on.
    bool writeData(std::span<const std::uint8_t> bytes);

    /// Closes the descriptor. Later reads give end of file and later writes fail quietly.
    void closeFile();

    [[nodiscard]] int fileDescriptor() const { return descriptor_; }

    /// Held by whoever reads records spanning several reads from this handle (one reader).
    [[nodiscard]] std::mutex& readingLock() { return readingLock_; }
    /// Held by whoever writes a record as several writes to this handle (records never interleave).
    [[nodiscard]] std::mutex& writingLock() { return writingLock_; }

  private:
    int descriptor_;  // -1 once closed
    std::mutex readingLock_;
    std::mutex writingLock_;
};

}  // namespace kerrow
