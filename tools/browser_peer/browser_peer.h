// BrowserPeer: the stand-in browser. It starts the host as a browser does, sends each JSON line
// typed (or read from a script) to the host as one frame, prints every frame the host writes as
// one JSON line on standard output, closes the host's input on `close` or at the end of the
// input, and reports how the host ended. Status lines and errors go to standard error, so
// standard output carries the host's messages only.
//
// Like a browser, it drops a host that writes a frame over 1 MiB: it closes both pipes.
//
// Everything runs on one sd-event loop on the thread that calls run(). Lines run one after
// another (script_runner.h); a line that waits (expect, sleep) holds back those after it.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kit/frame_codec.h"
#include "tests/support/host_process.h"
#include "tools/browser_peer/browser_command.h"
#include "tools/common/console.h"
#include "tools/common/event_loop.h"
#include "tools/common/script_runner.h"

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
    using Script = ScriptRunner<BrowserCommand>;

    void watchHost();
    void linesRan();
    void execute(const Script::Entry& entry);
    void sendFrame(const std::string& body);
    void writeSome();
    void closeInput();
    void readOutput();
    void endOutput();
    void hostExited(const siginfo_t& info);
    void finishIfDone();
    void waitTimedOut(const Script::Entry& entry);
    void interrupt(int signal);

    BrowserPeerOptions options_;
    Console console_;
    EventLoop loop_;
    std::vector<EventSource> signals_;
    test::LaunchedProcess host_;  // pipes made non-blocking
    EventSource inputIO_;         // the host's standard input, while frames wait for it
    EventSource outputIO_;        // the host's standard output
    EventSource child_;
    EventSource timer_;  // the grace period for the output of a host that has exited
    Descriptor scriptFile_;
    Script script_;

    std::string pending_;  // framed bytes the host's input has not taken yet
    bool closeRequested_ = false;
    FrameDecoder frames_{browserFrameLimit};
    std::size_t framesReceived_ = 0;
    std::optional<int> hostStatus_;
    int interrupts_ = 0;
    bool hostFailed_ = false;  // dropped, or its output ended inside a frame
};

}  // namespace kerrow::tools
