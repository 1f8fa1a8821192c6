#include "tests/support/test_support.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace kerrow::test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Waits until `fd` is readable; false at `deadline`.
bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd entry{fd, POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
        if (ready != 0 && !(ready < 0 && errno == EINTR)) {
            return ready > 0;
        }
    }
}

void setVariable(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        ::setenv(name.c_str(), value->c_str(), 1);  // NOLINT(concurrency-mt-unsafe): see .h
    } else {
        ::unsetenv(name.c_str());  // NOLINT(concurrency-mt-unsafe): see .h
    }
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "kerrow-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        fail("mkdtemp " + pattern);
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
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        fail("pipe2");
    }
    readEnd.reset(ends[0]);
    writeEnd.reset(ends[1]);
}

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t wrote = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (wrote < 0 && errno == ENOTSOCK) {
            wrote = ::write(fd, bytes.data(), bytes.size());
        }
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote <= 0) {
            fail("write");
        }
        bytes.remove_prefix(static_cast<std::size_t>(wrote));
    }
}

std::string readExactly(int fd, std::size_t n, Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string bytes;
    char buffer[65536];
    while (bytes.size() < n && waitReadable(fd, deadline)) {
        const ssize_t got = ::read(fd, buffer, std::min(sizeof buffer, n - bytes.size()));
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    return bytes;
}

std::optional<std::string> readFrameFrom(int fd, Duration timeout) {
    const std::string header = readExactly(fd, frameHeaderLength, timeout);
    if (header.size() < frameHeaderLength) {
        return std::nullopt;
    }
    const std::uint32_t length = decodeFrameLength(header);
    std::string body = readExactly(fd, length, timeout);
    return body.size() < length ? std::nullopt : std::optional(std::move(body));
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name,
                                                     const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* saved = std::getenv(name_.c_str())) {  // NOLINT(concurrency-mt-unsafe): see .h
        saved_ = saved;
    }
    setVariable(name_, value);
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
    setVariable(name_, saved_);
}

std::size_t heapInUse() {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
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
        messages.push_back(line.substr(line.find(' ') + 1));  // npos + 1 is 0: the whole line
    }
    return messages;
}

bool CoreConnection::waitForClose(Duration timeout) {
    (void)readExactly(socket_.get(), std::string::npos, timeout);  // until end of file or time-out
    char byte = 0;
    const ssize_t got = ::recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
    return got == 0 || (got < 0 && errno != EAGAIN);
}

TestCoreService::TestCoreService(std::filesystem::path socketPath)
    : socketPath_(std::move(socketPath)),
      listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    std::filesystem::create_directories(socketPath_.parent_path());
    ::chmod(socketPath_.parent_path().c_str(), 0700);
    std::filesystem::remove(socketPath_);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath_.c_str(), sizeof address.sun_path - 1);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 16) != 0) {
        fail("listen on " + socketPath_.string());
    }
}

std::optional<CoreConnection> TestCoreService::accept(Duration timeout) {
    if (!waitReadable(listener_.get(), std::chrono::steady_clock::now() + timeout)) {
        return std::nullopt;
    }
    const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    return fd < 0 ? std::nullopt : std::optional<CoreConnection>(std::in_place, fd);
}

TestCoreService::~TestCoreService() {
    std::error_code ignored;
    std::filesystem::remove(socketPath_, ignored);
}

}  // namespace kerrow::test
