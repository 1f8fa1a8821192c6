#include "tests/support/host_session.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace kerrow::test {

HostSession::HostSession(std::filesystem::path hostBinary)
    : hostBinary_(std::move(hostBinary)),
      runtime_(directory_.path() / "runtime"),
      state_(directory_.path() / "state"),
      client_(bus_.address()) {
    std::filesystem::create_directory(runtime_);
    std::filesystem::create_directory(state_);
    ::chmod(runtime_.c_str(), 0700);
    client_.observe(NotificationName::nativeMessagingHostDidFinishLaunching);
    startCore();
}

std::unique_ptr<HostProcess> HostSession::startProcess(const std::filesystem::path& binary,
                                                       const std::vector<std::string>& arguments) {
    Environment environment{
        {"PATH", "/usr/bin:/bin"},
        {"HOME", directory_.path().string()},
        {"XDG_RUNTIME_DIR", runtime_.string()},
        {"XDG_STATE_HOME", state_.string()},
        {"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
    };
    // A sanitizer build's host must stop on a report just as the test process does.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {  // NOLINT(concurrency-mt-unsafe): one thread
            environment.emplace(name, value);
        }
    }
    return std::make_unique<HostProcess>(
        binary, arguments, environment,
        directory_.path() / ("stderr-" + std::to_string(++started_)));
}

void HostSession::launch(const std::vector<std::string>& arguments) {
    host_ = startProcess(hostBinary_, arguments);
}

CoreConnection HostSession::start(Duration timeout) {
    launch();
    if (!waitForAnnouncement(timeout)) {
        throw std::runtime_error("no announcement\n" + log() + standardError());
    }
    postStart();
    auto connection = core().accept(timeout);
    if (!connection) {
        throw std::runtime_error("no connection\n" + log() + standardError());
    }
    if (const auto request = connection->receive(timeout); request != "kerrow.updateDeviceTwin") {
        throw std::runtime_error("no device-twin request but " + request.value_or("nothing"));
    }
    return std::move(*connection);
}

bool HostSession::waitForLog(std::string_view message, Duration timeout) const {
    return waitUntil(
        [&] {
            const auto lines = logMessages();
            return std::any_of(lines.begin(), lines.end(),
                               [&](const std::string& line) { return line.starts_with(message); });
        },
        timeout);
}

}  // namespace kerrow::test
