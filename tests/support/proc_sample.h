// What /proc tells about a running process at one moment, thread by thread, for figures that
// need the CPU time and wake-ups of a window (the benchmarks' footprint and relay cost) rather
// than one number of /proc/<pid>/status (procFigure). Plain values; sample from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

namespace kerrow::test {

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

/// CPU time the process used between two samples: what each thread alive at `after` added since
/// `before` (a thread that ended in between takes its last moments with it).
[[nodiscard]] std::int64_t cpuNanosecondsBetween(const ProcessSample& before,
                                                 const ProcessSample& after);
/// Context switches between two samples, counted the same way.
[[nodiscard]] std::int64_t contextSwitchesBetween(const ProcessSample& before,
                                                  const ProcessSample& after);

}  // namespace kerrow::test
