#include "platform/file_handle.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace kerrow {
namespace {

// The read-ahead: the room every read gets at least (a pipe holds 64 KiB by default), so that a
// burst of small frames costs one system call per pipeful rather than two per frame, and a frame
// of 64 KiB or more takes one read per pipeful too, not a last read for its final bytes alone.
constexpr std::size_t readAhead = 64 * 1024;
// A buffer that grew beyond this for a long record is given back once the record is consumed.
// A 1 MiB record and its read-ahead fit, so a stream of them reads without reallocating.
constexpr std::size_t retainedSize = 1024 * 1024 + 2 * readAhead;
// How long the input waits before a buffer grown for long records goes back to ordinary size.
constexpr int idleRelease = 200;  // ms

// The browser's pipes hold 64 KiB: a large message then crosses in sixteen turns of the writer
// filling the pipe and the reader draining it, each a pair of context switches. Widened to the
// 1 MiB an unprivileged process may ask for (fs.pipe-max-size), a whole message crosses in one or
// two. Best effort: a pipe that cannot grow (the user's pipe quota spent) stays as it is, and a
// terminal or a file is left alone.
constexpr int pipeCapacity = 1024 * 1024;

void widenPipe(int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode)) {
        ::fcntl(descriptor, F_SETPIPE_SZ, pipeCapacity);
    }
}

}  // namespace

FileHandle::FileHandle(int fileDescriptor) : descriptor_(fileDescriptor) {}

std::shared_ptr<FileHandle> FileHandle::standardInput() {
    static const auto handle = [] {
        widenPipe(STDIN_FILENO);
        return std::make_shared<FileHandle>(STDIN_FILENO);
    }();
    return handle;
}

std::shared_ptr<FileHandle> FileHandle::standardOutput() {
    static const auto handle = [] {
        std::signal(SIGPIPE, SIG_IGN);
        widenPipe(STDOUT_FILENO);
        return std::make_shared<FileHandle>(STDOUT_FILENO);
    }();
    return handle;
}

Data FileHandle::readDataOfLength(std::size_t length) {
    const auto held = peek(length).value();  // without a cancel descriptor there is always one
    const std::size_t taken = std::min(length, held.size());
    Data data(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(taken));
    consume(taken);
    return data;
}

std::optional<std::span<const std::uint8_t>> FileHandle::peek(std::size_t count,
                                                              int cancelDescriptor) {
    while (end_ - begin_ < count) {
        makeRoom(count);
        const Fill filled = fill(cancelDescriptor);
        if (filled == Fill::cancelled) {
            return std::nullopt;
        }
        if (filled == Fill::ended) {
            break;
        }
    }
    return std::span<const std::uint8_t>(buffer_.get() + begin_, end_ - begin_);
}

void FileHandle::consume(std::size_t count) {
    begin_ += std::min(count, end_ - begin_);
    if (begin_ == end_) {
        begin_ = end_ = 0;
        if (capacity_ > retainedSize) {
            buffer_.reset();
            capacity_ = 0;
        }
    }
}

void FileHandle::makeRoom(std::size_t count) {
    const std::size_t held = end_ - begin_;
    const std::size_t needed = held + readAhead;
    if (capacity_ > retainedSize && needed <= retainedSize) {
        // The long record is gone: the few held bytes move to a buffer of ordinary size.
        reallocate(needed);
    } else if (needed > capacity_) {
        // Half as large again each time, so a long record costs a few copies, but never larger
        // than the record and its read-ahead: the buffer grows with what arrives.
        reallocate(std::max(needed, std::min(capacity_ + capacity_ / 2, count + readAhead)));
    } else if (capacity_ - end_ < readAhead) {
        // The held bytes (a partial record, or nothing) move to the front. Small frames move a few
        // bytes before every read; a long record moves once a read-ahead no longer fits after it.
        // Records of the read-ahead's size or more, back to back, would move most of one before
        // every read: their buffer grows once to hold several (up to the retained size), so a
        // move comes once every few records.
        const std::size_t roomy = std::min(retainedSize, 4 * count + readAhead);
        if (count >= readAhead && capacity_ < roomy) {
            reallocate(roomy);
            return;
        }
        std::memmove(buffer_.get(), buffer_.get() + begin_, held);
        begin_ = 0;
        end_ = held;
    }
}

void FileHandle::reallocate(std::size_t capacity) {
    const std::size_t held = end_ - begin_;
    // Not zeroed: a page of the buffer costs memory only once a read has written to it.
    auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(capacity);
    if (held > 0) {
        std::memcpy(buffer.get(), buffer_.get() + begin_, held);
    }
    buffer_ = std::move(buffer);
    capacity_ = capacity;
    begin_ = 0;
    end_ = held;
}

FileHandle::Fill FileHandle::fill(int cancelDescriptor) {
    if (!descriptor_) {
        return Fill::ended;
    }
    if (cancelDescriptor >= 0) {
        // Input that is already there is read without a poll(): the wait, and with it the look at
        // the cancel descriptor, comes only when a read would block.
        if (readsWithoutWaiting_) {
            iovec room{buffer_.get() + end_, capacity_ - end_};
            const ssize_t got = ::preadv2(descriptor_.get(), &room, 1, -1, RWF_NOWAIT);
            if (got >= 0) {
                return took(got);
            }
            if (errno == EOPNOTSUPP || errno == EINVAL || errno == ENOSYS) {
                readsWithoutWaiting_ = false;  // a terminal, say: poll() before every read
            } else if (errno != EAGAIN && errno != EINTR) {
                return Fill::ended;
            }
        }
        pollfd fds[2] = {{cancelDescriptor, POLLIN, 0}, {descriptor_.get(), POLLIN, 0}};
        // A buffer grown for a run of long records goes back to ordinary size once the input has
        // paused for a while (a run arrives in bursts: giving it back at every pause would cost
        // a regrowth per record), unless a long record is half read.
        int timeout = capacity_ > 2 * readAhead ? idleRelease : -1;
        for (;;) {
            const int ready = ::poll(fds, 2, timeout);
            if (ready > 0) {
                break;
            }
            if (ready == 0) {
                if (const std::size_t held = end_ - begin_; held < readAhead) {
                    reallocate(held + readAhead);
                }
                timeout = -1;
            } else if (errno != EINTR) {
                return Fill::ended;  // the descriptor cannot be waited on, so it cannot be read
            }
        }
        if (fds[0].revents != 0) {
            return Fill::cancelled;
        }
    }
    iovec room{buffer_.get() + end_, capacity_ - end_};
    for (;;) {
        const ssize_t got = ::readv(descriptor_.get(), &room, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return took(got);
    }
}

FileHandle::Fill FileHandle::took(ssize_t got) {
    if (got <= 0) {
        return Fill::ended;
    }
    end_ += static_cast<std::size_t>(got);
    return Fill::more;
}

bool FileHandle::writeParts(std::span<const std::span<const std::uint8_t>> parts) {
    constexpr std::size_t maximumParts = 8;  // callers write a few parts; more go in turns
    std::array<iovec, maximumParts> vector{};
    while (!parts.empty()) {
        std::size_t count = 0;
        for (; count < std::min(parts.size(), maximumParts); ++count) {
            // writev() only reads the parts; iovec just has no const member.
            vector[count] = {const_cast<std::uint8_t*>(parts[count].data()), parts[count].size()};
        }
        for (std::size_t first = 0; first < count;) {
            const ssize_t wrote =
                ::writev(descriptor_.get(), vector.data() + first, static_cast<int>(count - first));
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            if (wrote < 0 || (wrote == 0 && vector[first].iov_len > 0)) {
                return false;
            }
            for (auto left = static_cast<std::size_t>(wrote); first < count; ++first) {
                const std::size_t taken = std::min(left, vector[first].iov_len);
                vector[first].iov_base = static_cast<std::uint8_t*>(vector[first].iov_base) + taken;
                vector[first].iov_len -= taken;
                left -= taken;
                if (vector[first].iov_len > 0) {
                    break;
                }
            }
        }
        parts = parts.subspan(count);
    }
    return true;
}

bool FileHandle::writeData(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t wrote = ::write(descriptor_.get(), bytes.data(), bytes.size());
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            return false;
        }
        bytes = bytes.subspan(static_cast<std::size_t>(wrote));
    }
    return true;
}

void FileHandle::closeFile() {
    descriptor_.reset();
    begin_ = end_ = 0;
    buffer_.reset();
    capacity_ = 0;
}

}  // namespace kerrow
