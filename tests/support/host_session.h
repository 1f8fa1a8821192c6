// HostSession: everything an end-to-end test of the real host needs, in private temporary
// places: a session bus of its own, a test core service listening at the browser socket location
// under a temporary XDG_RUNTIME_DIR, a temporary XDG_STATE_HOME for the log, and the host started
// as a browser starts it (`hostBinary`: the host, or a script that starts it under a sanitizer or
// Valgrind). Failures throw std::runtime_error with the host's log. One thread.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow::test {

class HostSession {
  public:
    explicit HostSession(std::filesystem::path hostBinary);
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    /// Starts `binary` in the session's environment (its temporary home, runtime and state
    /// directories and bus), with standard error in the session's folder.
    [[nodiscard]] std::unique_ptr<HostProcess> startProcess(
        const std::filesystem::path& binary, const std::vector<std::string>& arguments);
    /// Starts the host with the origin argument a Chrome-family browser passes.
    void launch(const std::vector<std::string>& arguments = {"chrome-extension://kerrow/"});
    /// True once the host announced itself on the bus.
    [[nodiscard]] bool waitForAnnouncement(Duration timeout = 5000ms);
    /// How many announcements the bus has carried so far.
    [[nodiscard]] int announcementCount();
    /// Posts the core service's start notification.
    void postStart();
    /// Posts the start notification and accepts the host's connection.
    [[nodiscard]] std::optional<CoreConnection> answer(Duration timeout = 5000ms);
    /// Launches, answers, and takes the device-twin request off the new connection, waiting
    /// at most `timeout` for each step.
    [[nodiscard]] CoreConnection start(Duration timeout = 5000ms);

    [[nodiscard]] HostProcess& host() { return *host_; }
    /// The listening test core service. REQUIRES: listening.
    [[nodiscard]] TestCoreService& core() { return *core_; }
    /// The core service stops listening and its socket file goes away.
    void stopCore() { core_.reset(); }
    /// The core service listens (again) at the browser socket location.
    void startCore();

    [[nodiscard]] std::filesystem::path socketPath() const;
    [[nodiscard]] std::filesystem::path logFile() const;
    /// The log as written so far, and its lines without time stamps ("info ...").
    [[nodiscard]] std::string log() const;
    [[nodiscard]] std::vector<std::string> logMessages() const;
    /// True once the log holds a line (without time stamp) that starts with `message`.
    [[nodiscard]] bool waitForLog(std::string_view message, Duration timeout = 5000ms) const;
    /// The host's standard error so far.
    [[nodiscard]] std::string standardError() const { return host_->standardError(); }
    /// The session's own temporary directory.
    [[nodiscard]] const std::filesystem::path& directory() const { return directory_.path(); }

  private:
    std::filesystem::path hostBinary_;
    TemporaryDirectory directory_;
    std::filesystem::path runtime_;
    std::filesystem::path state_;
    PrivateBus bus_;
    BusClient client_;
    std::optional<TestCoreService> core_;
    std::unique_ptr<HostProcess> host_;
    int started_ = 0;  // processes started so far, to name their standard error files
};

}  // namespace kerrow::test
