#include "tools/core_peer/core_peer.h"

#include <signal.h>

#include <fstream>
#include <sstream>

#include "kit/const.h"
#include "kit/notification_names.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr std::size_t maximumScriptSize = 1024 * 1024;
constexpr std::size_t maximumLineLength = 1024 * 1024;

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
    : options_(std::move(options)),
      console_("core> "),
      loop_(newEventLoop()),
      signals_(addStopSignals<CorePeer, &CorePeer::signalArrived>(loop_.get(), this)),
      script_(loop_.get(), console_, "core-peer", options_.scriptPath,
              ScriptRunner<CoreCommand>::Handlers{
                  parseCoreCommand, [this](const ScriptEntry& entry) { execute(entry); },
                  [this](const ScriptEntry& entry) { return waitSatisfied(entry.command); },
                  [this](const ScriptEntry& entry) { waitTimedOut(entry); },
                  [this] { commandsRan(); }, [this] { quit(); }}) {
    const auto note = [this](const std::string& text) { console_.err("core-peer: " + text); };
    listener_ = std::make_unique<SocketListener>(
        loop_.get(), options_.socketPath,
        [this](Descriptor socket) { hostConnected(std::move(socket)); }, note);
    console_.out("core: listening on " + options_.socketPath);
    if (options_.useBus) {
        startBus();
    }
    for (auto& entry : script) {
        script_.enqueue(std::move(entry));
    }
    if (options_.readInput && !options_.scriptPath) {
        script_.read(STDIN_FILENO, maximumLineLength);
    }
    script_.schedule();
}

CorePeer::~CorePeer() {
    // Connections close before the listener removes the socket file.
    hosts_.clear();
    retired_.clear();
}

void CorePeer::signalArrived(int signal) {
    if (signal == SIGINT && script_.waiting() && console_.interactive()) {
        console_.err("core-peer: wait cancelled");
        script_.endWait();
        return;
    }
    quit();
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
    return script_.exitStatus();
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
    script_.checkWait();
}

void CorePeer::messageReceived(HostConnection& host, std::string message) {
    console_.out("host " + std::to_string(host.number()) + ": " + describe(message));
    script_.received(std::move(message), host.number());
}

void CorePeer::hostDisconnected(HostConnection& host, const std::string& reason) {
    console_.out("core: host " + std::to_string(host.number()) + " disconnected (" + reason + ")");
    const auto found = hosts_.find(host.number());
    if (found != hosts_.end()) {
        retired_.push_back(std::move(found->second));
        hosts_.erase(found);
    }
    script_.schedule();
    script_.checkWait();
}

void CorePeer::commandsRan() {
    retired_.clear();
    if (quitting_) {
        return;
    }
    if (options_.scriptPath || script_.inputEnded()) {
        quit();
        return;
    }
    script_.prompt();
}

void CorePeer::quit() {
    if (quitting_) {
        return;
    }
    quitting_ = true;
    script_.stop();
    script_.endWait();
    finishWhenSent();
}

void CorePeer::finishWhenSent() {
    // Frames still waiting for a slow host get a grace period, checked every 20 ms.
    static constexpr double step = 0.02;
    bool sending = false;
    for (const auto& [number, host] : hosts_) {
        sending = sending || host->sending();
    }
    if (!sending || graceLeft_ < step) {
        sd_event_exit(loop_.get(), script_.exitStatus());
        return;
    }
    graceLeft_ -= step;
    timer_ = addTimer<CorePeer, &CorePeer::finishWhenSent>(loop_.get(), this, step);
}

}  // namespace kerrow::tools
