// Pieces shared by the figures: the bodies sent, a writer thread that cannot outlive a failed
// measurement, the relay loop, the end of a run. Driver code only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "bench/driver/bench_session.h"
#include "tests/support/host_process.h"

namespace kerrow::bench {

using test::contextSwitchesBetween;
using test::cpuNanosecondsBetween;
using test::ProcessSample;
using test::sampleProcess;

/// A JSON text of exactly `size` bytes (at least 11), as an extension's tab list might be.
[[nodiscard]] std::string extensionMessage(std::size_t size);

/// Bytes to write in one go: `frame` repeated until it fills about 256 KiB (at least once).
[[nodiscard]] std::string batchOf(std::string_view frame, std::size_t& framesInBatch);

/// Runs `work` on its own thread. join() rethrows what it threw. Leaving without join() (a failed
/// measurement) first kills the program, so that a write blocked on it returns.
class WriterThread {
  public:
    WriterThread(HostProcess& child, std::function<void()> work);
    ~WriterThread();
    WriterThread(const WriterThread&) = delete;
    WriterThread& operator=(const WriterThread&) = delete;
    void join();

  private:
    HostProcess& child_;
    std::exception_ptr failure_;
    std::thread thread_;
};

struct RelayRun {
    double seconds = 0;
    std::int64_t cpuNanoseconds = 0;  // the program's, during the relay
};

/// Writes `frames` frames of `body` to the program, one per write when `paced`, else in writes of
/// about 256 KiB, and reads them all at the core service, checking each (length, suffix; the
/// first byte for byte).
RelayRun relay(BenchSession& session, const std::string& body, std::size_t frames, bool paced,
               Deadline deadline);

/// Ends the program's standard input and returns its exit status; throws if it does not end.
int finish(BenchSession& session, Deadline deadline);

/// Lines holding `needle` in the log and its rotated files.
[[nodiscard]] std::int64_t countLogLines(const std::filesystem::path& logFile,
                                         std::string_view needle);

}  // namespace kerrow::bench
