// The commands of the core peer's language, and its waits.
#include "tools/common/text.h"
#include "tools/core_peer/core_peer.h"

namespace kerrow::tools {
namespace {

std::string hostList(const std::map<unsigned, std::unique_ptr<HostConnection>>& hosts) {
    std::string list;
    for (const auto& [number, host] : hosts) {
        list += (list.empty() ? "" : ", ") + std::to_string(number);
    }
    return list.empty() ? "none" : list;
}

}  // namespace

void CorePeer::execute(const ScriptEntry& entry) {
    using Kind = CoreCommand::Kind;
    switch (entry.command.kind) {
        case Kind::nothing:
            break;
        case Kind::send:
            send(entry);
            break;
        case Kind::hosts:
            listHosts();
            break;
        case Kind::start:
            if (!bus_) {
                script_.fail(entry.line, "start: not on the session bus (--no-bus)");
                break;
            }
            postStart();
            break;
        case Kind::disconnect:
            disconnect(entry);
            break;
        case Kind::waitHosts:
        case Kind::expect:
        case Kind::sleep:
            script_.wait(entry, entry.command.kind == Kind::sleep ? entry.command.seconds
                                                                  : options_.timeout);
            break;
        case Kind::help:
            console_.out(std::string(commandHelp()));
            break;
        case Kind::quit:
            quit();
            break;
    }
}

std::optional<std::vector<HostConnection*>> CorePeer::targets(const ScriptEntry& entry) {
    std::vector<HostConnection*> chosen;
    if (entry.command.host) {
        const auto found = hosts_.find(*entry.command.host);
        if (found == hosts_.end()) {
            script_.fail(entry.line, "no host " + std::to_string(*entry.command.host) +
                                         " (connected: " + hostList(hosts_) + ")");
            return std::nullopt;
        }
        chosen.push_back(found->second.get());
        return chosen;
    }
    if (hosts_.empty()) {
        script_.fail(entry.line, "no host connected: nothing done");
        return std::nullopt;
    }
    for (const auto& [number, host] : hosts_) {
        chosen.push_back(host.get());
    }
    return chosen;
}

void CorePeer::send(const ScriptEntry& entry) {
    const auto hosts = targets(entry);
    if (!hosts) {
        return;
    }
    for (HostConnection* host : *hosts) {
        console_.out("to host " + std::to_string(host->number()) + ": " +
                     printable(entry.command.message) + "  [" + entry.command.summary + "]");
        host->send(entry.command.message);
    }
}

void CorePeer::disconnect(const ScriptEntry& entry) {
    const auto hosts = targets(entry);
    if (!hosts) {
        return;
    }
    for (HostConnection* host : *hosts) {
        host->disconnect("closed by the core peer");
    }
}

void CorePeer::listHosts() {
    if (hosts_.empty()) {
        console_.out("core: no host connected");
    }
    for (const auto& [number, host] : hosts_) {
        console_.out("core: host " + std::to_string(number) + " (pid " +
                     std::to_string(host->pid()) + ")");
    }
}

bool CorePeer::waitSatisfied(const CoreCommand& command) {
    switch (command.kind) {
        case CoreCommand::Kind::waitHosts:
            return hosts_.size() == command.count;
        case CoreCommand::Kind::expect:
            return script_.takeMatch(command.message, command.host);
        default:
            return false;
    }
}

void CorePeer::waitTimedOut(const ScriptEntry& entry) {
    const CoreCommand& command = entry.command;
    if (command.kind == CoreCommand::Kind::waitHosts) {
        script_.fail(entry.line, "wait-hosts " + std::to_string(command.count) + ": still " +
                                     std::to_string(hosts_.size()) + " connected (" +
                                     hostList(hosts_) + ") after " +
                                     formatSeconds(options_.timeout) + " s");
    } else if (command.kind == CoreCommand::Kind::expect) {
        script_.fail(entry.line, "expect: no message containing '" + printable(command.message) +
                                     "' arrived within " + formatSeconds(options_.timeout) + " s");
    }
}

}  // namespace kerrow::tools
