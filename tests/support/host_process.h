// Starting a program the way a browser starts a native messaging host: standard input and output
// on our pipes, no other descriptor of ours, default signal mask and dispositions. HostProcess
// owns one for a test or a benchmark (frames in and out with bounded waits, exit status) and
// kills and reaps it when destroyed. Failures throw std::system_error. Use a HostProcess from one
// thread. The /proc readers below (for tests and the benchmarks' figures) work from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/test_support.h"

namespace kerrow::test {

using Environment = std::map<std::string, std::string>;

struct LaunchedProcess {
    pid_t pid = -1;
    Descriptor input;   // our write end of its standard input
    Descriptor output;  // our read end of its standard output
};

/// Starts `binary` (a path, or a name in PATH). No `environment`: ours; an empty `standardError`
/// path: ours. The caller reaps the process.
[[nodiscard]] LaunchedProcess launchProcess(const std::filesystem::path& binary,
                                            const std::vector<std::string>& arguments,
                                            const std::optional<Environment>& environment,
                                            const std::filesystem::path& standardError);

/// Reaps the child `pid` within `timeout`: its exit status (128 + signal number after a signal),
/// or no value while it runs.
[[nodiscard]] std::optional<int> waitForExit(pid_t pid, Duration timeout = 5000ms);

class HostProcess {
  public:
    HostProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                const std::optional<Environment>& environment,
                const std::filesystem::path& standardErrorFile);
    ~HostProcess();  // kills the process if it still runs, and reaps it
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    /// Writes one frame with `body` to its standard input; sendRaw() writes bytes as they are.
    void send(std::string_view body) { sendRaw(frame(body)); }
    void sendRaw(std::string_view bytes) { writeAll(process_.input.get(), bytes); }
    /// The next frame it wrote to standard output, or no value at end or time-out.
    [[nodiscard]] std::optional<std::string> receive(Duration timeout = 5000ms) {
        return process_.output ? readFrameFrom(process_.output.get(), timeout) : std::nullopt;
    }
    /// Everything else on standard output until end of file or `timeout`.
    [[nodiscard]] std::string receiveRest(Duration timeout = 5000ms) {
        return process_.output ? readExactly(process_.output.get(), std::string::npos, timeout)
                               : "";
    }
    /// Ends its standard input (the browser closing the connection).
    void closeInput() { process_.input.reset(); }
    void closeOutput() { process_.output.reset(); }
    /// As waitForExit(pid), but the status stays known once reaped.
    [[nodiscard]] std::optional<int> waitForExit(Duration timeout = 5000ms) {
        return status_ ? status_ : (status_ = test::waitForExit(process_.pid, timeout));
    }

    /// What it wrote on standard error so far ("" when that is not a file of ours).
    [[nodiscard]] std::string standardError() const { return readFile(standardError_); }
    [[nodiscard]] pid_t pid() const { return process_.pid; }
    [[nodiscard]] int inputFd() const { return process_.input.get(); }
    [[nodiscard]] int outputFd() const { return process_.output.get(); }

  private:
    LaunchedProcess process_;
    std::filesystem::path standardError_;
    std::optional<int> status_;  // once reaped
};

/// The figure "Name: <number> ..." of /proc/<pid>/<file> ("status", "smaps_rollup"); 0 if missing.
[[nodiscard]] std::int64_t procFigure(pid_t pid, std::string_view file, std::string_view name);

/// The open descriptors of process `pid`, each with the flags it was opened with (from fdinfo).
[[nodiscard]] std::map<int, unsigned> openDescriptors(pid_t pid);

/// What /proc tells about a process at one moment, thread by thread.
struct ProcessSample {
    struct Thread {
        std::int64_t cpuNanoseconds = 0;   // on a CPU, user and kernel (schedstat)
        std::int64_t contextSwitches = 0;  // voluntary and involuntary: wake-ups, roughly
    };
    std::map<int, Thread> threadsById;
    std::int64_t residentKiB = 0;  // VmRSS
    std::int64_t privateKiB = 0;   // pages of this process alone (smaps_rollup)
    int threads = 0;
};

/// The process `pid` now, from /proc/<pid>/{status,smaps_rollup,task/*}; empty when it is gone.
[[nodiscard]] ProcessSample sampleProcess(pid_t pid);

/// What each thread alive at `after` added since `before` (a thread ended between is lost).
[[nodiscard]] std::int64_t cpuNanosecondsBetween(const ProcessSample& before,
                                                 const ProcessSample& after);
[[nodiscard]] std::int64_t contextSwitchesBetween(const ProcessSample& before,
                                                  const ProcessSample& after);

}  // namespace kerrow::test
