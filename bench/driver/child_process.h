// ChildProcess: a program under measurement, started the way a browser starts a native messaging
// host: standard input and output are pipes held by the driver, standard error goes to a file,
// and the environment is exactly the one given. Also the /proc readings the figures are made of.
// Driver code only; one instance is used from one thread, except that its descriptors may be
// written and read by the driver's writer and reader threads.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bench/driver/wire.h"

namespace kerrow::bench {

class ChildProcess {
  public:
    /// Starts argv[0] (searched in PATH when it has no slash). Throws BenchError on failure.
    ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                 const std::filesystem::path& standardErrorFile);
    /// Kills the process if it still runs, and reaps it.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] int input() const { return input_; }    // our write end of its standard input
    [[nodiscard]] int output() const { return output_; }  // our read end of its standard output

    /// Ends its standard input, as a browser does when the extension disconnects.
    void closeInput();
    /// Waits for the process to end; its exit status (128 + signal for a signal), or no value
    /// when it still runs at `deadline`. The resource usage of the whole life is kept.
    [[nodiscard]] std::optional<int> wait(Deadline deadline);
    [[nodiscard]] const rusage& usage() const { return usage_; }
    void kill();

  private:
    pid_t pid_ = -1;
    int pidfd_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::optional<int> status_;
    rusage usage_{};
};

/// What /proc tells about a running process at one moment.
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

[[nodiscard]] ProcessSample sampleProcess(pid_t pid);

/// CPU time the process used between two samples: what each thread alive at `after` added since
/// `before` (a thread that ended in between takes its last moments with it).
[[nodiscard]] std::int64_t cpuNanosecondsBetween(const ProcessSample& before,
                                                 const ProcessSample& after);
/// Context switches between two samples, counted the same way.
[[nodiscard]] std::int64_t contextSwitchesBetween(const ProcessSample& before,
                                                  const ProcessSample& after);

}  // namespace kerrow::bench
