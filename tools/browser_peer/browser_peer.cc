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
    : options_(std::move(options)), console_("browser> "), loop_(newEventLoop()) {
    installSignals();
    if (options_.scriptPath) {
        script_.reset(::open(options_.scriptPath->c_str(), O_RDONLY | O_CLOEXEC));
        if (!script_) {
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
    runner_ = addRunner<BrowserPeer, &BrowserPeer::runLines>(loop_.get(), this);
    input_ = std::make_unique<LineInput>(
        loop_.get(), script_ ? script_.get() : STDIN_FILENO, maximumLineLength,
        LineInput::Handlers{
            [this](std::string line) { lineArrived(std::move(line), ++linesRead_); },
            [this](const std::string& message) { fail(linesRead_ + 1, message); },
            [this] {
                console_.endPrompt();
                inputEnded_ = true;
                schedule();
            }});
    schedule();
}

BrowserPeer::~BrowserPeer() {
    if (!hostStatus_ && host_.pid > 0) {
        // Only reached when run() failed: do not leave the host behind.
        ::kill(host_.pid, SIGKILL);
        ::waitpid(host_.pid, nullptr, 0);
    }
}

void BrowserPeer::installSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGCHLD);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    for (const int number : {SIGINT, SIGTERM}) {
        sd_event_source* source = nullptr;
        check(sd_event_add_signal(
                  loop_.get(), &source, number,
                  [](sd_event_source*, const signalfd_siginfo*, void* self) {
                      static_cast<BrowserPeer*>(self)->interrupt();
                      return 0;
                  },
                  this),
              "sd_event_add_signal");
        signals_.emplace_back(source);
    }
}

void BrowserPeer::watchHost() {
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
    sd_event_source* output = nullptr;
    check(sd_event_add_io(
              loop_.get(), &output, host_.output.get(), EPOLLIN,
              [](sd_event_source*, int, uint32_t, void* self) {
                  static_cast<BrowserPeer*>(self)->readOutput();
                  return 0;
              },
              this),
          "sd_event_add_io");
    outputIO_.reset(output);
    sd_event_source* input = nullptr;
    check(sd_event_add_io(
              loop_.get(), &input, host_.input.get(), EPOLLOUT,
              [](sd_event_source*, int, uint32_t, void* self) {
                  static_cast<BrowserPeer*>(self)->writeSome();
                  return 0;
              },
              this),
          "sd_event_add_io");
    inputIO_.reset(input);
    sd_event_source_set_enabled(input, SD_EVENT_OFF);
}

int BrowserPeer::run() {
    check(sd_event_loop(loop_.get()), "sd_event_loop");
    return hostStatus_ == 0 && exitStatus_ == 0 ? 0 : 1;
}

void BrowserPeer::interrupt() {
    ++interrupts_;
    if (interrupts_ == 1 && host_.input) {
        console_.err("browser-peer: closing the host's input (interrupt again to terminate it)");
        queue_.clear();
        stopped_ = true;
        closeInput();
        return;
    }
    const int signal = interrupts_ <= 2 ? SIGTERM : SIGKILL;
    console_.err(std::string("browser-peer: sending ") +
                 (signal == SIGTERM ? "SIGTERM" : "SIGKILL") + " to the host");
    ::kill(host_.pid, signal);
}

void BrowserPeer::lineArrived(std::string line, std::size_t number) {
    console_.promptUsed();
    auto parsed = parseBrowserCommand(line);
    if (const auto* error = std::get_if<std::string>(&parsed)) {
        fail(number, *error);
        return;
    }
    auto& command = std::get<BrowserCommand>(parsed);
    if (command.kind != BrowserCommand::Kind::nothing && !stopped_) {
        queue_.emplace_back(std::move(command), number);
    }
    if (waiting_ || !queue_.empty()) {
        input_->pause();  // resumed once the queue has run
    }
    schedule();
}

void BrowserPeer::schedule() {
    if (runner_) {
        sd_event_source_set_enabled(runner_.get(), SD_EVENT_ONESHOT);
    }
}

void BrowserPeer::runLines() {
    while (!waiting_ && !stopped_ && !queue_.empty()) {
        const auto [command, line] = std::move(queue_.front());
        queue_.pop_front();
        execute(command, line);
    }
    if (waiting_ || !queue_.empty() || hostStatus_) {
        return;
    }
    if (inputEnded_ || stopped_) {
        closeInput();
        return;
    }
    input_->resume();
    console_.prompt();
}

void BrowserPeer::execute(const BrowserCommand& command, std::size_t line) {
    using Kind = BrowserCommand::Kind;
    switch (command.kind) {
        case Kind::nothing:
            break;
        case Kind::send:
        case Kind::raw:
            if (closeRequested_) {
                fail(line, "the host's input is closed: nothing sent");
                break;
            }
            sendFrame(command.body);
            break;
        case Kind::close:
            closeInput();
            break;
        case Kind::expect:
        case Kind::sleep:
            startWait(command, line);
            break;
        case Kind::help:
            console_.out(std::string(browserCommandHelp()));
            break;
    }
}

void BrowserPeer::fail(std::size_t line, const std::string& message) {
    exitStatus_ = 1;
    std::string where = "browser-peer: ";
    if (options_.scriptPath) {
        where += *options_.scriptPath + ":" + std::to_string(line) + ": ";
    } else if (!console_.interactive()) {
        where += "line " + std::to_string(line) + ": ";
    }
    console_.err(where + message);
    if (options_.scriptPath && !stopped_) {
        // The rest of a script relies on what failed: end the session as a browser would.
        stopped_ = true;
        queue_.clear();
        input_->pause();
        console_.err("browser-peer: script stopped");
        schedule();
    }
}

}  // namespace kerrow::tools
