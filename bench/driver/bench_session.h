// BenchSession: one private world for one program under measurement: a temporary directory
// holding XDG_RUNTIME_DIR (with the core service's socket) and XDG_STATE_HOME (the log), a
// private dbus-daemon, the driver's own bus connection (which watches for announcements and
// posts the start notification), and the core service's listening socket.
// Driver code only; one thread uses a session, except for the core connection's descriptor,
// which the driver's writer thread may write while the main thread reads.
#pragma once

#include <systemd/sd-bus.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/driver/child_process.h"
#include "bench/driver/wire.h"

namespace kerrow::bench {

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

/// A directory of our own under $TMPDIR or /tmp, removed with everything in it.
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

/// The driver's connection to the private bus.
class BusClient {
  public:
    explicit BusClient(const std::string& address);
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;

    /// Watches for notification `name`; the match is in place when this returns.
    void observe(std::string_view name);
    /// Broadcasts notification `name` and flushes it to the bus.
    void post(std::string_view name);
    /// Processes bus traffic until `name` has arrived `count` times in all; returns the arrival
    /// time of the count-th. Throws BenchError at `deadline`.
    Clock::time_point waitForSignal(const std::string& name, std::size_t count, Deadline deadline);

  private:
    static int onSignal(sd_bus_message* message, void* self, sd_bus_error* error);

    sd_bus* bus_ = nullptr;
    std::vector<sd_bus_slot*> slots_;
    std::map<std::string, std::vector<Clock::time_point>, std::less<>> arrivals_;
};

class BenchSession {
  public:
    /// When each step of a start happened; steps a kind does not have stay empty.
    struct StartTimes {
        Clock::time_point spawned;
        std::optional<Clock::time_point> announced;  // the announcement reached the driver
        std::optional<Clock::time_point> posted;     // the driver posted the start notification
        std::optional<Clock::time_point> connected;  // the device-twin request reached the core
    };

    BenchSession();
    ~BenchSession();
    BenchSession(const BenchSession&) = delete;
    BenchSession& operator=(const BenchSession&) = delete;

    /// Starts `program` (argv prefixed by `wrapper`, e.g. valgrind) and brings it up: connected,
    /// with its device-twin request read, or for the bare kind announced and ended.
    StartTimes start(const Program& program, Deadline deadline,
                     const std::vector<std::string>& wrapper = {});

    [[nodiscard]] ChildProcess& child() { return *child_; }
    /// The accepted connection of the core service. REQUIRES: started, core not stopped.
    [[nodiscard]] int coreConnection() const { return connection_.get(); }
    [[nodiscard]] FrameReader& coreReader() { return *coreReader_; }

    /// The core service goes away: its connection closes and its socket file disappears.
    void stopCore();

    [[nodiscard]] std::filesystem::path logFile() const;
    /// The program's standard error so far (for error reports).
    [[nodiscard]] std::string standardError() const;

  private:
    void listen();
    UniqueFd accept(Deadline deadline);
    [[nodiscard]] std::vector<std::string> environment() const;

    TemporaryDirectory directory_;
    std::filesystem::path runtime_;
    std::filesystem::path state_;
    std::unique_ptr<ChildProcess> bus_;
    std::string busAddress_;
    std::unique_ptr<BusClient> client_;
    std::size_t announcements_ = 0;
    UniqueFd listener_;
    UniqueFd connection_;
    std::optional<FrameReader> coreReader_;
    std::unique_ptr<ChildProcess> child_;
};

}  // namespace kerrow::bench
