#include "kit/logger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kit/trust.h"
#include "platform/descriptor.h"

namespace kerrow {
namespace {

constexpr std::size_t maximumFileSize = 8 * 1024 * 1024;
constexpr int rotatedFiles = 2;  // native-messaging-host.log.1 and .2
constexpr auto flushDelay = std::chrono::milliseconds(500);
constexpr std::size_t batchSize = 64 * 1024;  // lines wait for the flusher until this much
constexpr std::size_t maximumLineData = 64 * 1024;

// Messages carry text from the peers (a tab id, a disable-internet text). One call must stay one
// line, so control characters other than tab are written as escapes and no peer can forge lines.
bool isLineBreaking(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

void appendEscaped(std::string& line, std::string_view message) {
    if (std::none_of(message.begin(), message.end(), isLineBreaking)) {
        line.append(message);
        return;
    }
    for (const char character : message) {
        if (character == '\n') {
            line += "\\n";
        } else if (character == '\r') {
            line += "\\r";
        } else if (isLineBreaking(character)) {
            constexpr std::string_view hex = "0123456789abcdef";
            const auto byte = static_cast<unsigned char>(character);
            line.append("\\x").append(1, hex[byte >> 4]).append(1, hex[byte & 0xF]);
        } else {
            line += character;
        }
    }
}

// Appends `message`, cut to maximumLineData bytes (at a character boundary) with a note of what
// was left out.
void appendCapped(std::string& line, std::string_view message) {
    if (message.size() <= maximumLineData) {
        appendEscaped(line, message);
        return;
    }
    std::size_t kept = maximumLineData;
    while (kept > 0 && (static_cast<unsigned char>(message[kept]) & 0xC0) == 0x80) {
        --kept;  // not inside a UTF-8 sequence
    }
    appendEscaped(line, message.substr(0, kept));
    line.append(" [").append(std::to_string(message.size() - kept)).append(" bytes left out]");
}

void appendDigits(std::string& line, long value, int width) {
    std::array<char, 8> digits{};
    for (int index = width - 1; index >= 0; --index, value /= 10) {
        digits[static_cast<std::size_t>(index)] = static_cast<char>('0' + value % 10);
    }
    line.append(digits.data(), static_cast<std::size_t>(width));
}

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
        if (!next && errno == ENOENT && ::mkdirat(current.get(), name, 0700) == 0) {
            next = Descriptor(::openat(current.get(), name, flags));
        }
        current = std::move(next);
    }
    return current;
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
// standard error. Lines are formatted into a buffer that is written out whole (so every write ends
// at a line boundary and lines of several hosts appending to one file never mix) when it holds
// batchSize bytes, and by a flusher thread at most flushDelay after its first line. Before each
// write the file's size and identity are checked: an oversized log is rotated under an flock() of
// the file, and a file that another host rotated away is replaced by the current one, so no line
// lands in an unlinked file and the log stays bounded whatever the number of hosts.
class LogChannel {
  public:
    explicit LogChannel(const std::optional<std::filesystem::path>& directory) {
        if (!directory) {
            return;
        }
        try {
            directory_ = openDirectories(*directory);
            if (directory_) {
                checkDirectoryTrust(*directory, "log directory");
                file_ = openLogFile(directory_.get(), Logger::logFileName);
            }
        } catch (const std::exception&) {
            directory_ = Descriptor();
            file_ = Descriptor();
        }
        struct stat status {};
        if (file_ && ::fstat(file_.get(), &status) == 0) {
            identity_ = identity(status);
        }
    }

    ~LogChannel() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        if (flusher_.joinable()) {
            flusher_.join();
        }
        flush();
    }
    LogChannel(const LogChannel&) = delete;
    LogChannel& operator=(const LogChannel&) = delete;

    // One line, "<message>" or, with a detail, "<message>: <detail>".
    void write(Date timeStamp, std::string_view level, std::string_view message,
               std::optional<std::string_view> detail = std::nullopt) {
        std::unique_lock lock(mutex_);
        appendTimeStamp(timeStamp);
        buffer_.append(level).append(1, ' ');
        if (!detail) {
            appendCapped(buffer_, message);
        } else {
            std::string whole;
            whole.reserve(message.size() + detail->size() + 2);
            whole.append(message).append(": ").append(*detail);
            appendCapped(buffer_, whole);
        }
        buffer_ += '\n';
        if (buffer_.size() >= batchSize) {
            writeOut();
        } else if (!pending_) {
            pending_ = true;
            if (!flusher_.joinable()) {
                flusher_ = std::thread([this] { runFlusher(); });
            }
            lock.unlock();
            wake_.notify_one();
        }
    }

    void flush() {
        const std::lock_guard lock(mutex_);
        writeOut();
    }

  private:
    // "2026-11-22T09:14:03.042Z ", the calendar part formatted once per second.
    void appendTimeStamp(Date timeStamp) {
        const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(timeStamp);
        const auto seconds = std::chrono::floor<std::chrono::seconds>(milliseconds);
        if (seconds != cachedSecond_ || cachedPrefix_.empty()) {
            const std::time_t time = std::chrono::system_clock::to_time_t(seconds);
            std::tm fields{};
            ::gmtime_r(&time, &fields);
            std::array<char, 32> text{};
            const std::size_t length =
                std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.", &fields);
            cachedPrefix_.assign(text.data(), length);
            cachedSecond_ = seconds;
        }
        buffer_.append(cachedPrefix_);
        appendDigits(buffer_, static_cast<long>((milliseconds - seconds).count()), 3);
        buffer_.append("Z ");
    }

    // Writes the buffer out; the caller holds mutex_.
    void writeOut() {
        pending_ = false;
        if (buffer_.empty()) {
            return;
        }
        if (directory_) {
            keepFileCurrent();
        }
        const int target = file_ ? file_.get() : STDERR_FILENO;
        std::string_view rest = buffer_;
        while (!rest.empty()) {
            const ssize_t wrote = ::write(target, rest.data(), rest.size());
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            if (wrote <= 0) {
                break;  // a full disk or a closed standard error loses these lines, never the host
            }
            rest.remove_prefix(static_cast<std::size_t>(wrote));
        }
        buffer_.clear();
        if (buffer_.capacity() > 4 * batchSize) {
            buffer_.shrink_to_fit();
        }
    }

    // Reopens the log when another host rotated it away, and rotates it when it grew too large.
    // Lines go to standard error while no trusted file can be opened.
    void keepFileCurrent() {
        struct stat current {};
        const std::string name(Logger::logFileName);
        const bool exists =
            ::fstatat(directory_.get(), name.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0;
        if (!file_ || !exists || identity(current) != identity_) {
            reopen();
            return;
        }
        if (static_cast<std::size_t>(current.st_size) + buffer_.size() <= maximumFileSize) {
            return;
        }
        // Only one host rotates a given file: the others find it renamed once they hold the lock.
        if (::flock(file_.get(), LOCK_EX) == 0) {
            struct stat locked {};
            if (::fstatat(directory_.get(), name.c_str(), &locked, AT_SYMLINK_NOFOLLOW) == 0 &&
                identity(locked) == identity_) {
                for (int index = rotatedFiles; index > 0; --index) {
                    const std::string from =
                        index == 1 ? name : name + "." + std::to_string(index - 1);
                    const std::string to = name + "." + std::to_string(index);
                    ::renameat(directory_.get(), from.c_str(), directory_.get(), to.c_str());
                }
            }
            ::flock(file_.get(), LOCK_UN);
        }
        reopen();
    }

    void reopen() {
        file_ = openLogFile(directory_.get(), Logger::logFileName);
        struct stat status {};
        if (file_ && ::fstat(file_.get(), &status) == 0) {
            identity_ = identity(status);
        }
    }

    void runFlusher() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            wake_.wait(lock, [this] { return stopping_ || pending_; });
            wake_.wait_for(lock, flushDelay, [this] { return stopping_; });
            writeOut();
        }
    }

    std::mutex mutex_;
    // All guarded by mutex_.
    Descriptor directory_;  // invalid when lines go to standard error
    Descriptor file_;       // invalid while no trusted log file is open: standard error
    std::pair<dev_t, ino_t> identity_{};
    std::string buffer_;    // formatted lines not yet written
    bool pending_ = false;  // lines wait for the flusher
    std::chrono::sys_seconds cachedSecond_{};
    std::string cachedPrefix_;
    bool stopping_ = false;
    std::condition_variable wake_;
    std::thread flusher_;  // started with the first line that waits
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
    channel_->write(timeStamp, "info", message);
}

void Logger::logError(const std::exception& error, std::string_view message, Date timeStamp) const {
    channel_->write(timeStamp, "error", message, std::string_view(error.what()));
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
