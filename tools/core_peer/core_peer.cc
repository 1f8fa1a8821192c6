#include "tools/core_peer/core_peer.h"

#include <signal.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "kit/const.h"
#include "kit/notification_names.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr std::size_t maximumScriptSize = 1024 * 1024;
constexpr std::size_t maximumLineLength = 1024 * 1024;
constexpr std::size_t maximumUnmatched = 1000;

std::string describe(std::string_view message) {
    const auto marker = Const::Browser::tabList;
    if (message == Const::Browser::updateDeviceTwin) {
        return "device-twin update request (" + std::string(message) + ")";
    }
    if (message.size() >= marker.size() &&
        message.substr(message.size() - marker.size()) == marker) {
        const auto body = message.substr(0, message.size() - marker.size());
        return "tab data " + (body.empty() ? std::string("(empty body)") : printable(body)) +
               "  + " + std::string(marker);
    }
    return "message without the " + std::string(marker) + " marker: " + printable(message);
}

}  // namespace

std::vector<ScriptEntry> loadScript(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read the script " + path);
    }
    std::string text(maximumScriptSize + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > maximumScriptSize) {
        throw std::runtime_error("the script " + path + " is larger than 1 MiB");
    }
    std::vector<ScriptEntry> entries;
    std::string errors;
    std::istringstream lines(text);
    std::string line;
    for (std::size_t number = 1; std::getline(lines, line); ++number) {
        auto parsed = parseCoreCommand(line);
        if (const auto* error = std::get_if<std::string>(&parsed)) {
            errors += path + ":" + std::to_string(number) + ": " + *error + "\n";
        } else if (auto& command = std::get<CoreCommand>(parsed);
                   command.kind != CoreCommand::Kind::nothing) {
            entries.push_back({std::move(command), number});
        }
    }
    if (!errors.empty()) {
        errors.pop_back();
        throw std::runtime_error(errors);
    }
    return entries;
}

CorePeer::CorePeer(CorePeerOptions options, std::vector<ScriptEntry> script)
    : options_(std::move(options)), console_("core> "), loop_(newEventLoop()) {
    installSignals();
    const auto note = [this](const std::string& text) { console_.err("core-peer: " + text); };
    listener_ = std::make_unique<SocketListener>(
        loop_.get(), options_.socketPath,
        [this](Descriptor socket) { hostConnected(std::move(socket)); }, note);
    console_.out("core: listening on " + options_.socketPath);
    if (options_.useBus) {
        startBus();
    }
    runner_ = addRunner<CorePeer, &CorePeer::runCommands>(loop_.get(), this);
    queue_.assign(std::make_move_iterator(script.begin()), std::make_move_iterator(script.end()));
    if (options_.readInput && !options_.scriptPath) {
        input_ = std::make_unique<LineInput>(
            loop_.get(), STDIN_FILENO, maximumLineLength,
            LineInput::Handlers{
                [this](std::string line) { lineArrived(std::move(line)); },
                [this](const std::string& message) { fail(linesRead_ + 1, message); },
                [this] {
                    console_.endPrompt();
                    inputEnded_ = true;
                    schedule();
                }});
    }
    schedule();
}

CorePeer::~CorePeer() {
    // Connections close before the listener removes the socket file.
    hosts_.clear();
    retired_.clear();
}

void CorePeer::installSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    for (const int number : {SIGINT, SIGTERM}) {
        sd_event_source* source = nullptr;
        check(
            sd_event_add_signal(
                loop_.get(), &source, number,
                [](sd_event_source*, const signalfd_siginfo* info, void* self) {
                    auto& peer = *static_cast<CorePeer*>(self);
                    if (info->ssi_signo == SIGINT && peer.waiting_ && peer.console_.interactive()) {
                        peer.console_.err("core-peer: wait cancelled");
                        peer.endWait();
                        return 0;
                    }
                    peer.quit();
                    return 0;
                },
                this),
            "sd_event_add_signal");
        signals_.emplace_back(source);
    }
}

void CorePeer::startBus() {
    bus_ = std::make_unique<SessionBus>(loop_.get());
    bus_->observe(NotificationName::nativeMessagingHostDidFinishLaunching,
                  [this](const std::string& sender) {
                      console_.out("core: launch announcement from " + sender);
                      if (options_.answer) {
                          postStart();
                      }
                  });
    console_.out("core: on the session bus as " + bus_->uniqueName() +
                 (options_.answer ? ", answering launch announcements"
                                  : ", not answering launch announcements (--no-answer)"));
    if (options_.answer) {
        postStart();  // hosts that announced themselves before we ran connect now
    }
}

void CorePeer::postStart() {
    if (!bus_) {
        return;
    }
    try {
        bus_->post(NotificationName::startCoreHostServices);
        console_.out("core: posted " + std::string(NotificationName::startCoreHostServices));
    } catch (const std::exception& error) {
        console_.err(std::string("core-peer: ") + error.what());
    }
}

int CorePeer::run() {
    check(sd_event_loop(loop_.get()), "sd_event_loop");
    return exitStatus_;
}

void CorePeer::hostConnected(Descriptor socket) {
    const unsigned number = nextHostNumber_++;
    auto host = std::make_unique<HostConnection>(loop_.get(), std::move(socket), number, *this);
    std::string line =
        "core: host " + std::to_string(number) + " connected (pid " + std::to_string(host->pid());
    if (host->uid() != ::getuid()) {
        line += ", uid " + std::to_string(host->uid());
    }
    console_.out(line + ")");
    hosts_.emplace(number, std::move(host));
    checkWait();
}

void CorePeer::messageReceived(HostConnection& host, std::string message) {
    console_.out("host " + std::to_string(host.number()) + ": " + describe(message));
    unmatched_.push_back({host.number(), std::move(message)});
    if (unmatched_.size() > maximumUnmatched) {
        unmatched_.pop_front();
    }
    checkWait();
}

void CorePeer::hostDisconnected(HostConnection& host, const std::string& reason) {
    console_.out("core: host " + std::to_string(host.number()) + " disconnected (" + reason + ")");
    const auto found = hosts_.find(host.number());
    if (found != hosts_.end()) {
        retired_.push_back(std::move(found->second));
        hosts_.erase(found);
    }
    schedule();
    checkWait();
}

void CorePeer::lineArrived(std::string line) {
    console_.promptUsed();
    ++linesRead_;
    auto parsed = parseCoreCommand(line);
    if (const auto* error = std::get_if<std::string>(&parsed)) {
        fail(linesRead_, *error);
        schedule();
        return;
    }
    auto& command = std::get<CoreCommand>(parsed);
    if (command.kind != CoreCommand::Kind::nothing) {
        queue_.push_back({std::move(command), linesRead_});
    }
    if (input_ && (waiting_ || !queue_.empty())) {
        input_->pause();  // resumed once the queue has run
    }
    schedule();
}

void CorePeer::schedule() {
    if (runner_) {
        sd_event_source_set_enabled(runner_.get(), SD_EVENT_ONESHOT);
    }
}

void CorePeer::runCommands() {
    retired_.clear();
    while (!waiting_ && !quitting_ && !queue_.empty()) {
        const ScriptEntry entry = std::move(queue_.front());
        queue_.pop_front();
        execute(entry);
    }
    if (waiting_ || quitting_ || !queue_.empty()) {
        return;
    }
    if (options_.scriptPath || inputEnded_) {
        quit();
        return;
    }
    if (input_) {
        input_->resume();
        console_.prompt();
    }
}

void CorePeer::fail(std::size_t line, const std::string& message) {
    exitStatus_ = 1;
    std::string where = "core-peer: ";
    if (options_.scriptPath) {
        where += *options_.scriptPath + ":" + std::to_string(line) + ": ";
    } else if (!console_.interactive() && line > 0) {
        where += "line " + std::to_string(line) + ": ";
    }
    console_.err(where + message);
    if (options_.scriptPath) {
        queue_.clear();  // the rest of a script relies on what failed
        quit();
    }
}

void CorePeer::quit() {
    if (quitting_) {
        return;
    }
    quitting_ = true;
    waiting_.reset();
    timer_.reset();
    if (input_) {
        input_->pause();
    }
    finishWhenSent();
}

void CorePeer::finishWhenSent() {
    // Frames still waiting for a slow host get a grace period, checked every 20 ms.
    static constexpr std::uint64_t step = 20'000;
    bool sending = false;
    for (const auto& [number, host] : hosts_) {
        sending = sending || host->sending();
    }
    if (!sending || graceLeft_ < step) {
        sd_event_exit(loop_.get(), exitStatus_);
        return;
    }
    graceLeft_ -= step;
    sd_event_source* timer = nullptr;
    const auto onTimer = [](sd_event_source*, uint64_t, void* self) {
        static_cast<CorePeer*>(self)->finishWhenSent();
        return 0;
    };
    if (sd_event_add_time_relative(loop_.get(), &timer, CLOCK_MONOTONIC, step, 0, onTimer, this) <
        0) {
        sd_event_exit(loop_.get(), exitStatus_);
        return;
    }
    timer_.reset(timer);
}

}  // namespace kerrow::tools
