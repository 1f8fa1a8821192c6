// BrowserCommand: one line typed into the browser peer or read from its script: a JSON text to
// send to the host as one frame, or one of a few directives. Pure values; any thread.
#pragma once

#include <string>
#include <string_view>
#include <variant>

namespace kerrow::tools {

struct BrowserCommand {
    enum class Kind {
        nothing,  // a blank line or a comment
        send,     // body: a JSON text, sent as it stands
        raw,      // body: any bytes (after escapes), sent unchecked
        close,    // close the host's standard input (the browser disconnecting)
        expect,   // text: wait for a frame from the host containing it
        sleep,    // seconds
        help,
    };
    Kind kind = Kind::nothing;
    std::string body;
    std::string text;
    double seconds = 0;
};

/// What `line` asks for, or why it is neither JSON nor a directive.
[[nodiscard]] std::variant<BrowserCommand, std::string> parseBrowserCommand(std::string_view line);

/// The line forms, as `help` and `--help` print them.
[[nodiscard]] std::string_view browserCommandHelp();

}  // namespace kerrow::tools
