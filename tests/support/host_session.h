// HostSession: the real host (`hostBinary`, or a script that runs it under a sanitizer or Valgrind)
// started as a browser starts it, with a private bus, a test core service at the browser socket
// and temporary runtime, state and home folders. Failures throw std::runtime_error. One thread.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kit/notification_names.h"
#include "tests/support/host_process.h"
#include "tests/support/private_bus.h"
#include "tests/support/test_support.h"

namespace kerrow::test {

class HostSession {
  public:
    explicit HostSession(std::filesystem::path hostBinary);
    HostSession(const HostSession&) = delete;
    HostSession& operator=(const HostSession&) = delete;

    /// Starts `binary` in the session's environment, standard error in the session's folder.
    [[nodiscard]] std::unique_ptr<HostProcess> startProcess(
        const std::filesystem::path& binary, const std::vector<std::string>& arguments);
    /// Starts the host with the origin argument a Chrome-family browser passes.
    void launch(const std::vector<std::string>& arguments = {"chrome-extension://kerrow/"});
    /// True once the host announced itself `count` times on the bus (BusClient::waitForSignal).
    [[nodiscard]] bool waitForAnnouncement(Duration timeout = 5000ms, int count = 1) {
        return client_.waitForSignal(NotificationName::nativeMessagingHostDidFinishLaunching,
                                     timeout, count);
    }
    void postStart() { client_.post(NotificationName::startCoreHostServices); }
    /// Launches, answers, and takes the device-twin request off the new connection.
    [[nodiscard]] CoreConnection start(Duration timeout = 5000ms);

    [[nodiscard]] HostProcess& host() { return *host_; }
    /// The listening test core service. REQUIRES: listening.
    [[nodiscard]] TestCoreService& core() { return *core_; }
    void stopCore() { core_.reset(); }
    void startCore() { core_.emplace(socketPath()); }

    [[nodiscard]] std::filesystem::path socketPath() const {
        return runtime_ / "kerrow/browser.sock";
    }
    [[nodiscard]] std::filesystem::path logFile() const {
        return state_ / "kerrow/native-messaging-host.log";
    }
    /// The log as written so far, and its lines without time stamps ("info ...").
    [[nodiscard]] std::string log() const { return readFile(logFile()); }
    [[nodiscard]] std::vector<std::string> logMessages() const {
        return test::logMessages(logFile());
    }
    /// True once the log holds a line (without time stamp) that starts with `message`.
    [[nodiscard]] bool waitForLog(std::string_view message, Duration timeout = 5000ms) const;
    [[nodiscard]] std::string standardError() const { return host_->standardError(); }
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
