// Starting a program the way a browser starts a native messaging host, and watching it run.
//
// launchProcess() starts it with standard input and output on pipes held by the caller, the
// default signal mask and dispositions, the given arguments, and either the given environment
// (nothing inherited) or ours; standard error goes to a file or is ours. HostProcess owns such a
// process for a test or a benchmark: frames in and out with bounded waits, signals, exit status;
// it kills and reaps the process when destroyed. No GoogleTest: failures throw
// std::system_error. Use a HostProcess from one thread (its descriptors may be read and written
// by threads of the caller's own); the /proc readers from any thread.
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

/// Starts `binary` (a path, or a name looked up in PATH) with `arguments` (argv[1]...). No
/// `environment`: ours; an empty `standardError` path: ours. The caller reaps the process. Throws
/// std::system_error "cannot start the host <binary>: <reason>".
[[nodiscard]] LaunchedProcess launchProcess(const std::filesystem::path& binary,
                                            const std::vector<std::string>& arguments,
                                            const std::optional<Environment>& environment,
                                            const std::filesystem::path& standardError);

class HostProcess {
  public:
    HostProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                const std::optional<Environment>& environment,
                const std::filesystem::path& standardErrorFile);
    /// Kills the process if it still runs, and reaps it.
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    /// Writes one frame with `body` to its standard input.
    void send(std::string_view body) { sendRaw(frame(body)); }
    /// Writes raw bytes to its standard input.
    void sendRaw(std::string_view bytes) { writeAll(process_.input.get(), bytes); }
    /// The next frame it wrote to standard output, or no value at end or time-out.
    [[nodiscard]] std::optional<std::string> receive(Duration timeout = 5000ms);
    /// Everything else on standard output until end of file or `timeout`.
    [[nodiscard]] std::string receiveRest(Duration timeout = 5000ms);
    /// Ends its standard input (the browser closing the connection).
    void closeInput() { process_.input.reset(); }
    /// Closes our read end of its standard output.
    void closeOutput() { process_.output.reset(); }
    void signal(int number) const;
    /// The exit status (128 + signal number when a signal ended it), or no value when the
    /// process still runs after `timeout`.
    [[nodiscard]] std::optional<int> waitForExit(Duration timeout = 5000ms);
    /// True while the process has not ended (it is not reaped by this call).
    [[nodiscard]] bool running() const;

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

/// A figure of /proc/<pid>/<file> that is written "Name: <number> ...": `file` "status"
/// (VmRSS, VmHWM, Threads) or "smaps_rollup" (Private_Clean, Private_Dirty, in KiB). 0 when
/// the file or the field is missing.
[[nodiscard]] std::int64_t procFigure(pid_t pid, std::string_view file, std::string_view name);

}  // namespace kerrow::test
