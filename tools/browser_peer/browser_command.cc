#include "tools/browser_peer/browser_command.h"

#include "tools/browser_peer/json_lines.h"
#include "tools/common/script_runner.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

constexpr std::string_view help = R"(Lines (blank lines and lines starting with # are skipped):
  JSON TEXT        sent to the host as one frame, byte for byte as typed: {"tabs":[]}
  raw TEXT         TEXT sent unchecked as one frame, after the escapes \\ \n \r \t \0 \xHH
                   (blanks at either end are dropped: write \x20)
  expect TEXT      wait until the host writes a frame containing TEXT (also one written
                   before, as long as it came after the frame the last expect matched)
  sleep SECONDS    wait (fractions allowed: 0.5)
  close            close the host's standard input, as a browser does when the extension
                   disconnects; the host should then exit with status 0
  help             this text
)";

BrowserCommand make(BrowserCommand::Kind kind) {
    BrowserCommand command;
    command.kind = kind;
    return command;
}

}  // namespace

std::variant<BrowserCommand, std::string> parseBrowserCommand(std::string_view line) {
    const auto [word, rest] = firstWord(line);
    if (word.empty() || word.front() == '#') {
        return BrowserCommand{};
    }
    if (word == "close" || word == "help") {
        if (!rest.empty()) {
            return std::string(word) + " takes nothing after it";
        }
        return make(word == "close" ? BrowserCommand::Kind::close : BrowserCommand::Kind::help);
    }
    if (auto wait =
            parseWait<BrowserCommand, &BrowserCommand::text>(word, rest, "expect closeTab")) {
        return std::move(*wait);
    }
    if (word == "raw") {
        auto body = unescape(rest);
        if (!body) {
            return std::string("raw: bad escape (use \\\\ \\n \\r \\t \\0 or \\xHH)");
        }
        auto command = make(BrowserCommand::Kind::raw);
        command.body = std::move(*body);
        return command;
    }
    if (const auto error = jsonError(line)) {
        return "line is " + *error + " (type help for the line forms)";
    }
    auto command = make(BrowserCommand::Kind::send);
    command.body = std::string(line);
    return command;
}

std::string_view browserCommandHelp() {
    return help;
}

}  // namespace kerrow::tools
