#include "tools/browser_peer/browser_peer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "tools/browser_peer/json_lines.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr std::size_t maximumLineLength = 64 * 1024 * 1024;

}  // namespace

BrowserPeer::BrowserPeer(BrowserPeerOptions options)
    : options_(std::move(options)),
      console_("browser> "),
      loop_(newEventLoop()),
      signals_(addStopSignals<BrowserPeer, &BrowserPeer::interrupt>(loop_.get(), this)),
      script_(loop_.get(), console_, "browser-peer", options_.scriptPath,
              Script::Handlers{parseBrowserCommand,
                               [this](const Script::Entry& entry) { execute(entry); },
                               [this](const Script::Entry& entry) {
                                   return entry.command.kind == BrowserCommand::Kind::expect &&
                                          script_.takeMatch(entry.command.text);
                               },
                               [this](const Script::Entry& entry) { waitTimedOut(entry); },
                               [this] { linesRan(); },
                               [this] { console_.err("browser-peer: script stopped"); }}) {
    if (options_.scriptPath) {
        scriptFile_.reset(::open(options_.scriptPath->c_str(), O_RDONLY | O_CLOEXEC));
        if (!scriptFile_) {
            throw std::system_error(errno, std::generic_category(),
                                    "cannot read the script " + *options_.scriptPath);
        }
    }
    // As a browser does: our environment and our standard error.
    host_ = test::launchProcess(options_.hostPath, options_.hostArguments, std::nullopt, {});
    for (const int pipe : {host_.input.get(), host_.output.get()}) {
        ::fcntl(pipe, F_SETFL, ::fcntl(pipe, F_GETFL) | O_NONBLOCK);
    }
    std::string arguments;
    for (const auto& argument : options_.hostArguments) {
        arguments += " " + argument;
    }
    console_.err("browser-peer: started " + options_.hostPath + arguments + " (pid " +
                 std::to_string(host_.pid) + ")");
    watchHost();
    script_.read(scriptFile_ ? scriptFile_.get() : STDIN_FILENO, maximumLineLength);
    script_.schedule();
}

BrowserPeer::~BrowserPeer() {
    if (!hostStatus_ && host_.pid > 0) {
        // Only reached when run() failed: do not leave the host behind.
        ::kill(host_.pid, SIGKILL);
        ::waitpid(host_.pid, nullptr, 0);
    }
}

void BrowserPeer::watchHost() {
    blockSignal(SIGCHLD);
    sd_event_source* child = nullptr;
    check(sd_event_add_child(
              loop_.get(), &child, host_.pid, WEXITED,
              [](sd_event_source*, const siginfo_t* info, void* self) {
                  static_cast<BrowserPeer*>(self)->hostExited(*info);
                  return 0;
              },
              this),
          "sd_event_add_child");
    child_.reset(child);
    outputIO_ = addIo<BrowserPeer, &BrowserPeer::readOutput>(loop_.get(), this, host_.output.get(),
                                                             EPOLLIN);
    inputIO_ =
        addIo<BrowserPeer, &BrowserPeer::writeSome>(loop_.get(), this, host_.input.get(), EPOLLOUT);
    sd_event_source_set_enabled(inputIO_.get(), SD_EVENT_OFF);
}

int BrowserPeer::run() {
    check(sd_event_loop(loop_.get()), "sd_event_loop");
    return hostStatus_ == 0 && script_.exitStatus() == 0 && !hostFailed_ ? 0 : 1;
}

void BrowserPeer::interrupt(int /*signal*/) {
    ++interrupts_;
    if (interrupts_ == 1 && host_.input) {
        console_.err("browser-peer: closing the host's input (interrupt again to terminate it)");
        script_.stop();
        closeInput();
        return;
    }
    const int signal = interrupts_ <= 2 ? SIGTERM : SIGKILL;
    console_.err(std::string("browser-peer: sending ") +
                 (signal == SIGTERM ? "SIGTERM" : "SIGKILL") + " to the host");
    ::kill(host_.pid, signal);
}

void BrowserPeer::linesRan() {
    if (hostStatus_) {
        return;
    }
    if (script_.inputEnded() || script_.stopped()) {
        closeInput();
        return;
    }
    script_.prompt();
}

void BrowserPeer::execute(const Script::Entry& entry) {
    using Kind = BrowserCommand::Kind;
    const BrowserCommand& command = entry.command;
    switch (command.kind) {
        case Kind::nothing:
            break;
        case Kind::send:
        case Kind::raw:
            if (closeRequested_) {
                script_.fail(entry.line, "the host's input is closed: nothing sent");
                break;
            }
            sendFrame(command.body);
            break;
        case Kind::close:
            closeInput();
            break;
        case Kind::expect:
        case Kind::sleep:
            script_.wait(entry, command.kind == Kind::sleep ? command.seconds : options_.timeout);
            break;
        case Kind::help:
            console_.out(std::string(browserCommandHelp()));
            break;
    }
}

}  // namespace kerrow::tools
