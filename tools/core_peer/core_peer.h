// CorePeer: the stand-in core service. It listens at the browser socket, answers the hosts'
// launch announcements on the session bus, numbers the hosts that connect, prints every message
// they send, and runs the commands of its command language (core_command.h), typed at a prompt or
// read from a script file.
//
// Everything runs on one sd-event loop on the thread that calls run(). Commands run one after
// another (script_runner.h): a command that waits (wait-hosts, expect, sleep) holds back the ones
// after it, and reading of further input pauses until it is over.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/console.h"
#include "tools/common/event_loop.h"
#include "tools/common/script_runner.h"
#include "tools/core_peer/core_command.h"
#include "tools/core_peer/host_connection.h"
#include "tools/core_peer/session_bus.h"
#include "tools/core_peer/socket_listener.h"

namespace kerrow::tools {

struct CorePeerOptions {
    std::string socketPath;
    std::optional<std::string> scriptPath;  // none: commands from standard input
    bool readInput = true;                  // false: no commands at all, run until a signal
    bool useBus = true;
    bool answer = true;   // answer launch announcements, and post the start notice once at start
    double timeout = 10;  // seconds that wait-hosts and expect wait at most
};

/// One command to run, with where it came from (for error messages).
using ScriptEntry = ScriptRunner<CoreCommand>::Entry;

/// Reads and parses a whole script. Throws std::runtime_error listing every bad line.
[[nodiscard]] std::vector<ScriptEntry> loadScript(const std::string& path);

class CorePeer final : public HostConnection::Client {
  public:
    /// Sets everything up (socket, bus, input). Throws ListenError or std::system_error.
    CorePeer(CorePeerOptions options, std::vector<ScriptEntry> script);
    ~CorePeer() override;
    CorePeer(const CorePeer&) = delete;
    CorePeer& operator=(const CorePeer&) = delete;

    /// Runs until quit, the end of the script or input, or SIGINT/SIGTERM. Returns the exit
    /// status: 0, or 1 when a command failed.
    int run();

    void messageReceived(HostConnection& host, std::string message) override;
    void hostDisconnected(HostConnection& host, const std::string& reason) override;

  private:
    void signalArrived(int signal);
    void startBus();
    void hostConnected(Descriptor socket);
    void commandsRan();
    void execute(const ScriptEntry& entry);
    void send(const ScriptEntry& entry);
    void disconnect(const ScriptEntry& entry);
    void postStart();
    void listHosts();
    [[nodiscard]] std::optional<std::vector<HostConnection*>> targets(const ScriptEntry& entry);
    [[nodiscard]] bool waitSatisfied(const CoreCommand& command);
    void waitTimedOut(const ScriptEntry& entry);
    void quit();
    void finishWhenSent();

    CorePeerOptions options_;
    Console console_;
    EventLoop loop_;
    std::vector<EventSource> signals_;
    std::unique_ptr<SocketListener> listener_;
    std::unique_ptr<SessionBus> bus_;
    ScriptRunner<CoreCommand> script_;
    EventSource timer_;  // the quit grace period

    std::map<unsigned, std::unique_ptr<HostConnection>> hosts_;  // connected, by number
    std::vector<std::unique_ptr<HostConnection>> retired_;       // ended; destroyed once idle
    unsigned nextHostNumber_ = 1;
    bool quitting_ = false;
    double graceLeft_ = 3;  // seconds that quitting waits for unsent frames
};

}  // namespace kerrow::tools
