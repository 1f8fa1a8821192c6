// Shared helpers of the unit and end-to-end tests: temporary directories, pipes, a test core
// service listening on a real Unix socket, bounded waits. Test code only; each helper is used from
// the test's own thread unless its comment says otherwise.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow::test {

using namespace std::chrono_literals;
using Duration = std::chrono::milliseconds;

/// A fresh directory (mode 0700) under $TMPDIR or /tmp, removed with its contents on destruction.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/// A pipe whose ends close on destruction unless released or closed before.
class Pipe {
  public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    [[nodiscard]] int readEnd() const { return fds_[0]; }
    [[nodiscard]] int writeEnd() const { return fds_[1]; }
    /// Gives up ownership of an end (for a FileHandle that takes it over).
    int releaseReadEnd();
    int releaseWriteEnd();
    void closeReadEnd();
    void closeWriteEnd();

  private:
    int fds_[2];
};

/// Writes all bytes to a descriptor; fails the test on error.
void writeAll(int fd, std::string_view bytes);
/// Reads exactly `n` bytes within `timeout`; fewer at end of file or time-out.
[[nodiscard]] std::string readExactly(int fd, std::size_t n, Duration timeout = 5000ms);
/// Reads until end of file or `timeout`.
[[nodiscard]] std::string readToEnd(int fd, Duration timeout = 5000ms);

/// The 4-byte little-endian length followed by the body.
[[nodiscard]] std::string frame(std::string_view body);
/// Reads one such frame within `timeout`; no value at end of file or time-out.
[[nodiscard]] std::optional<std::string> readFrameFrom(int fd, Duration timeout = 5000ms);

/// Sets an environment variable (or unsets it, given no value) and restores its earlier state on
/// destruction. Only while no other thread of the test reads the environment.
class ScopedEnvironmentVariable {
  public:
    ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
    ~ScopedEnvironmentVariable();
    ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
    ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;
    void set(const std::optional<std::string>& value);

  private:
    std::string name_;
    std::optional<std::string> saved_;
};

/// Polls `condition` every few milliseconds until it holds or `timeout` passes.
bool waitUntil(const std::function<bool()>& condition, Duration timeout = 5000ms);

/// The whole content of a file ("" when missing).
[[nodiscard]] std::string readFile(const std::filesystem::path& path);
/// The messages of the log lines in a file: each line without its time stamp ("info Foo").
[[nodiscard]] std::vector<std::string> logMessages(const std::filesystem::path& logFile);

/// One accepted connection of the test core service.
class CoreConnection {
  public:
    explicit CoreConnection(int fd) : fd_(fd) {}
    ~CoreConnection();
    CoreConnection(CoreConnection&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    CoreConnection& operator=(CoreConnection&&) = delete;
    CoreConnection(const CoreConnection&) = delete;
    CoreConnection& operator=(const CoreConnection&) = delete;

    /// The next message (one socket frame) from the host, or no value at end or time-out.
    [[nodiscard]] std::optional<std::string> receive(Duration timeout = 5000ms);
    /// Sends one message as a socket frame.
    void send(std::string_view message);
    /// Sends raw bytes, unframed.
    void sendRaw(std::string_view bytes);
    /// True when the host closed its side (end of file within `timeout`).
    [[nodiscard]] bool waitForClose(Duration timeout = 5000ms);
    void close();
    [[nodiscard]] int fd() const { return fd_; }

  private:
    int fd_;
};

/// A stand-in core service: listens on a Unix stream socket at `socketPath`, creating its
/// directory with mode 0700.
class TestCoreService {
  public:
    explicit TestCoreService(std::filesystem::path socketPath);
    ~TestCoreService();
    TestCoreService(const TestCoreService&) = delete;
    TestCoreService& operator=(const TestCoreService&) = delete;

    /// The next connection within `timeout`, or no value.
    [[nodiscard]] std::optional<CoreConnection> accept(Duration timeout = 5000ms);
    /// Stops listening and removes the socket file.
    void stop();
    [[nodiscard]] const std::filesystem::path& socketPath() const { return socketPath_; }

  private:
    std::filesystem::path socketPath_;
    int listener_ = -1;
};

}  // namespace kerrow::test
