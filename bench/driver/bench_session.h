// BenchSession: one program under measurement in a private world of its own (the support
// library's HostSession: temporary home, runtime and state directories, a private bus, the core
// service's listening socket), brought up the way its kind comes up, with the time of each step.
// Driver code only; one thread uses a session, except for the core connection's descriptor,
// which the driver's writer thread may write while the main thread reads.
#pragma once

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bench/driver/frame_reader.h"
#include "tests/support/host_process.h"
#include "tests/support/host_session.h"

namespace kerrow::bench {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;
using test::HostProcess;

/// A measurement that could not be taken (a program that died, stalled or answered wrongly).
class BenchError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

[[nodiscard]] inline Deadline deadlineIn(std::chrono::milliseconds span) {
    return Clock::now() + span;
}

/// What is left until `deadline` (at least 1 ms), for the support library's waits.
[[nodiscard]] inline test::Duration timeLeft(Deadline deadline) {
    return std::max(test::Duration(1),
                    std::chrono::duration_cast<test::Duration>(deadline - Clock::now()));
}

[[nodiscard]] inline double microseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

/// How a program comes up. host and typical announce themselves on the bus and connect when the
/// start notification comes; floor connects at once; bare only posts its announcement and ends.
enum class ProgramKind { host, floor, typical, bare };

struct Program {
    std::string name;
    ProgramKind kind = ProgramKind::host;
    std::vector<std::string> argv;
};

/// Parses "name=kind:argv0,argv1,...", e.g. "host=host:/path/kerrow-native-messaging-host".
[[nodiscard]] Program parseProgram(std::string_view description);

/// "a,b,c" as its pieces.
[[nodiscard]] std::vector<std::string> splitCommas(std::string_view text);

class BenchSession {
  public:
    /// When each step of a start happened; steps a kind does not have stay empty.
    struct StartTimes {
        Clock::time_point spawned;
        std::optional<Clock::time_point> announced;  // the announcement reached the driver
        std::optional<Clock::time_point> posted;     // the driver posted the start notification
        std::optional<Clock::time_point> connected;  // the device-twin request reached the core
    };

    /// Sets up the world for `program`, whose argv is prefixed by `wrapper` (e.g. valgrind).
    BenchSession(Program program, const std::vector<std::string>& wrapper);

    /// Starts the program and brings it up: connected, with its device-twin request read, or for
    /// the bare kind announced and ended.
    StartTimes start(Deadline deadline);

    [[nodiscard]] HostProcess& child() { return session_.host(); }
    /// The accepted connection of the core service. REQUIRES: started, core not stopped.
    [[nodiscard]] int coreConnection() const { return connection_->fd(); }
    [[nodiscard]] FrameReader& coreReader() { return *coreReader_; }

    /// The core service goes away: its connection closes and its socket file disappears.
    void stopCore();

    [[nodiscard]] std::filesystem::path logFile() const { return session_.logFile(); }

  private:
    Program program_;
    std::vector<std::string> arguments_;  // of the program's first word (wrapper or program)
    test::HostSession session_;
    std::optional<test::CoreConnection> connection_;
    std::optional<FrameReader> coreReader_;
};

}  // namespace kerrow::bench
