#include "tests/e2e/host_session.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "kit/notification_names.h"

namespace kerrow::test {

HostSession::HostSession()
    : runtime_(directory_.path() / "runtime"),
      state_(directory_.path() / "state"),
      client_(bus_.address()) {
    std::filesystem::create_directory(runtime_);
    std::filesystem::create_directory(state_);
    ::chmod(runtime_.c_str(), 0700);
    client_.observe(std::string(NotificationName::nativeMessagingHostDidFinishLaunching));
    startCore();
}

HostSession::~HostSession() = default;

void HostSession::startCore() {
    core_.emplace(socketPath());
}

std::filesystem::path HostSession::socketPath() const {
    return runtime_ / "kerrow" / "browser.sock";
}

std::filesystem::path HostSession::logFile() const {
    return state_ / "kerrow" / "native-messaging-host.log";
}

void HostSession::launch(const std::vector<std::string>& arguments) {
    std::map<std::string, std::string> environment{
        {"PATH", "/usr/bin:/bin"},
        {"HOME", directory_.path().string()},
        {"XDG_RUNTIME_DIR", runtime_.string()},
        {"XDG_STATE_HOME", state_.string()},
        {"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
    };
    // A sanitizer build's host must stop on a report just as the test process does.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {  // NOLINT(concurrency-mt-unsafe)
            environment.emplace(name, value);
        }
    }
    host_ = std::make_unique<HostProcess>(KERROW_HOST_BINARY, arguments, environment,
                                          directory_.path() / "stderr");
}

bool HostSession::waitForAnnouncement(Duration timeout) {
    return client_.waitForSignal(
        std::string(NotificationName::nativeMessagingHostDidFinishLaunching), timeout);
}

int HostSession::announcementCount() {
    return client_.signalCount(
        std::string(NotificationName::nativeMessagingHostDidFinishLaunching));
}

void HostSession::postStart() {
    client_.post(std::string(NotificationName::startCoreHostServices));
}

std::optional<CoreConnection> HostSession::answer(Duration timeout) {
    postStart();
    return core().accept(timeout);
}

std::optional<CoreConnection> HostSession::start() {
    launch();
    if (!waitForAnnouncement()) {
        ADD_FAILURE() << "no announcement\n" << log() << standardError();
        return std::nullopt;
    }
    auto connection = answer();
    if (!connection) {
        ADD_FAILURE() << "no connection\n" << log() << standardError();
        return std::nullopt;
    }
    EXPECT_EQ(connection->receive(), "kerrow.updateDeviceTwin");
    return connection;
}

std::string HostSession::log() const {
    return readFile(logFile());
}

std::vector<std::string> HostSession::logMessages() const {
    return test::logMessages(logFile());
}

bool HostSession::waitForLog(std::string_view message, Duration timeout) const {
    return waitUntil(
        [&] {
            const auto lines = logMessages();
            return std::find(lines.begin(), lines.end(), message) != lines.end();
        },
        timeout);
}

std::string HostSession::standardError() const {
    return readFile(directory_.path() / "stderr");
}

}  // namespace kerrow::test
