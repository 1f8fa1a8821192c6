#include "tools/core_peer/core_command.h"

#include <nlohmann/json.hpp>
#include <tuple>
#include <vector>

#include "kit/const.h"
#include "tools/common/script_runner.h"
#include "tools/common/text.h"

namespace kerrow::tools {
namespace {

using Result = std::variant<CoreCommand, std::string>;

constexpr std::string_view help =
    R"(Commands, one a line (blank lines and lines starting with # are skipped):
  close-tab ID          close tab ID                   sends kerrow.closeTab-ID
  web-off [TEXT]        switch web access off; TEXT    sends kerrow.disableInternetTEXT
                        is the payload the extension gets
  web-on                switch web access on           sends kerrow.enableInternet
  allow [SITE...]       set the allow list             sends kerrow.websiteList{"name":
                                                       "Allowed websites","websites":[...],"listType":0}
  block [SITE...]       set the block list             the same with "listType":1
  clear                 clear both lists               the same with no sites and "listType":2
  list TYPE [SITE...]   a website list of any listType from 0 to 255
  raw TEXT              TEXT as typed, after the escapes \\ \n \r \t \0 \xHH (blanks at
                        either end are dropped: write \x20)
  @N COMMAND            to host N only (without @N: to every connected host); also
                        applies to disconnect and expect
  hosts                 list the connected hosts
  start                 post com.kerrowsoftware.startCoreHostServices on the session bus
  disconnect            close the connection to the host(s); a host then connects again
  wait-hosts N          wait until exactly N hosts are connected
  expect TEXT           wait until a host sends a message containing TEXT (also one sent
                        before, as long as it came after the message the last expect matched)
  sleep SECONDS         wait (fractions allowed: 0.5)
  help                  this text
  quit                  close every connection, remove the socket and end
)";

CoreCommand sendCommand(std::string message, std::string summary) {
    CoreCommand command;
    command.kind = CoreCommand::Kind::send;
    command.message = std::move(message);
    command.summary = std::move(summary);
    return command;
}

CoreCommand plain(CoreCommand::Kind kind) {
    CoreCommand command;
    command.kind = kind;
    return command;
}

Result websiteList(unsigned listType, const std::vector<std::string>& sites, std::string name,
                   std::string summary) {
    nlohmann::ordered_json list;
    list["name"] = std::move(name);
    list["websites"] = sites;
    list["listType"] = listType;
    try {
        return sendCommand(std::string(Const::Browser::websiteList) + list.dump(), summary);
    } catch (const nlohmann::json::exception&) {
        return std::string("a site is not UTF-8 text");
    }
}

Result parseSend(std::string_view word, std::string_view rest,
                 const std::vector<std::string>& args) {
    if (word == "close-tab") {
        if (args.size() != 1) {
            return std::string("close-tab takes one tab id: close-tab 42");
        }
        return sendCommand(std::string(Const::Browser::closeTab) + "-" + args[0],
                           "close tab " + args[0]);
    }
    if (word == "web-off") {
        return sendCommand(std::string(Const::Browser::disableInternet) + std::string(rest),
                           "web access off");
    }
    if (word == "web-on") {
        if (!args.empty()) {
            return std::string("web-on takes nothing after it");
        }
        return sendCommand(std::string(Const::Browser::enableInternet), "web access on");
    }
    if (word == "allow") {
        return websiteList(0, args, "Allowed websites", "allow list");
    }
    if (word == "block") {
        return websiteList(1, args, "Blocked websites", "block list");
    }
    if (word == "clear") {
        if (!args.empty()) {
            return std::string("clear takes nothing after it");
        }
        return websiteList(2, {}, "No list", "clear both lists");
    }
    if (word == "list") {
        const auto type = args.empty() ? std::nullopt : parseCount(args[0], 255);
        if (!type) {
            return std::string("list needs a listType from 0 to 255 first: list 2 a.example");
        }
        return websiteList(static_cast<unsigned>(*type), {args.begin() + 1, args.end()},
                           "Website list", "website list of type " + args[0]);
    }
    if (word == "raw") {
        auto text = unescape(rest);
        if (!text) {
            return std::string("raw: bad escape (use \\\\ \\n \\r \\t \\0 or \\xHH)");
        }
        return sendCommand(std::move(*text), "raw text");
    }
    return std::string("unknown command '") + std::string(word) + "' (type help for the list)";
}

Result parseControl(std::string_view word, std::string_view rest,
                    const std::vector<std::string>& args) {
    const auto noArguments = [&](CoreCommand::Kind kind) -> Result {
        if (!args.empty()) {
            return std::string(word) + " takes nothing after it";
        }
        return plain(kind);
    };
    if (word == "hosts") {
        return noArguments(CoreCommand::Kind::hosts);
    }
    if (word == "start") {
        return noArguments(CoreCommand::Kind::start);
    }
    if (word == "disconnect") {
        return noArguments(CoreCommand::Kind::disconnect);
    }
    if (word == "help") {
        return plain(CoreCommand::Kind::help);
    }
    if (word == "quit" || word == "exit") {
        return noArguments(CoreCommand::Kind::quit);
    }
    if (word == "wait-hosts") {
        const auto count = args.size() == 1 ? parseCount(args[0], 10000) : std::nullopt;
        if (!count) {
            return std::string("wait-hosts takes one number of hosts: wait-hosts 2");
        }
        auto command = plain(CoreCommand::Kind::waitHosts);
        command.count = static_cast<unsigned>(*count);
        return command;
    }
    if (auto wait =
            parseWait<CoreCommand, &CoreCommand::message>(word, rest, "expect kerrow.tabList")) {
        return std::move(*wait);
    }
    return parseSend(word, rest, args);
}

}  // namespace

std::variant<CoreCommand, std::string> parseCoreCommand(std::string_view line) {
    auto [word, rest] = firstWord(line);
    if (word.empty() || word.front() == '#') {
        return CoreCommand{};
    }
    std::optional<unsigned> host;
    if (word.front() == '@') {
        const auto target = word.substr(1);
        if (target != "all") {
            const auto number = parseCount(target, 1'000'000);
            if (!number || *number == 0) {
                return std::string("@ needs a host number or all: @2 close-tab 42");
            }
            host = static_cast<unsigned>(*number);
        }
        if (rest.empty()) {
            return std::string("@") + std::string(target) + " needs a command after it";
        }
        std::tie(word, rest) = firstWord(rest);
    }
    auto result = parseControl(word, rest, splitWords(rest));
    if (auto* command = std::get_if<CoreCommand>(&result)) {
        using Kind = CoreCommand::Kind;
        const bool targeted = command->kind == Kind::send || command->kind == Kind::disconnect ||
                              command->kind == Kind::expect;
        if (host && !targeted) {
            return "@" + std::to_string(*host) + " does not apply to " + std::string(word);
        }
        command->host = host;
    }
    return result;
}

std::string_view commandHelp() {
    return help;
}

}  // namespace kerrow::tools
