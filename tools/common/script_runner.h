// ScriptRunner: what both peers do with their lines. It reads lines (typed at a prompt, or from a
// script file) with a LineInput, parses each into a Command, and runs the commands one after
// another from a deferred event of the peer's sd-event loop. A command that waits (expect, sleep,
// or one of the peer's own) holds back the ones after it, and reading pauses until the wait is
// over. It also keeps what the peer received and no expect has used up yet, and reports failures
// with where they happened ("core-peer: FILE:LINE: ...").
//
// `Command` is a peer's parsed line: an enum `Kind` with at least `nothing`, `expect` and `sleep`,
// and the field `seconds`. The peer owns the runner, the loop and the console; all three live as
// long as it does. Loop thread only; the handlers run on it too and must not destroy the runner.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "tools/common/console.h"
#include "tools/common/event_loop.h"
#include "tools/common/line_input.h"
#include "tools/common/text.h"

namespace kerrow::tools {

/// "expect TEXT" (TEXT into `command.*text`) and "sleep SECONDS", the waits that both peers'
/// languages share: the command, a sentence saying what is wrong (`example` shows an expect), or
/// no value for any other `word`.
template <typename Command, std::string Command::*text>
[[nodiscard]] std::optional<std::variant<Command, std::string>> parseWait(
    std::string_view word, std::string_view rest, std::string_view example) {
    Command command;
    if (word == "expect") {
        if (rest.empty()) {
            return std::string("expect needs the text to wait for: ") + std::string(example);
        }
        command.kind = Command::Kind::expect;
        command.*text = std::string(rest);
        return command;
    }
    if (word != "sleep") {
        return std::nullopt;
    }
    const auto seconds = parseSeconds(rest);
    if (!seconds || *seconds > 3600) {
        return std::string("sleep takes a number of seconds up to 3600: sleep 0.5");
    }
    command.kind = Command::Kind::sleep;
    command.seconds = *seconds;
    return command;
}

template <typename Command>
class ScriptRunner {
  public:
    struct Entry {
        Command command;
        std::size_t line = 0;  // 1-based line of the script or input
    };
    struct Handlers {
        std::function<std::variant<Command, std::string>(std::string_view line)> parse;
        std::function<void(const Entry& entry)> execute;    // may call wait()
        std::function<bool(const Entry& entry)> satisfied;  // whether the current wait is over
        std::function<void(const Entry& entry)> timedOut;   // a wait reached its deadline
        std::function<void()> idle;          // the run found nothing queued and nothing waiting
        std::function<void()> scriptFailed;  // a line of a script failed: the runner is stopped
    };

    /// `name` prefixes the failure lines ("core-peer"); `scriptPath`, when lines come from a
    /// script, names it in them. Throws std::system_error.
    ScriptRunner(sd_event* loop, Console& console, std::string name,
                 std::optional<std::string> scriptPath, Handlers handlers)
        : loop_(loop),
          console_(console),
          name_(std::move(name)),
          scriptPath_(std::move(scriptPath)),
          handlers_(std::move(handlers)),
          runner_(addRunner<ScriptRunner, &ScriptRunner::run>(loop, this)) {}
    ScriptRunner(const ScriptRunner&) = delete;
    ScriptRunner& operator=(const ScriptRunner&) = delete;

    /// Starts reading lines from `descriptor`, which outlives the runner.
    void read(int descriptor, std::size_t maximumLineLength) {
        input_ = std::make_unique<LineInput>(
            loop_, descriptor, maximumLineLength,
            typename LineInput::Handlers{
                [this](std::string line) { lineArrived(line); },
                [this](const std::string& message) { fail(linesRead_ + 1, message); },
                [this] {
                    console_.endPrompt();
                    inputEnded_ = true;
                    schedule();
                }});
    }
    /// Queues commands parsed beforehand.
    void enqueue(Entry entry) { queue_.push_back(std::move(entry)); }

    /// Has the queue run from the loop's next idle moment.
    void schedule() { sd_event_source_set_enabled(runner_.get(), SD_EVENT_ONESHOT); }

    /// Starts the wait of `entry`: over at once when `satisfied`, else at checkWait() or after
    /// `seconds`.
    void wait(const Entry& entry, double seconds) {
        waiting_ = entry;
        if (handlers_.satisfied(entry)) {
            waiting_.reset();
            return;
        }
        timer_ = addTimer<ScriptRunner, &ScriptRunner::waitTimedOut>(loop_, this, seconds);
        pauseInput();
    }
    /// Ends the current wait if it is satisfied now.
    void checkWait() {
        if (waiting_ && handlers_.satisfied(*waiting_)) {
            endWait();
        }
    }
    void endWait() {
        waiting_.reset();
        timer_.reset();
        schedule();
    }
    [[nodiscard]] bool waiting() const { return waiting_.has_value(); }

    /// Runs nothing more: the queue is dropped and reading stops.
    void stop() {
        stopped_ = true;
        queue_.clear();
        pauseInput();
    }
    [[nodiscard]] bool stopped() const { return stopped_; }
    [[nodiscard]] bool inputEnded() const { return inputEnded_; }

    /// Reads the next lines and shows the prompt.
    void prompt() {
        if (input_) {
            input_->resume();
            console_.prompt();
        }
    }
    void pauseInput() {
        if (input_) {
            input_->pause();
        }
    }

    /// Reports `message` about `line` and sets the exit status to 1; a failure in a script
    /// stops the runner.
    void fail(std::size_t line, const std::string& message) {
        exitStatus_ = 1;
        std::string where = name_ + ": ";
        if (scriptPath_) {
            where += *scriptPath_ + ":" + std::to_string(line) + ": ";
        } else if (!console_.interactive() && line > 0) {
            where += "line " + std::to_string(line) + ": ";
        }
        console_.err(where + message);
        if (scriptPath_ && !stopped_) {
            // The rest of a script relies on what failed.
            stop();
            handlers_.scriptFailed();
            schedule();
        }
    }
    [[nodiscard]] int exitStatus() const { return exitStatus_; }

    /// Keeps `message` from `source` for the expects to come (the last 1000), and ends a wait
    /// that it satisfies.
    void received(std::string message, unsigned source = 0) {
        unmatched_.emplace_back(source, std::move(message));
        if (unmatched_.size() > maximumUnmatched) {
            unmatched_.pop_front();
        }
        checkWait();
    }
    /// Whether a kept message (from `source` only, if given) contains `text`; if so, that one and
    /// all kept before it are used up.
    [[nodiscard]] bool takeMatch(std::string_view text, std::optional<unsigned> source = {}) {
        for (auto kept = unmatched_.begin(); kept != unmatched_.end(); ++kept) {
            if ((!source || *source == kept->first) &&
                kept->second.find(text) != std::string::npos) {
                unmatched_.erase(unmatched_.begin(), kept + 1);
                return true;
            }
        }
        return false;
    }

  private:
    static constexpr std::size_t maximumUnmatched = 1000;

    void lineArrived(std::string_view text) {
        console_.promptUsed();
        const std::size_t line = ++linesRead_;
        auto parsed = handlers_.parse(text);
        if (const auto* error = std::get_if<std::string>(&parsed)) {
            fail(line, *error);
        } else if (auto& command = std::get<Command>(parsed);
                   command.kind != Command::Kind::nothing && !stopped_) {
            queue_.push_back({std::move(command), line});
        }
        if (waiting_ || !queue_.empty()) {
            pauseInput();  // resumed once the queue has run
        }
        schedule();
    }

    void run() {
        while (!waiting_ && !stopped_ && !queue_.empty()) {
            const Entry entry = std::move(queue_.front());
            queue_.pop_front();
            handlers_.execute(entry);
        }
        if (!waiting_ && queue_.empty()) {
            handlers_.idle();
        }
    }

    void waitTimedOut() {
        if (waiting_) {
            const Entry entry = *waiting_;
            endWait();
            handlers_.timedOut(entry);
        }
    }

    sd_event* loop_;
    Console& console_;
    std::string name_;
    std::optional<std::string> scriptPath_;
    Handlers handlers_;
    EventSource runner_;
    EventSource timer_;  // the deadline of the current wait
    std::unique_ptr<LineInput> input_;
    std::deque<Entry> queue_;
    std::optional<Entry> waiting_;
    std::deque<std::pair<unsigned, std::string>> unmatched_;  // source and message
    std::size_t linesRead_ = 0;
    bool inputEnded_ = false;
    bool stopped_ = false;
    int exitStatus_ = 0;
};

}  // namespace kerrow::tools
