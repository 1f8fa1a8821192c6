// Helpers of the fault and abuse tests beyond tests/support: what /proc tells about a running
// host's descriptors and children, and a reader of frames on a thread of its own. Test code only;
// each object is used from the test's thread unless its comment says otherwise.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/host_session.h"

namespace kerrow::test {

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
/// connection once it is in place, so a frame from the browser read after that goes over it.
[[nodiscard]] bool waitForConnections(const HostSession& session, long count,
                                      Duration timeout = 15'000ms);

/// Reads frames from a descriptor on a thread of its own until `expected` arrived, a frame for
/// which `isLast` holds arrived, the stream ends, or `idle` passes without a frame. frames() is
/// safe to call once finished() is true.
class FrameCollector {
  public:
    FrameCollector(int fd, std::size_t expected, Duration idle,
                   std::function<bool(const std::string&)> isLast = {});
    ~FrameCollector() { reader_.join(); }
    FrameCollector(const FrameCollector&) = delete;
    FrameCollector& operator=(const FrameCollector&) = delete;

    /// Waits for the reader to finish, at most `timeout`; true when it has.
    bool wait(Duration timeout) {
        return waitUntil([this] { return finished(); }, timeout);
    }
    [[nodiscard]] bool finished() const { return finished_.load(); }
    [[nodiscard]] const std::vector<std::string>& frames() const { return frames_; }

  private:
    std::vector<std::string> frames_;
    std::atomic<bool> finished_{false};
    std::thread reader_;
};

}  // namespace kerrow::test
