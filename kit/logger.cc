#include "kit/logger.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "kit/trust.h"
#include "platform/descriptor.h"

namespace kerrow {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t maximumFileSize = 8 * 1024 * 1024;
// While the log cannot be rotated (another process holds its lock, a rename fails) it may grow to
// this; lines beyond are lost, counted.
constexpr std::size_t largestFileSize = 2 * maximumFileSize;
constexpr int rotatedFiles = 2;  // native-messaging-host.log.1 and .2
constexpr auto flushDelay = 500ms;
constexpr auto rotationRetryDelay = 60s;             // after a rename that failed
constexpr std::size_t batchSize = 32 * 1024;         // the writer starts at once with this much
constexpr std::size_t queueLimit = 8 * 1024 * 1024;  // lines beyond it wait nowhere: lost, counted
constexpr std::size_t maximumLineData = 64 * 1024;
// The note of a cut line, " [<count> bytes left out]", fits in this.
constexpr std::size_t noteRoom = 48;

// Messages carry text from the peers (a tab id, a disable-internet text). One call must stay one
// line and every escape must read one way, so control characters other than tab and the
// backslash are written as escapes: no peer can forge lines or escapes. The table holds each
// byte's length once written: 1 as it is, 2 for \\, \n and \r, 4 for \xNN.
constexpr std::array<std::uint8_t, 256> escapedLengths = [] {
    std::array<std::uint8_t, 256> lengths{};
    for (std::size_t byte = 0; byte < lengths.size(); ++byte) {
        lengths[byte] = (byte < 0x20 && byte != '\t') || byte == 0x7F ? 4 : 1;
    }
    lengths['\\'] = lengths['\n'] = lengths['\r'] = 2;
    return lengths;
}();

std::size_t escapedLength(char character) {
    return escapedLengths[static_cast<unsigned char>(character)];
}

// True when one of the eight bytes of `word` may need an escape: it is below 0x20 (a tab too,
// which the caller then passes), 0x7F or the backslash. A byte is found where a subtraction
// borrows into its high bit while the byte's own high bit is clear; a false find can only sit
// above a true one, so no byte is missed and none is found in a word without one.
bool mayNeedEscape(std::uint64_t word) {
    constexpr std::uint64_t ones = 0x0101010101010101;
    constexpr std::uint64_t highs = 0x8080808080808080;
    const std::uint64_t borrows =
        (word - ones * 0x20) | ((word ^ (ones * 0x7F)) - ones) | ((word ^ (ones * '\\')) - ones);
    return (borrows & ~word & highs) != 0;
}

std::uint64_t wordAt(std::string_view text, std::size_t index) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + index, sizeof word);
    return word;
}

// How many bytes at the start of `text` are written as they are: eight at a time, as most log
// text needs no escape at all.
std::size_t plainLength(std::string_view text) {
    constexpr std::size_t wordSize = sizeof(std::uint64_t);
    std::size_t index = 0;
    for (;;) {
        while (index + wordSize <= text.size() && !mayNeedEscape(wordAt(text, index))) {
            index += wordSize;
        }
        // Fewer than eight bytes left: the last word of the text covers them.
        if (index + wordSize > text.size() && text.size() >= wordSize &&
            !mayNeedEscape(wordAt(text, text.size() - wordSize))) {
            return text.size();
        }
        const std::size_t end = std::min(index + wordSize, text.size());
        while (index < end && escapedLength(text[index]) == 1) {
            ++index;
        }
        if (index < end || index == text.size()) {
            return index;
        }
    }
}

// The length of `text` once escaped, counted until it passes `limit`.
std::size_t escapedSize(std::string_view text, std::size_t limit) {
    std::size_t size = 0;
    for (std::size_t index = 0; index < text.size() && size <= limit; ++index) {
        const std::size_t plain = plainLength(text.substr(index, limit + 1 - size));
        size += plain;
        index += plain;
        if (index < text.size()) {
            size += escapedLength(text[index]);
        }
    }
    return size;
}

// Appends the escape of a byte that needs one (its escapedLength() is 2 or 4).
void appendEscapedByte(std::string& line, unsigned char byte) {
    if (byte == '\\') {
        line += "\\\\";
    } else if (byte == '\n') {
        line += "\\n";
    } else if (byte == '\r') {
        line += "\\r";
    } else {
        constexpr std::string_view hex = "0123456789abcdef";
        line.append("\\x").append(1, hex[byte >> 4]).append(1, hex[byte & 0xF]);
    }
}

// Appends as much of `text`, escaped, as fits in `room` bytes, never part of an escape nor of a
// UTF-8 sequence: runs of plain bytes in one copy. Returns how many bytes of `text` it took.
std::size_t appendEscaped(std::string& line, std::string_view text, std::size_t room) {
    std::size_t index = 0;
    for (std::size_t used = 0; index < text.size(); ++index) {
        const std::size_t plain = std::min(plainLength(text.substr(index)), room - used);
        line.append(text.substr(index, plain));
        index += plain;
        used += plain;
        if (index == text.size() || used + escapedLength(text[index]) > room) {
            break;
        }
        used += escapedLength(text[index]);
        appendEscapedByte(line, static_cast<unsigned char>(text[index]));
    }
    // Drop the start of a sequence cut short (at most three raw bytes of one character).
    for (int dropped = 0; dropped < 3 && index > 0 && index < text.size() &&
                          (static_cast<unsigned char>(text[index]) & 0xC0) == 0x80 &&
                          static_cast<unsigned char>(text[index - 1]) >= 0x80;
         ++dropped) {
        line.pop_back();
        --index;
    }
    return index;
}

// Appends the parts as one message, escaped. When that would pass maximumLineData bytes, the
// message is cut so that it ends, with a note of how many bytes were left out, within them.
void appendCapped(std::string& line, std::initializer_list<std::string_view> parts) {
    std::size_t whole = 0;
    std::size_t escaped = 0;
    for (const auto part : parts) {
        whole += part.size();
        escaped += escapedSize(part, maximumLineData);
    }
    if (escaped == whole && whole <= maximumLineData) {  // the common case: nothing to escape
        for (const auto part : parts) {
            line.append(part);
        }
        return;
    }
    const std::size_t room = escaped <= maximumLineData ? escaped : maximumLineData - noteRoom;
    std::size_t taken = 0;
    const std::size_t start = line.size();
    for (const auto part : parts) {
        const std::size_t took = appendEscaped(line, part, room - (line.size() - start));
        taken += took;
        if (took < part.size()) {
            break;
        }
    }
    if (taken < whole) {
        line.append(" [").append(std::to_string(whole - taken)).append(" bytes left out]");
    }
}

// Writes time stamps, "2026-11-22T09:14:03.042Z ", each in one append: the calendar part is
// made once a second.
class TimeStamps {
  public:
    void append(std::string& line, Date timeStamp) {
        const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(timeStamp);
        const auto seconds = std::chrono::floor<std::chrono::seconds>(milliseconds);
        if (seconds != second_ || length_ == 0) {
            const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
            std::tm fields{};
            ::gmtime_r(&time, &fields);
            length_ = std::strftime(text_.data(), text_.size() - 5, "%Y-%m-%dT%H:%M:%S.", &fields);
            text_[length_ + 3] = 'Z';
            text_[length_ + 4] = ' ';
            second_ = seconds;
        }
        const auto millisecond = static_cast<int>((milliseconds - seconds).count());
        text_[length_] = static_cast<char>('0' + millisecond / 100);
        text_[length_ + 1] = static_cast<char>('0' + millisecond / 10 % 10);
        text_[length_ + 2] = static_cast<char>('0' + millisecond % 10);
        line.append(text_.data(), length_ + 5);
    }

  private:
    std::chrono::sys_seconds second_{};
    std::array<char, 40> text_{};
    std::size_t length_ = 0;  // of the calendar part at the start of text_
};

// Opens `directory` (creating what is missing, 0700) with one lookup per component, so the cost
// is linear in the path's length. The last component must not be a symbolic link.
Descriptor openDirectories(const std::filesystem::path& directory) {
    std::vector<std::string> parts;
    for (const auto& part : directory.relative_path()) {
        if (!part.empty()) {
            parts.push_back(part.string());
        }
    }
    Descriptor current(::open(directory.is_absolute() ? "/" : ".", O_DIRECTORY | O_CLOEXEC));
    for (std::size_t index = 0; current && index < parts.size(); ++index) {
        const char* name = parts[index].c_str();
        const int flags = O_DIRECTORY | O_CLOEXEC | (index + 1 == parts.size() ? O_NOFOLLOW : 0);
        Descriptor next(::openat(current.get(), name, flags));
        // A missing folder is made; one that another host made meanwhile (EEXIST) is opened.
        if (!next && errno == ENOENT &&
            (::mkdirat(current.get(), name, 0700) == 0 || errno == EEXIST)) {
            next = Descriptor(::openat(current.get(), name, flags));
        }
        current = std::move(next);
    }
    return current;
}

// The opened directory by the socket directory's rule: the user's or root's, and no one else may
// add or replace a file in it (it is no symbolic link: its last component was opened without
// following one).
bool isTrustedDirectory(int directory) {
    struct stat status {};
    return ::fstat(directory, &status) == 0 && S_ISDIR(status.st_mode) &&
           isTrustedOwner(status.st_uid) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens the log for appending in the trusted `directory`. A file it creates is 0600; an existing
// one must already be the user's own private regular file. Invalid when it cannot be used.
Descriptor openLogFile(int directory, std::string_view name) {
    const std::string file(name);
    constexpr int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor log(::openat(directory, file.c_str(), flags | O_CREAT | O_EXCL, 0600));
    if (log) {
        ::fchmod(log.get(), 0600);  // whatever the umask left
    } else if (errno == EEXIST) {
        log = Descriptor(::openat(directory, file.c_str(), flags));
    }
    try {
        if (log) {
            checkPrivateFileTrust(log.get(), file);
        }
    } catch (const std::exception&) {
        return {};
    }
    return log;
}

std::pair<dev_t, ino_t> identity(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

}  // namespace

// The lines of every logger writing to one place: the log file in a trusted directory, or
// standard error. A call formats its line into queue_ and returns; the writer thread (started by
// the first line) takes the whole queue at most flushDelay after its first line, or at once when
// it holds batchSize bytes, and writes it with one write, so every write ends at a line boundary
// and lines of several hosts appending to one file never mix. Before each write the file's size
// and identity are checked: an oversized log is rotated under a non-blocking flock() of the file
// (a lock held elsewhere postpones the rotation to a later batch), and a file that another host
// rotated away is replaced by the current one, so no line lands in an unlinked file and the log
// stays bounded whatever the number of hosts.
class LogChannel {
  public:
    explicit LogChannel(const std::optional<std::filesystem::path>& directory) {
        if (!directory) {
            return;
        }
        directory_ = openDirectories(*directory);
        if (directory_ && isTrustedDirectory(directory_.get())) {
            reopen();
        } else {
            directory_ = Descriptor();
        }
    }

    ~LogChannel() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        if (writer_.joinable()) {
            writer_.join();
        }
        writeOut();
    }
    LogChannel(const LogChannel&) = delete;
    LogChannel& operator=(const LogChannel&) = delete;

    // One line, "<level> <message>" or, with a detail, "<level> <message>: <detail>"; `level`
    // comes with its space ("info "). Never waits on the disk.
    void write(Date timeStamp, std::string_view level, std::string_view message,
               std::optional<std::string_view> detail = std::nullopt) {
        std::unique_lock lock(mutex_);
        if (queue_.size() >= queueLimit) {
            ++lost_;  // writing stalls: the line is counted, never waited for
            return;
        }
        const bool wasEmpty = queue_.empty();
        stamps_.append(queue_, timeStamp);
        queue_.append(level);
        if (detail) {
            appendCapped(queue_, {message, ": ", *detail});
        } else {
            appendCapped(queue_, {message});
        }
        queue_ += '\n';
        if (!writer_.joinable()) {
            writer_ = std::thread([this] { runWriter(); });
        }
        if (wasEmpty || queue_.size() >= batchSize) {
            lock.unlock();
            wake_.notify_one();
        }
    }

    // Writes out every line queued so far (waiting for a write under way, and for the disk).
    void flush() { writeOut(); }

  private:
    void runWriter() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            wake_.wait_for(lock, flushDelay,
                           [this] { return stopping_ || queue_.size() >= batchSize; });
            lock.unlock();
            writeOut();
            lock.lock();
        }
    }

    // Takes the queue and writes it out, after the notes of what went wrong since the last write.
    void writeOut() {
        const std::lock_guard writing(writing_);
        {
            const std::lock_guard lock(mutex_);
            batch_.swap(queue_);
            unreported_ += std::exchange(lost_, 0);
        }
        if (batch_.empty() && unreported_ == 0 && notes_.empty()) {
            return;
        }
        const bool toFile = directory_ && keepFileCurrent(batch_.size());
        if (directory_ && !toFile) {
            unreported_ += static_cast<std::size_t>(std::count(batch_.begin(), batch_.end(), '\n'));
            batch_.clear();
            return;  // the log is as large as it may grow while it cannot be rotated
        }
        // A line cut short by a failed write is ended first, so no later line continues it.
        std::string head = cutShort_ ? "\n" : "";
        head += notes_;
        if (unreported_ > 0) {
            headStamps_.append(head, now());
            head.append("error ").append(std::to_string(unreported_));
            head.append(" log lines were lost: writing the log failed or fell behind\n");
        }
        batch_.insert(0, head);
        const std::size_t wrote = writeAll(file_ ? file_.get() : STDERR_FILENO, batch_);
        if (wrote >= head.size()) {
            notes_.clear();
            unreported_ = 0;
        }
        const auto rest = std::string_view(batch_).substr(std::max(wrote, head.size()));
        unreported_ += static_cast<std::size_t>(std::count(rest.begin(), rest.end(), '\n'));
        if (wrote > 0) {
            cutShort_ = batch_[wrote - 1] != '\n';
        }
        batch_.clear();
        // The writer takes the queue at batchSize or soon after; a larger buffer is what a burst
        // left (lines queued while the writer waited for a CPU). It goes, and the heap gives the
        // pages the burst freed back to the kernel (the allocator keeps free pages inside its
        // heaps otherwise), so a burst leaves no resident memory behind. The queue takes the
        // emptied buffer with the next batch.
        if (batch_.capacity() > 2 * batchSize) {
            std::string().swap(batch_);
            ::malloc_trim(0);
        }
    }

    // Writes `text` until done or a write fails (a full disk, a closed standard error: those lines
    // are lost, never the host). Returns the bytes written.
    static std::size_t writeAll(int target, std::string_view text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t wrote = ::write(target, text.data() + done, text.size() - done);
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            if (wrote <= 0) {
                break;
            }
            done += static_cast<std::size_t>(wrote);
        }
        return done;
    }

    // Reopens the log when another host rotated it away, and rotates it when it grew too large.
    // False when `adding` more bytes would pass largestFileSize while rotating is not possible.
    bool keepFileCurrent(std::size_t adding) {
        struct stat current {};
        const std::string name(Logger::logFileName);
        const bool exists =
            ::fstatat(directory_.get(), name.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0;
        if (!file_ || !exists || identity(current) != identity_) {
            reopen();
            return true;
        }
        const std::size_t size = static_cast<std::size_t>(current.st_size) + adding;
        if (size <= maximumFileSize) {
            return true;
        }
        // Only one host rotates a given file: the others find it renamed. A lock held elsewhere
        // (a host in the middle of a rotation, a backup tool) is not waited for.
        if (std::chrono::steady_clock::now() < retryRotationAt_ ||
            ::flock(file_.get(), LOCK_EX | LOCK_NB) != 0) {
            return size <= largestFileSize;
        }
        struct stat locked {};
        int failure = 0;
        if (::fstatat(directory_.get(), name.c_str(), &locked, AT_SYMLINK_NOFOLLOW) == 0 &&
            identity(locked) == identity_) {
            for (int index = rotatedFiles; index > 0 && failure == 0; --index) {
                const std::string from = index == 1 ? name : name + "." + std::to_string(index - 1);
                const std::string to = name + "." + std::to_string(index);
                if (::renameat(directory_.get(), from.c_str(), directory_.get(), to.c_str()) != 0 &&
                    errno != ENOENT) {
                    failure = errno;
                }
            }
        }
        ::flock(file_.get(), LOCK_UN);
        if (failure != 0) {
            // Reported once, and tried again only after a while, not with every batch.
            retryRotationAt_ = std::chrono::steady_clock::now() + rotationRetryDelay;
            if (!rotationFailureReported_) {
                rotationFailureReported_ = true;
                headStamps_.append(notes_, now());
                notes_.append("error Could not rotate the log: ")
                    .append(std::generic_category().message(failure));
                notes_ += '\n';
            }
            return size <= largestFileSize;
        }
        rotationFailureReported_ = false;
        reopen();
        return true;
    }

    void reopen() {
        file_ = openLogFile(directory_.get(), Logger::logFileName);
        struct stat status {};
        if (file_ && ::fstat(file_.get(), &status) == 0) {
            identity_ = identity(status);
        }
    }

    std::mutex mutex_;
    // Guarded by mutex_.
    std::string queue_;     // formatted lines not yet taken by a writer
    std::size_t lost_ = 0;  // lines dropped because the queue was full
    TimeStamps stamps_;
    bool stopping_ = false;
    std::condition_variable wake_;
    std::thread writer_;  // started by the first line

    std::mutex writing_;  // held by whoever writes: the writer thread, or flush()
    // Guarded by writing_.
    Descriptor directory_;  // invalid when lines go to standard error
    Descriptor file_;       // invalid while no trusted log file is open: standard error
    std::pair<dev_t, ino_t> identity_{};
    std::string batch_;           // the lines being written
    std::string notes_;           // lines about the log itself, written before the next batch
    std::size_t unreported_ = 0;  // lines lost and not yet reported
    bool cutShort_ = false;       // the last write ended inside a line
    bool rotationFailureReported_ = false;
    std::chrono::steady_clock::time_point retryRotationAt_{};
    TimeStamps headStamps_;
};

namespace {

struct Channels {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<LogChannel>> byDirectory;  // guarded by mutex
};

Channels& channels() {
    static Channels instance;
    return instance;
}

}  // namespace

Logger::Logger(Date /*date*/, const std::optional<std::filesystem::path>& logsDir) {
    const auto directory = logsDir ? logsDir : defaultLogsDirectory();
    const std::string key = directory ? directory->string() : std::string();
    auto& all = channels();
    const std::lock_guard lock(all.mutex);
    auto& channel = all.byDirectory[key];
    if (!channel) {
        channel = std::make_shared<LogChannel>(directory);
    }
    channel_ = channel;
}

void Logger::logInformation(std::string_view message, Date timeStamp) const {
    channel_->write(timeStamp, "info ", message);
}

void Logger::logInformation(std::string_view message, std::string_view detail,
                            Date timeStamp) const {
    channel_->write(timeStamp, "info ", message, detail);
}

void Logger::logError(const std::exception& error, std::string_view message, Date timeStamp) const {
    channel_->write(timeStamp, "error ", message, std::string_view(error.what()));
}

std::optional<std::filesystem::path> Logger::defaultLogsDirectory() {
    const char* state = std::getenv("XDG_STATE_HOME");  // NOLINT(concurrency-mt-unsafe)
    if (state != nullptr && state[0] == '/') {
        return std::filesystem::path(state) / "kerrow";
    }
    const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe)
    if (home != nullptr && home[0] == '/') {
        return std::filesystem::path(home) / ".local" / "state" / "kerrow";
    }
    return std::nullopt;
}

void Logger::flushAll() {
    auto& all = channels();
    const std::lock_guard lock(all.mutex);
    for (const auto& [directory, channel] : all.byDirectory) {
        channel->flush();
    }
}

}  // namespace kerrow
