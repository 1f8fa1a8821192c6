// kerrow-browser-peer: a stand-in for the browser, for development, the demo and tests.
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "kerrow_version.h"
#include "tools/browser_peer/browser_peer.h"
#include "tools/browser_peer/filters.h"
#include "tools/common/options.h"

namespace {

using namespace kerrow::tools;

constexpr const char* usage = R"(Usage: kerrow-browser-peer [OPTION]...
       kerrow-browser-peer --encode | --decode
A stand-in for the browser. It starts the native messaging host as a browser does (pipes on its
standard input and output, the caller's origin as first argument), sends every JSON line you type
(or that a script holds) to the host as one frame, and prints every frame the host writes as one
JSON line on standard output. Status lines and errors go to standard error.

Options:
  --host PATH          the host to start (default: kerrow-native-messaging-host next to this
                       program)
  --extension-id ID    the extension's id (default: knmpdelgjfhoaecibkpdaogjelmhfnca for Chrome,
                       kerrow@kerrowsoftware.com for Firefox)
  --firefox            start the host as Firefox does: the manifest path and the add-on id as
                       arguments, instead of the origin chrome-extension://ID/
  --manifest PATH      the manifest path passed with --firefox (default:
                       ~/.mozilla/native-messaging-hosts/com.kerrowsoftware.native_messaging_host.json)
  --script FILE        read the lines from FILE instead of standard input; the first failing
                       line (not JSON, an expect that timed out) ends the session
  --timeout SECONDS    how long expect waits (default 10)
  --encode             filter: JSON lines on standard input to frames on standard output
  --decode             filter: frames on standard input to JSON lines on standard output
  --version            print the version
  -h, --help           show this text

At the end of the input (Ctrl-D, or the end of the script) the host's input is closed; the peer
then waits for the host to exit and reports its exit status. An interrupt (Ctrl-C) closes the
host's input too; a second one sends SIGTERM to the host, a third SIGKILL. A host that writes a
frame over 1 MiB is dropped, as a browser drops it: both pipes are closed.

)";

constexpr const char* epilogue = R"(
Frames are a 4-byte little-endian length and the UTF-8 JSON body. A frame whose body is JSON on
one line is printed byte for byte; other bodies are printed as a JSON string, with a note on
standard error. In the filters, a line that is not JSON is reported with its number and skipped,
and frames over 64 MiB or input that ends inside a frame end --decode with an error.

Exit status: 0 when the host exited with 0 and every line was taken (filters: every line or
frame); 1 otherwise (the host failed or was dropped, a line was not JSON, an expect timed out);
2 for a bad option or a host that cannot be started.
)";

constexpr const char* defaultChromeId = "knmpdelgjfhoaecibkpdaogjelmhfnca";
constexpr const char* defaultFirefoxId = "kerrow@kerrowsoftware.com";

std::string defaultHostPath() {
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto directory = error ? std::filesystem::path(".") : self.parent_path();
    return (directory / "kerrow-native-messaging-host").string();
}

std::string defaultManifestPath() {
    const char* home = std::getenv("HOME");
    return std::string(home ? home : "") +
           "/.mozilla/native-messaging-hosts/com.kerrowsoftware.native_messaging_host.json";
}

enum class Mode { browser, encode, decode };

Mode parseOptions(int argc, char** argv, BrowserPeerOptions& options) {
    Mode mode = Mode::browser;
    bool firefox = false;
    std::optional<std::string> extensionId;
    std::optional<std::string> manifest;
    const auto exclusive = [&mode](Mode chosen) {
        return [&mode, chosen](const char*) {
            if (mode != Mode::browser) {
                throw UsageError("--encode and --decode exclude each other");
            }
            mode = chosen;
        };
    };
    const std::string help = std::string(usage) + std::string(browserCommandHelp()) + epilogue;
    readOptions(
        argc, argv, help, "kerrow-browser-peer " + std::string(kerrow::projectVersion),
        {{"host", true, [&](const char* value) { options.hostPath = value; }},
         {"extension-id", true, [&](const char* value) { extensionId = value; }},
         {"firefox", false, [&](const char*) { firefox = true; }},
         {"manifest", true, [&](const char* value) { manifest = value; }},
         {"script", true, [&](const char* value) { options.scriptPath = value; }},
         {"timeout", true,
          [&](const char* value) { options.timeout = secondsOption("--timeout", value, 3600); }},
         {"encode", false, exclusive(Mode::encode)},
         {"decode", false, exclusive(Mode::decode)}});
    if (manifest && !firefox) {
        throw UsageError("--manifest only applies with --firefox");
    }
    if (options.hostPath.empty()) {
        options.hostPath = defaultHostPath();
    }
    if (firefox) {
        options.hostArguments = {manifest.value_or(defaultManifestPath()),
                                 extensionId.value_or(defaultFirefoxId)};
    } else {
        options.hostArguments = {"chrome-extension://" + extensionId.value_or(defaultChromeId) +
                                 "/"};
    }
    return mode;
}

}  // namespace

int main(int argc, char** argv) {
    BrowserPeerOptions options;
    Mode mode = Mode::browser;
    try {
        mode = parseOptions(argc, argv, options);
    } catch (const UsageError& error) {
        std::cerr << "kerrow-browser-peer: " << error.what() << " (see --help)\n";
        return 2;
    }
    if (mode == Mode::encode) {
        return encodeFilter();
    }
    if (mode == Mode::decode) {
        return decodeFilter();
    }
    try {
        BrowserPeer peer(std::move(options));
        return peer.run();
    } catch (const std::exception& error) {
        std::cerr << "kerrow-browser-peer: " << error.what() << "\n";
        return 2;
    }
}
