// Helpers of the fault and abuse tests: what /proc tells about a running host (memory, processor
// time, descriptors, children), readers of its two outputs that run on threads of their own, and
// HostileCore, a stand-in core service in a process of its own that can listen as another user.
// Test code only; each object is used from the test's thread unless its comment says otherwise.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/host_process.h"
#include "tests/support/test_support.h"

namespace kerrow::test {

class HostSession;

/// The resident set and its peak, in KiB, from /proc/<pid>/status (0 when unreadable).
[[nodiscard]] std::int64_t residentKilobytes(pid_t pid);
[[nodiscard]] std::int64_t peakResidentKilobytes(pid_t pid);
/// User plus system processor time the process has used so far.
[[nodiscard]] std::chrono::milliseconds processorTime(pid_t pid);

/// One open descriptor of a process and the flags it was opened with (from fdinfo).
struct OpenDescriptor {
    int number;
    unsigned flags;
    std::string target;  // where /proc/<pid>/fd/<number> points
};
[[nodiscard]] std::vector<OpenDescriptor> openDescriptors(pid_t pid);
/// The processes that any thread of `pid` has started and that still exist.
[[nodiscard]] std::vector<pid_t> childProcesses(pid_t pid);

/// Marks every descriptor of the test process above 2 close-on-exec, so that a host started now
/// has only the three standard streams from us (as from a browser), whatever our parent left open.
void markInheritedDescriptorsCloseOnExec();

/// True once the host has logged `count` connections to the core service in all. It logs each
/// connection (first, reconnected, or after a repeated start) once the connection is in place, so
/// a frame from the browser read after that goes over it. (A core service that has accepted may
/// still see the host's connection being installed: a frame the host reads in that instant is
/// dropped like any frame read while the core service is away.)
[[nodiscard]] bool waitForConnections(const HostSession& session, long count,
                                      Duration timeout = 15'000ms);

/// A little-endian 32-bit length prefix on its own (for hostile and partial frames).
[[nodiscard]] std::string lengthPrefix(std::uint32_t length);

/// Reads frames from a descriptor on a thread of its own until `expected` arrived, a frame for
/// which `isLast` holds arrived, the stream ends, or `idle` passes without a frame. frames() is
/// safe to call once finished() is true.
class FrameCollector {
  public:
    FrameCollector(int fd, std::size_t expected, Duration idle,
                   std::function<bool(const std::string&)> isLast = {});
    ~FrameCollector();
    FrameCollector(const FrameCollector&) = delete;
    FrameCollector& operator=(const FrameCollector&) = delete;

    /// Waits for the reader to finish, at most `timeout`; true when it has.
    bool wait(Duration timeout);
    [[nodiscard]] bool finished() const { return finished_.load(); }
    [[nodiscard]] const std::vector<std::string>& frames() const { return frames_; }

  private:
    std::vector<std::string> frames_;
    std::atomic<bool> finished_{false};
    std::thread reader_;
};

/// A core service that runs as a separate process (tests/faults/hostile_core.cc): it binds the
/// socket at `socketPath` as the current user, optionally gives the socket file to `socketOwner`
/// and drops to `listenAs` before it listens, then sends `command` on every connection it accepts.
/// Dropping to another user needs root. Ends when destroyed.
class HostileCore {
  public:
    struct Options {
        std::optional<uid_t> socketOwner;
        std::optional<uid_t> listenAs;
        std::string command = "kerrow.closeTab-666";
    };
    HostileCore(const std::filesystem::path& directory, const std::filesystem::path& socketPath,
                const Options& options);

    /// True once it listens (it says so on its standard output).
    [[nodiscard]] bool waitUntilListening(Duration timeout = 5000ms);
    /// The connections it has accepted so far.
    [[nodiscard]] int acceptedConnections();

  private:
    HostProcess process_;
    std::string output_;
};

}  // namespace kerrow::test
