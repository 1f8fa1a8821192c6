// BrowserPeer: the stand-in browser. It starts the host as a browser does, sends each JSON line
// typed (or read from a script) to the host as one frame, prints every frame the host writes as
// one JSON line on standard output, closes the host's input on `close` or at the end of the
// input, and reports how the host ended. Status lines and errors go to standard error, so
// standard output carries the host's messages only.
//
// Like a browser, it drops a host that writes a frame over 1 MiB: it closes both pipes.
//
// Everything runs on one sd-event loop on the thread that calls run(). Lines run one after
// another from a deferred event; a line that waits (expect, sleep) holds back those after it.
#pragma once

#include <sys/types.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kit/frame_codec.h"
#include "tests/support/host_process.h"
#include "tools/browser_peer/browser_command.h"
#include "tools/common/console.h"
#include "tools/common/event_loop.h"
#include "tools/common/line_input.h"

namespace kerrow::tools {

struct BrowserPeerOptions {
    std::string hostPath;
    std::vector<std::string> hostArguments;  // what the browser passes
    std::optional<std::string> scriptPath;   // none: lines from standard input
    double timeout = 10;                     // seconds that expect waits at most
};

class BrowserPeer {
  public:
    /// The largest frame a browser accepts from a host.
    static constexpr std::size_t browserFrameLimit = 1024 * 1024;

    /// Starts the host. Throws std::system_error when it cannot.
    explicit BrowserPeer(BrowserPeerOptions options);
    ~BrowserPeer();
    BrowserPeer(const BrowserPeer&) = delete;
    BrowserPeer& operator=(const BrowserPeer&) = delete;

    /// Runs until the host has ended and its output is read. Returns the exit status: 0 when
    /// the host exited with 0 and every line was taken; 1 otherwise.
    int run();

  private:
    void installSignals();
    void watchHost();
    void lineArrived(std::string line, std::size_t number);
    void schedule();
    void runLines();
    void execute(const BrowserCommand& command, std::size_t line);
    void sendFrame(const std::string& body);
    void writeSome();
    void closeInput();
    void readOutput();
    void endOutput();
    void hostExited(const siginfo_t& info);
    void finishIfDone();
    void startWait(const BrowserCommand& command, std::size_t line);
    [[nodiscard]] bool waitSatisfied();
    void waitTimedOut();
    void endWait();
    void fail(std::size_t line, const std::string& message);
    void interrupt();

    BrowserPeerOptions options_;
    Console console_;
    EventLoop loop_;
    std::vector<EventSource> signals_;
    test::LaunchedProcess host_;  // pipes made non-blocking
    EventSource inputIO_;         // the host's standard input, while frames wait for it
    EventSource outputIO_;        // the host's standard output
    EventSource child_;
    EventSource runner_;
    EventSource timer_;
    Descriptor script_;  // the script file, when lines come from one
    std::unique_ptr<LineInput> input_;

    std::string pending_;  // framed bytes the host's input has not taken yet
    bool closeRequested_ = false;
    FrameDecoder frames_{browserFrameLimit};
    std::size_t framesReceived_ = 0;
    std::deque<std::string> unmatched_;  // frames no expect has used up yet (bounded)

    std::deque<std::pair<BrowserCommand, std::size_t>> queue_;
    std::optional<std::pair<BrowserCommand, std::size_t>> waiting_;
    std::size_t linesRead_ = 0;
    bool inputEnded_ = false;
    bool stopped_ = false;  // a script failed: no more lines run
    std::optional<int> hostStatus_;
    int interrupts_ = 0;
    int exitStatus_ = 0;
};

}  // namespace kerrow::tools
