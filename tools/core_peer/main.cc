// kerrow-core-peer: a stand-in for the Kerrow core service, for development, the demo and tests.
#include <cstdio>
#include <iostream>

#include "kerrow_version.h"
#include "kit/socket_helper.h"
#include "tools/common/options.h"
#include "tools/core_peer/core_peer.h"

namespace {

using namespace kerrow::tools;

constexpr const char* usage = R"(Usage: kerrow-core-peer [OPTION]...
A stand-in for the Kerrow core service. It listens on the browser socket, answers the hosts'
launch announcements on the D-Bus session bus, prints every message that a host sends, and sends
the commands that you type (or that a script holds) to one host or to all of them.

Options:
  --socket PATH      listen at PATH (default: the browser socket location,
                     $XDG_RUNTIME_DIR/kerrow/browser.sock, else /tmp/kerrow-<uid>/browser.sock);
                     a missing directory is created with mode 0700
  --script FILE      run the commands in FILE, then quit; the first failing command ends the
                     script with exit status 1; a bad line is reported before anything runs
  --no-input         read no commands: serve until SIGINT or SIGTERM
  --no-answer        do not answer launch announcements, and do not post the start notification
                     at start-up (the command start still posts it)
  --no-bus           do not use the session bus at all
  --timeout SECONDS  how long wait-hosts and expect wait (default 10)
  --version          print the version
  -h, --help         show this text

On the session bus, every nativeMessagingHostDidFinishLaunching is answered with
com.kerrowsoftware.startCoreHostServices, and that notification is also posted once at start-up,
so hosts that started before the peer connect too.

Output, one line per event (standard output): "core: ..." for the peer's own events (listening,
hosts connecting and disconnecting, notifications), "host N: ..." for each message received from
host N (tab data with the kerrow.tabList marker shown apart, the device-twin update request, any
other message), "to host N: ..." for each message sent. Errors go to standard error.

)";

constexpr const char* epilogue = R"(
Commands from standard input end at end of input (Ctrl-D). SIGINT cancels a wait at the prompt and
quits otherwise; quitting closes every connection and removes the socket file.

Exit status: 0 on success; 1 when a command failed (a bad line, a wait that timed out, no host to
send to) or the peer could not start (socket in use, no session bus); 2 for a bad option.
)";

CorePeerOptions parseOptions(int argc, char** argv) {
    CorePeerOptions options;
    options.socketPath = kerrow::SocketHelper::browserSocketLocation();
    const std::string help = std::string(usage) + std::string(commandHelp()) + epilogue;
    readOptions(argc, argv, help, "kerrow-core-peer " + std::string(kerrow::projectVersion),
                {{"socket", true, [&](const char* value) { options.socketPath = value; }},
                 {"script", true, [&](const char* value) { options.scriptPath = value; }},
                 {"no-input", false, [&](const char*) { options.readInput = false; }},
                 {"no-answer", false, [&](const char*) { options.answer = false; }},
                 {"no-bus", false, [&](const char*) { options.useBus = false; }},
                 {"timeout", true, [&](const char* value) {
                      options.timeout = secondsOption("--timeout", value, 3600);
                  }}});
    if (options.scriptPath && !options.readInput) {
        throw UsageError("--script and --no-input exclude each other");
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    CorePeerOptions options;
    std::vector<ScriptEntry> script;
    try {
        options = parseOptions(argc, argv);
        if (options.scriptPath) {
            script = loadScript(*options.scriptPath);
        }
    } catch (const UsageError& error) {
        std::cerr << "kerrow-core-peer: " << error.what() << " (see --help)\n";
        return 2;
    } catch (const std::exception& error) {
        std::cerr << "kerrow-core-peer: " << error.what() << "\n";
        return 2;
    }
    try {
        CorePeer peer(std::move(options), std::move(script));
        return peer.run();
    } catch (const ListenError& error) {
        std::cerr << "kerrow-core-peer: " << error.what() << "\n";
    } catch (const std::system_error& error) {
        std::cerr << "kerrow-core-peer: " << error.what();
        if (std::string_view(error.what()).find("session bus") != std::string_view::npos) {
            std::cerr << " (no session bus: set DBUS_SESSION_BUS_ADDRESS, start one with "
                         "dbus-run-session, or use --no-bus)";
        }
        std::cerr << "\n";
    }
    return 1;
}
