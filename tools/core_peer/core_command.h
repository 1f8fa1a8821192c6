// CoreCommand: one line of the core peer's command language, parsed. The language is what a
// person types at the prompt or a script file holds; `kerrow-core-peer --help` documents it and
// commandHelp() holds that text. Pure values and functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kerrow::tools {

struct CoreCommand {
    enum class Kind {
        nothing,     // a blank line or a comment
        send,        // message: the text sent to the hosts as one frame
        hosts,       // list the connected hosts
        start,       // post the start notification
        disconnect,  // close the connection(s)
        waitHosts,   // wait until exactly `count` hosts are connected
        expect,      // wait for a received message containing `message`
        sleep,       // wait `seconds`
        help,
        quit,
    };

    Kind kind = Kind::nothing;
    std::optional<unsigned> host;  // "@N": host N only; none: every connected host
    std::string message;           // send: the whole message; expect: the text looked for
    std::string summary;           // send: what the message does, for the echo line
    unsigned count = 0;
    double seconds = 0;
};

/// The command on `line`, or the reason it is not one (a sentence naming what is wrong).
[[nodiscard]] std::variant<CoreCommand, std::string> parseCoreCommand(std::string_view line);

/// The command language, as `help` and `--help` print it.
[[nodiscard]] std::string_view commandHelp();

}  // namespace kerrow::tools
