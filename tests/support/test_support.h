// The building blocks of every test that starts or observes a host: temporary directories, pipes,
// bounded reads and waits, frames, log lines, and a test core service on a real Unix socket. No
// GoogleTest: failures throw std::system_error or std::runtime_error. One thread per helper.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/frame_codec.h"
#include "platform/descriptor.h"

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

/// A pipe (close-on-exec) whose ends close on destruction unless released or reset before.
struct Pipe {
    Pipe();
    Descriptor readEnd;
    Descriptor writeEnd;
};

/// Writes all bytes to a descriptor (a socket without SIGPIPE); throws on error.
void writeAll(int fd, std::string_view bytes);
/// Reads exactly `n` bytes (npos: all) within `timeout`; fewer at end of file or time-out.
[[nodiscard]] std::string readExactly(int fd, std::size_t n, Duration timeout = 5000ms);

[[nodiscard]] inline std::string frame(std::string_view body) {
    return encodeFrame(body);
}
/// The message the host writes to the extension to close tab `id`.
[[nodiscard]] inline std::string closeTabFrame(int id) {
    return R"({"action":"closeTab","payload":{"id":)" + std::to_string(id) + "}}";
}
/// Reads one frame, waiting at most `timeout` for its header and for its body; no value at end
/// of file or time-out.
[[nodiscard]] std::optional<std::string> readFrameFrom(int fd, Duration timeout = 5000ms);

/// Sets (or, given no value, unsets) a variable until destruction; no other thread may read it.
class ScopedEnvironmentVariable {
  public:
    ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value);
    ~ScopedEnvironmentVariable();
    ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
    ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

  private:
    std::string name_;
    std::optional<std::string> saved_;
};

bool waitUntil(const std::function<bool()>& condition, Duration timeout = 5000ms);

/// The bytes the heap hands out now (glibc's count); 0 where a sanitizer keeps the heap.
[[nodiscard]] std::size_t heapInUse();

/// The whole content of a file ("" when missing); its log lines without time stamps ("info Foo").
[[nodiscard]] std::string readFile(const std::filesystem::path& path);
[[nodiscard]] std::vector<std::string> logMessages(const std::filesystem::path& logFile);

/// One accepted connection of the test core service.
class CoreConnection {
  public:
    explicit CoreConnection(int fd) : socket_(fd) {}

    /// The next message (one socket frame) from the host, or no value at end or time-out.
    [[nodiscard]] std::optional<std::string> receive(Duration timeout = 5000ms) {
        return readFrameFrom(socket_.get(), timeout);
    }
    void send(std::string_view message) { sendRaw(frame(message)); }
    void sendRaw(std::string_view bytes) { writeAll(socket_.get(), bytes); }
    /// True when the host closed its side (end of file within `timeout`).
    [[nodiscard]] bool waitForClose(Duration timeout = 5000ms);
    void close() { socket_.reset(); }
    [[nodiscard]] int fd() const { return socket_.get(); }

  private:
    Descriptor socket_;
};

/// A stand-in core service listening at `socketPath`, its directory created with mode 0700.
class TestCoreService {
  public:
    explicit TestCoreService(std::filesystem::path socketPath);
    ~TestCoreService();  // stops listening and removes the socket file
    TestCoreService(const TestCoreService&) = delete;
    TestCoreService& operator=(const TestCoreService&) = delete;

    [[nodiscard]] std::optional<CoreConnection> accept(Duration timeout = 5000ms);
    [[nodiscard]] const std::filesystem::path& socketPath() const { return socketPath_; }

  private:
    std::filesystem::path socketPath_;
    Descriptor listener_;
};

}  // namespace kerrow::test
