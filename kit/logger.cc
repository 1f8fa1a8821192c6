#include "kit/logger.h"

#include <fcntl.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace kerrow {
namespace {

// Messages carry text from the peers (a tab id, a disable-internet text). One call must stay one
// line, so control characters other than tab are written as escapes and no peer can forge lines.
bool isLineBreaking(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return (byte < 0x20 && byte != '\t') || byte == 0x7F;
}

std::string escapedControls(std::string_view message) {
    std::string escaped;
    escaped.reserve(message.size() + 16);
    for (const char character : message) {
        if (character == '\n') {
            escaped += "\\n";
        } else if (character == '\r') {
            escaped += "\\r";
        } else if (isLineBreaking(character)) {
            constexpr std::string_view hex = "0123456789abcdef";
            const auto byte = static_cast<unsigned char>(character);
            escaped.append("\\x").append(1, hex[byte >> 4]).append(1, hex[byte & 0xF]);
        } else {
            escaped += character;
        }
    }
    return escaped;
}

constexpr std::size_t maximumFileSize = 8 * 1024 * 1024;
constexpr int rotatedFiles = 2;  // native-messaging-host.log.1 and .2
constexpr auto flushDelay = std::chrono::milliseconds(500);
constexpr const char* linePattern = "%Y-%m-%dT%H:%M:%S.%eZ %l %v";

// Creates `directory` and any missing parents with mode 0700.
bool makeDirectories(const std::filesystem::path& directory) {
    std::error_code error;
    if (std::filesystem::is_directory(directory, error)) {
        return true;
    }
    if (directory.has_parent_path() && directory.parent_path() != directory &&
        !makeDirectories(directory.parent_path())) {
        return false;
    }
    return ::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST;
}

// Opens the log for appending: created 0600, close-on-exec, never through a symbolic link.
// Returns -1 on failure.
int openLogFile(const std::filesystem::path& file) {
    const int descriptor =
        ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor >= 0) {
        ::fchmod(descriptor, 0600);
    }
    return descriptor;
}

// A size-rotated log file. Lines collect in a buffer that is written out whole, so every write
// ends at a line boundary and lines of several hosts appending to one file never mix. The buffer
// is written when it fills, and by a flusher thread at most flushDelay after its first line, so
// an idle host never wakes up for its log.
class RotatingFileSink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    RotatingFileSink(std::filesystem::path file, int descriptor)
        : file_(std::move(file)), descriptor_(descriptor), flusher_([this] { runFlusher(); }) {
        struct stat status {};
        size_ = ::fstat(descriptor_, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
    }

    ~RotatingFileSink() override {
        {
            const std::lock_guard lock(flushMutex_);
            stopping_ = true;
        }
        flushWake_.notify_one();
        flusher_.join();
        writeOut();
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        buffer_.append(line.data(), line.size());
        size_ += line.size();
        if (size_ > maximumFileSize) {
            rotate();
        } else if (buffer_.size() >= bufferSize) {
            writeOut();
        }
        if (!dirty_.exchange(true)) {
            const std::lock_guard lock(flushMutex_);
            flushWake_.notify_one();
        }
    }

    void flush_() override { writeOut(); }

  private:
    void writeOut() {
        std::string_view pending = buffer_;
        while (descriptor_ >= 0 && !pending.empty()) {
            const ssize_t wrote = ::write(descriptor_, pending.data(), pending.size());
            if (wrote < 0 && errno == EINTR) {
                continue;
            }
            if (wrote <= 0) {
                break;  // a full disk loses these lines, never the host
            }
            pending.remove_prefix(static_cast<std::size_t>(wrote));
        }
        buffer_.clear();
    }

    void rotate() {
        writeOut();
        ::close(descriptor_);
        for (int index = rotatedFiles; index > 0; --index) {
            const auto from = index == 1 ? file_ : rotatedName(index - 1);
            std::rename(from.c_str(), rotatedName(index).c_str());
        }
        descriptor_ = openLogFile(file_);
        size_ = 0;
    }

    [[nodiscard]] std::filesystem::path rotatedName(int index) const {
        return file_.string() + "." + std::to_string(index);
    }

    void runFlusher() {
        std::unique_lock lock(flushMutex_);
        while (!stopping_) {
            flushWake_.wait(lock, [this] { return stopping_ || dirty_.load(); });
            flushWake_.wait_for(lock, flushDelay, [this] { return stopping_; });
            dirty_ = false;
            lock.unlock();
            flush();
            lock.lock();
        }
    }

    static constexpr std::size_t bufferSize = 64 * 1024;

    const std::filesystem::path file_;
    // Guarded by the sink's mutex: the descriptor (-1 when reopening after rotation failed), the
    // lines not yet written, and the file's size as this process has seen it grow.
    int descriptor_;
    std::string buffer_;
    std::size_t size_ = 0;

    std::atomic<bool> dirty_{false};  // lines written since the last flush
    std::mutex flushMutex_;
    std::condition_variable flushWake_;
    bool stopping_ = false;  // guarded by flushMutex_
    std::thread flusher_;
};

}  // namespace

// One spdlog logger per destination, shared by every Logger writing there.
class LogChannel {
  public:
    explicit LogChannel(std::shared_ptr<spdlog::sinks::sink> sink)
        : logger_("kerrow", std::move(sink)) {
        logger_.set_formatter(std::make_unique<spdlog::pattern_formatter>(
            linePattern, spdlog::pattern_time_type::utc));
        logger_.set_level(spdlog::level::info);
    }

    void write(Date timeStamp, spdlog::level::level_enum level, std::string_view message) {
        if (std::none_of(message.begin(), message.end(), isLineBreaking)) {
            logger_.log(timeStamp, spdlog::source_loc{}, level, message);
        } else {
            logger_.log(timeStamp, spdlog::source_loc{}, level, escapedControls(message));
        }
    }

    void flush() { logger_.flush(); }

  private:
    spdlog::logger logger_;
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

std::shared_ptr<LogChannel> makeChannel(const std::optional<std::filesystem::path>& directory) {
    if (directory && makeDirectories(*directory)) {
        const auto file = *directory / Logger::logFileName;
        if (const int descriptor = openLogFile(file); descriptor >= 0) {
            return std::make_shared<LogChannel>(
                std::make_shared<RotatingFileSink>(file, descriptor));
        }
    }
    return std::make_shared<LogChannel>(std::make_shared<spdlog::sinks::stderr_sink_mt>());
}

}  // namespace

Logger::Logger(Date /*date*/, const std::optional<std::filesystem::path>& logsDir) {
    const auto directory = logsDir ? logsDir : defaultLogsDirectory();
    const std::string key = directory ? directory->string() : std::string();
    auto& all = channels();
    const std::lock_guard lock(all.mutex);
    auto& channel = all.byDirectory[key];
    if (!channel) {
        channel = makeChannel(directory);
    }
    channel_ = channel;
}

void Logger::logInformation(std::string_view message, Date timeStamp) const {
    channel_->write(timeStamp, spdlog::level::info, message);
}

void Logger::logError(const std::exception& error, std::string_view message, Date timeStamp) const {
    std::string line;
    line.reserve(message.size() + 64);
    line.append(message).append(": ").append(error.what());
    channel_->write(timeStamp, spdlog::level::err, line);
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
