#include "tests/support/test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace kerrow::test {
namespace {

// Waits until `fd` is readable; false on time-out.
bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

std::string readUpTo(int fd, std::size_t n, Duration timeout, bool untilEnd) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string bytes;
    char buffer[65536];
    while (untilEnd || bytes.size() < n) {
        if (!waitReadable(fd, deadline)) {
            break;
        }
        const std::size_t wanted =
            untilEnd ? sizeof buffer : std::min(sizeof buffer, n - bytes.size());
        const ssize_t got = ::read(fd, buffer, wanted);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    return bytes;
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    std::string pattern =
        std::string(base != nullptr && base[0] == '/' ? base : "/tmp") + "/kerrow-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
}

Pipe::Pipe() {
    if (::pipe2(fds_, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe2: " << std::strerror(errno);
        fds_[0] = fds_[1] = -1;
    }
}

Pipe::~Pipe() {
    closeReadEnd();
    closeWriteEnd();
}

int Pipe::releaseReadEnd() {
    return std::exchange(fds_[0], -1);
}
int Pipe::releaseWriteEnd() {
    return std::exchange(fds_[1], -1);
}

void Pipe::closeReadEnd() {
    if (fds_[0] >= 0) {
        ::close(std::exchange(fds_[0], -1));
    }
}

void Pipe::closeWriteEnd() {
    if (fds_[1] >= 0) {
        ::close(std::exchange(fds_[1], -1));
    }
}

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t wrote = ::write(fd, bytes.data(), bytes.size());
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            ADD_FAILURE() << "write: " << std::strerror(errno);
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(wrote));
    }
}

std::string readExactly(int fd, std::size_t n, Duration timeout) {
    return readUpTo(fd, n, timeout, false);
}

std::string readToEnd(int fd, Duration timeout) {
    return readUpTo(fd, 0, timeout, true);
}

std::string frame(std::string_view body) {
    const auto n = static_cast<std::uint32_t>(body.size());
    std::string bytes{static_cast<char>(n & 0xFF), static_cast<char>((n >> 8) & 0xFF),
                      static_cast<char>((n >> 16) & 0xFF), static_cast<char>((n >> 24) & 0xFF)};
    bytes.append(body);
    return bytes;
}

std::optional<std::string> readFrameFrom(int fd, Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const std::string prefix = readExactly(fd, 4, timeout);
    if (prefix.size() < 4) {
        return std::nullopt;
    }
    const auto byte = [&](int index) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(prefix[index]));
    };
    const std::uint32_t n = byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24;
    const auto left =
        std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
    std::string body = readExactly(fd, n, std::max(left, Duration(1)));
    if (body.size() < n) {
        return std::nullopt;
    }
    return body;
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* saved = std::getenv(name_.c_str())) {  // NOLINT(concurrency-mt-unsafe)
        saved_ = saved;
    }
    set(value);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
    set(saved_);
}

void ScopedEnvironmentVariable::set(const std::optional<std::string>& value) {
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    } else {
        ::unsetenv(name_.c_str());  // NOLINT(concurrency-mt-unsafe)
    }
}

bool waitUntil(const std::function<bool()>& condition, Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

std::vector<std::string> logMessages(const std::filesystem::path& logFile) {
    std::vector<std::string> messages;
    std::istringstream lines(readFile(logFile));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t space = line.find(' ');
        messages.push_back(space == std::string::npos ? line : line.substr(space + 1));
    }
    return messages;
}

CoreConnection::~CoreConnection() {
    close();
}

std::optional<std::string> CoreConnection::receive(Duration timeout) {
    return readFrameFrom(fd_, timeout);
}

void CoreConnection::send(std::string_view message) {
    sendRaw(frame(message));
}

void CoreConnection::sendRaw(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            ADD_FAILURE() << "send: " << std::strerror(errno);
            return;
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

bool CoreConnection::waitForClose(Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (waitReadable(fd_, deadline)) {
        const ssize_t got = ::recv(fd_, buffer, sizeof buffer, 0);
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
            return true;
        }
    }
    return false;
}

void CoreConnection::close() {
    if (fd_ >= 0) {
        ::close(std::exchange(fd_, -1));
    }
}

TestCoreService::TestCoreService(std::filesystem::path socketPath)
    : socketPath_(std::move(socketPath)) {
    std::filesystem::create_directories(socketPath_.parent_path());
    ::chmod(socketPath_.parent_path().c_str(), 0700);
    std::filesystem::remove(socketPath_);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath_.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 16) != 0) {
        ADD_FAILURE() << "listen on " << socketPath_ << ": " << std::strerror(errno);
    }
}

TestCoreService::~TestCoreService() {
    stop();
}

std::optional<CoreConnection> TestCoreService::accept(Duration timeout) {
    if (listener_ < 0 || !waitReadable(listener_, std::chrono::steady_clock::now() + timeout)) {
        return std::nullopt;
    }
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
        return std::nullopt;
    }
    return CoreConnection(fd);
}

void TestCoreService::stop() {
    if (listener_ >= 0) {
        ::close(std::exchange(listener_, -1));
        std::error_code ignored;
        std::filesystem::remove(socketPath_, ignored);
    }
}

}  // namespace kerrow::test
