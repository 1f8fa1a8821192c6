#include "tests/support/private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;  // NOLINT(readability-redundant-declaration)

namespace kerrow::test {
namespace {

constexpr const char* addressVariable = "DBUS_SESSION_BUS_ADDRESS";
constexpr int addressDescriptor = 3;  // where the daemon prints its address once it listens

[[noreturn]] void fail(const std::string& what, int error) {
    throw std::runtime_error(what + ": " + std::strerror(error));
}

// Reads one line from `fd`; "" at end of file or after `timeout`.
std::string readLine(int fd, Duration timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    while (line.empty() || line.back() != '\n') {
        const auto left =
            std::chrono::duration_cast<Duration>(deadline - std::chrono::steady_clock::now());
        const std::string next = readExactly(fd, 1, std::max(left, Duration(1)));
        if (next.empty()) {
            return "";
        }
        line += next;
    }
    return line;
}

}  // namespace

PrivateBus::PrivateBus() : address_("unix:path=" + (directory_.path() / "bus").string()) {
    if (const char* previous = std::getenv(addressVariable)) {  // NOLINT(concurrency-mt-unsafe)
        previousAddress_ = previous;
    }
    start();
    ::setenv(addressVariable, address_.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
}

PrivateBus::~PrivateBus() {
    stop();
    if (previousAddress_) {
        ::setenv(addressVariable, previousAddress_->c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    } else {
        ::unsetenv(addressVariable);  // NOLINT(concurrency-mt-unsafe)
    }
}

void PrivateBus::start() {
    if (daemon_ >= 0) {
        return;
    }
    std::filesystem::remove(directory_.path() / "bus");  // left behind by a killed daemon
    Pipe ready;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready.writeEnd(), addressDescriptor);
    // Its complaints (running as root it cannot raise its descriptor limit) go to a file, which
    // the error below quotes when it does not come up.
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, daemonLog().c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    std::string addressOption = "--address=" + address_;
    std::string printOption = "--print-address=" + std::to_string(addressDescriptor);
    std::string program = "dbus-daemon";
    std::string session = "--session";
    std::string noFork = "--nofork";
    std::string noSyslog = "--nosyslog";
    char* const arguments[] = {program.data(),  session.data(),       noFork.data(),
                               noSyslog.data(), addressOption.data(), printOption.data(),
                               nullptr};
    pid_t pid = -1;
    const int error = posix_spawnp(&pid, program.c_str(), &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        fail("start dbus-daemon", error);
    }
    daemon_ = pid;
    ready.closeWriteEnd();
    if (readLine(ready.readEnd(), 10000ms).empty()) {
        stop();
        throw std::runtime_error("dbus-daemon did not come up at " + address_ + ": " +
                                 readFile(daemonLog()));
    }
}

void PrivateBus::stop() {
    if (daemon_ < 0) {
        return;
    }
    ::kill(daemon_, SIGKILL);
    while (::waitpid(daemon_, nullptr, 0) < 0 && errno == EINTR) {
    }
    daemon_ = -1;
}

BusClient::BusClient(const std::string& address) {
    sd_bus* bus = nullptr;
    if (const int r = sd_bus_new(&bus); r < 0) {
        fail("sd_bus_new", -r);
    }
    bus_.reset(bus);
    int r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) {
        r = sd_bus_set_bus_client(bus, 1);
    }
    if (r >= 0) {
        r = sd_bus_start(bus);
    }
    if (r < 0) {
        fail("connect to " + address, -r);
    }
}

BusClient::~BusClient() {
    matches_.clear();  // before the connection they refer to
}

void BusClient::observe(std::string_view name) {
    const std::string rule = std::string("type='signal',path='") + notificationPath +
                             "',interface='" + notificationInterface + "',member='" +
                             notificationMember + "',arg0='" + std::string(name) + "'";
    sd_bus_slot* slot = nullptr;
    if (const int r = sd_bus_add_match(bus_.get(), &slot, rule.c_str(), count, this); r < 0) {
        fail("observe " + std::string(name), -r);
    }
    matches_.emplace_back(slot);
}

void BusClient::post(std::string_view name) {
    const std::string text(name);
    int r = sd_bus_emit_signal(bus_.get(), notificationPath, notificationInterface,
                               notificationMember, "s", text.c_str());
    if (r >= 0) {
        r = sd_bus_flush(bus_.get());
    }
    if (r < 0) {
        fail("post " + text, -r);
    }
}

bool BusClient::waitForSignal(std::string_view name, Duration timeout, int count) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (received(name) < count) {
        const int processed = sd_bus_process(bus_.get(), nullptr);
        if (processed < 0) {
            return false;
        }
        if (processed > 0) {
            continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 ||
            sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left.count())) < 0) {
            return false;
        }
    }
    return true;
}

int BusClient::signalCount(std::string_view name) {
    while (sd_bus_process(bus_.get(), nullptr) > 0) {
    }
    return received(name);
}

int BusClient::received(std::string_view name) const {
    const auto found = received_.find(name);
    return found == received_.end() ? 0 : found->second;
}

int BusClient::count(sd_bus_message* message, void* userdata, sd_bus_error* /*error*/) {
    auto& client = *static_cast<BusClient*>(userdata);
    const char* name = nullptr;
    if (sd_bus_message_read_basic(message, 's', &name) > 0) {
        ++client.received_[name];
    }
    return 0;
}

}  // namespace kerrow::test
