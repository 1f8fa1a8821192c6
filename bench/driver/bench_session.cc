#include "bench/driver/bench_session.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kit/const.h"
#include "kit/notification_names.h"

namespace kerrow::bench {
namespace {

constexpr const char* notificationPath = "/com/kerrowsoftware/DistributedNotifications";
constexpr const char* notificationInterface = "com.kerrowsoftware.DistributedNotifications";

const std::string announcement(NotificationName::nativeMessagingHostDidFinishLaunching);

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> pieces;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find(separator, start);
        pieces.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return pieces;
        }
        start = end + 1;
    }
}

void check(int result, const char* what) {
    if (result < 0) {
        throw BenchError(std::string(what) + ": " + std::strerror(-result));
    }
}

// The first line that `fd` gives within the deadline (dbus-daemon's printed address).
std::string readLine(int fd, Deadline deadline) {
    std::string line;
    char c = 0;
    while (line.empty() || line.back() != '\n') {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd readable{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0 ||
            ::read(fd, &c, 1) != 1) {
            throw BenchError("dbus-daemon printed no address");
        }
        line.push_back(c);
    }
    line.pop_back();
    return line;
}

}  // namespace

Program parseProgram(std::string_view description) {
    const std::size_t equals = description.find('=');
    const std::size_t colon = description.find(':', equals);
    if (equals == std::string_view::npos || colon == std::string_view::npos) {
        throw BenchError("a program is name=kind:argv0,argv1,...: " + std::string(description));
    }
    Program program;
    program.name = description.substr(0, equals);
    const std::string_view kind = description.substr(equals + 1, colon - equals - 1);
    if (kind == "host") {
        program.kind = ProgramKind::host;
    } else if (kind == "floor") {
        program.kind = ProgramKind::floor;
    } else if (kind == "typical") {
        program.kind = ProgramKind::typical;
    } else if (kind == "bare") {
        program.kind = ProgramKind::bare;
    } else {
        throw BenchError("unknown program kind: " + std::string(kind));
    }
    program.argv = split(description.substr(colon + 1), ',');
    return program;
}

TemporaryDirectory::TemporaryDirectory() {
    const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    std::string pattern =
        std::string(base != nullptr && base[0] == '/' ? base : "/tmp") + "/kerrow-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw BenchError("mkdtemp failed");
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

BusClient::BusClient(const std::string& address) {
    check(sd_bus_new(&bus_), "sd_bus_new");
    check(sd_bus_set_address(bus_, address.c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus_, 1), "sd_bus_set_bus_client");
    check(sd_bus_start(bus_), "sd_bus_start");
}

BusClient::~BusClient() {
    for (auto* slot : slots_) {
        sd_bus_slot_unref(slot);
    }
    sd_bus_flush_close_unref(bus_);
}

void BusClient::observe(std::string_view name) {
    const std::string rule = std::string("type='signal',path='") + notificationPath +
                             "',interface='" + notificationInterface + "',member='Posted',arg0='" +
                             std::string(name) + "'";
    sd_bus_slot* slot = nullptr;
    check(sd_bus_add_match(bus_, &slot, rule.c_str(), &BusClient::onSignal, this),
          "sd_bus_add_match");
    slots_.push_back(slot);
}

void BusClient::post(std::string_view name) {
    const std::string text(name);
    check(sd_bus_emit_signal(bus_, notificationPath, notificationInterface, "Posted", "s",
                             text.c_str()),
          "sd_bus_emit_signal");
    check(sd_bus_flush(bus_), "sd_bus_flush");
}

int BusClient::onSignal(sd_bus_message* message, void* self, sd_bus_error* /*error*/) {
    const auto arrived = Clock::now();
    const char* name = nullptr;
    if (sd_bus_message_read(message, "s", &name) > 0) {
        static_cast<BusClient*>(self)->arrivals_[name].push_back(arrived);
    }
    return 0;
}

Clock::time_point BusClient::waitForSignal(const std::string& name, std::size_t count,
                                           Deadline deadline) {
    for (;;) {
        int processed = 0;
        do {
            processed = sd_bus_process(bus_, nullptr);
            check(processed, "sd_bus_process");
        } while (processed > 0);
        if (const auto found = arrivals_.find(name);
            found != arrivals_.end() && found->second.size() >= count) {
            return found->second[count - 1];
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            throw BenchError("no " + name + " on the bus");
        }
        check(sd_bus_wait(bus_, static_cast<std::uint64_t>(left.count())), "sd_bus_wait");
    }
}

BenchSession::BenchSession()
    : runtime_(directory_.path() / "runtime"), state_(directory_.path() / "state") {
    std::filesystem::create_directory(runtime_);
    std::filesystem::create_directory(state_);
    ::chmod(runtime_.c_str(), 0700);
    bus_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--session", "--nofork", "--nopidfile",
                                 "--address=unix:path=" + (directory_.path() / "bus").string(),
                                 "--print-address=1"},
        std::vector<std::string>{"PATH=/usr/bin:/bin"}, directory_.path() / "dbus-daemon.log");
    busAddress_ = readLine(bus_->output(), deadlineIn(std::chrono::seconds(10)));
    client_ = std::make_unique<BusClient>(busAddress_);
    client_->observe(announcement);
    listen();
}

BenchSession::~BenchSession() {
    child_.reset();
    client_.reset();
    if (bus_) {
        bus_->kill();
    }
}

void BenchSession::listen() {
    const auto socketDirectory = runtime_ / "kerrow";
    std::filesystem::create_directories(socketDirectory);
    ::chmod(socketDirectory.c_str(), 0700);
    const auto path = (socketDirectory / "browser.sock").string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    listener_ = UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), 16) != 0) {
        throw BenchError("cannot listen at " + path + ": " + std::strerror(errno));
    }
}

UniqueFd BenchSession::accept(Deadline deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waiting{listener_.get(), POLLIN, 0};
    if (left.count() <= 0 || ::poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
        throw BenchError("the program did not connect to the core service");
    }
    return UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

std::vector<std::string> BenchSession::environment() const {
    return {"PATH=/usr/local/bin:/usr/bin:/bin",       "HOME=" + directory_.path().string(),
            "XDG_RUNTIME_DIR=" + runtime_.string(),    "XDG_STATE_HOME=" + state_.string(),
            "DBUS_SESSION_BUS_ADDRESS=" + busAddress_, "LC_ALL=C.UTF-8"};
}

BenchSession::StartTimes BenchSession::start(const Program& program, Deadline deadline,
                                             const std::vector<std::string>& wrapper) {
    std::vector<std::string> argv = wrapper;
    argv.insert(argv.end(), program.argv.begin(), program.argv.end());
    StartTimes times;
    times.spawned = Clock::now();
    child_ = std::make_unique<ChildProcess>(argv, environment(), directory_.path() / "stderr");
    try {
        if (program.kind != ProgramKind::floor) {
            times.announced = client_->waitForSignal(announcement, ++announcements_, deadline);
        }
        if (program.kind == ProgramKind::bare) {
            if (child_->wait(deadline) != 0) {
                throw BenchError("the bare bus program failed");
            }
            return times;
        }
        if (program.kind != ProgramKind::floor) {
            times.posted = Clock::now();
            client_->post(NotificationName::startCoreHostServices);
        }
        connection_ = accept(deadline);
        coreReader_.emplace(connection_.get());
        const auto request = coreReader_->next(deadline);
        times.connected = Clock::now();
        if (request != Const::Browser::updateDeviceTwin) {
            throw BenchError("expected the device-twin request, got: " + std::string(request));
        }
    } catch (const BenchError& error) {
        throw BenchError(program.name + ": " + error.what() + "\n" + standardError());
    }
    return times;
}

void BenchSession::stopCore() {
    coreReader_.reset();
    connection_.reset();
    listener_.reset();
    std::error_code ignored;
    std::filesystem::remove(runtime_ / "kerrow" / "browser.sock", ignored);
}

std::filesystem::path BenchSession::logFile() const {
    return state_ / "kerrow" / "native-messaging-host.log";
}

std::string BenchSession::standardError() const {
    std::ifstream in(directory_.path() / "stderr");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace kerrow::bench
