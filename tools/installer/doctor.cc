#include "tools/installer/doctor.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>

#include "kit/socket_helper.h"
#include "kit/trust.h"
#include "platform/confinement.h"
#include "platform/descriptor.h"
#include "platform/distributed_notification_center.h"
#include "platform/sd_bus_handles.h"
#include "tools/installer/manifest.h"
#include "tools/installer/manifest_file.h"

namespace kerrow::installer {
namespace {

// Observed and posted by the doctor alone, so that no host or core service reacts to it.
constexpr std::string_view probeName = "com.kerrowsoftware.nativeMessagingHostDoctorProbe";
constexpr auto busTimeout = std::chrono::seconds(2);
constexpr std::string_view installCommand = "kerrow-native-messaging-host-install";

// The findings of one manifest file; false when it is missing.
bool checkManifest(const Target& target, const std::string& subject, const Options& options,
                   std::vector<Finding>& findings) {
    const auto path = target.manifestPath();
    const auto text = readText(path);
    if (!text) {
        return false;
    }
    const auto expectedHost =
        target.flatpakFolder ? std::optional(target.launcherPath()) : std::nullopt;
    const auto problems =
        manifestProblems(*text, {target.family, expectedHost, options.extensionIds(target.family)});
    if (problems.empty()) {
        findings.push_back({true, subject, "manifest " + path.string() + " is sound", ""});
    } else {
        findings.push_back(
            {false, subject, "manifest " + path.string() + ": " + joined(problems, "; "),
             "run " + std::string(installCommand) +
                 (options.scope == Scope::system ? " --system" : "") + " --extension-id <id>"});
    }
    return true;
}

// Whether the Flatpak app may talk to org.freedesktop.Flatpak, from the override files.
bool flatpakMayTalk(const Environment& environment, std::string_view id) {
    for (const auto& overrides : {environment.home / ".local/share/flatpak/overrides",
                                  std::filesystem::path("/var/lib/flatpak/overrides")}) {
        const auto text = readText(overrides / id);
        if (text && (text->find("org.freedesktop.Flatpak=talk") != std::string::npos ||
                     text->find("org.freedesktop.Flatpak=own") != std::string::npos)) {
            return true;
        }
    }
    return false;
}

void checkFlatpak(const Target& target, const Environment& environment,
                  std::vector<Finding>& findings) {
    const auto launcher = readText(target.launcherPath());
    if (!launcher || launcher->find("flatpak-spawn --host ") == std::string::npos ||
        ::access(target.launcherPath().c_str(), X_OK) != 0) {
        findings.push_back({false, target.label(),
                            "launcher " + target.launcherPath().string() +
                                " is missing, not executable or does not use flatpak-spawn",
                            "run " + std::string(installCommand) + " --browser " +
                                std::string(target.selected.front()->name) +
                                " --extension-id <id>"});
    }
    if (!flatpakMayTalk(environment, target.flatpakId)) {
        findings.push_back({false, target.label(),
                            "the app may not talk to org.freedesktop.Flatpak, so the launcher "
                            "cannot start the host",
                            joined(flatpakGrantCommand(target.flatpakId), " ")});
    }
}

void checkBrowsers(const Options& options, const Environment& environment,
                   std::vector<Finding>& findings) {
    Options user = options;
    user.scope = Scope::user;
    Options system = options;
    system.scope = Scope::system;
    const auto systemTargets = selectTargets(system, environment);
    bool anyInUse = false;
    std::vector<std::string_view> flatpaksChecked;  // an app may have several manifest folders
    for (const Target& target : selectTargets(user, environment)) {
        if (!target.inUse()) {
            continue;
        }
        anyInUse = true;
        const bool userManifest = checkManifest(target, target.label(), options, findings);
        if (target.flatpakFolder) {
            if (!userManifest) {
                findings.push_back({false, target.label(),
                                    "no manifest in " + target.directory.string(),
                                    "run " + std::string(installCommand) +
                                        " --extension-id <id> --grant-flatpak"});
            }
            if (std::find(flatpaksChecked.begin(), flatpaksChecked.end(), target.flatpakId) ==
                flatpaksChecked.end()) {
                flatpaksChecked.push_back(target.flatpakId);
                checkFlatpak(target, environment, findings);
            }
            continue;
        }
        std::vector<std::string> systemManifests;
        for (const Target& shared : systemTargets) {
            const bool read = std::any_of(
                target.selected.begin(), target.selected.end(), [&](const Browser* browser) {
                    return std::find(shared.readers.begin(), shared.readers.end(), browser) !=
                           shared.readers.end();
                });
            if (read && checkManifest(shared, target.label() + " (all users)", system, findings)) {
                systemManifests.push_back(shared.manifestPath().string());
            }
        }
        if (!userManifest && systemManifests.empty()) {
            findings.push_back({false, target.label(),
                                "no manifest in " + target.directory.string() +
                                    " nor in the folders for all users",
                                "run " + std::string(installCommand) + " --extension-id <id>"});
        } else if (userManifest && !systemManifests.empty()) {
            findings.push_back({true, target.label(),
                                "the per-user manifest " + target.manifestPath().string() +
                                    " shadows " + joined(systemManifests, ", ") +
                                    "; the browser uses the per-user one",
                                ""});
        }
    }
    if (std::filesystem::is_directory(environment.home / "snap/chromium")) {
        findings.push_back({false, "chromium (snap)",
                            "the snap of Chromium cannot start native messaging hosts",
                            "use Chromium from a .deb or a Flatpak, or another browser"});
        anyInUse = true;
    }
    if (!anyInUse) {
        findings.push_back({false, "browsers",
                            "no browser found in use in " + environment.home.string(),
                            "start the browser once, or register it with " +
                                std::string(installCommand) + " --browser NAME"});
    }
}

Finding checkBus() {
    const Finding unreachable{false, "session bus", "",
                              "run the browser inside a desktop "
                              "session, or set DBUS_SESSION_BUS_ADDRESS to the session bus"};
    sd_event* rawLoop = nullptr;
    if (const int r = sd_event_new(&rawLoop); r < 0) {
        auto finding = unreachable;
        finding.detail = std::string("no event loop: ") + std::strerror(-r);
        return finding;
    }
    const SdEvent loop(rawLoop);
    try {
        DistributedNotificationCenter center(loop.get());
        bool seen = false;
        center.addObserver(probeName, [&] { seen = true; });
        center.postNotificationName(probeName, true);
        const auto deadline = std::chrono::steady_clock::now() + busTimeout;
        while (!seen && std::chrono::steady_clock::now() < deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
                deadline - std::chrono::steady_clock::now());
            if (sd_event_run(loop.get(), static_cast<std::uint64_t>(left.count())) < 0) {
                break;
            }
        }
        if (!seen) {
            return {false, "session bus", "a notification posted was not seen within 2 s",
                    "check that the session bus lets signals through (dbus-monitor --session)"};
        }
        return {true, "session bus", "reachable; notifications arrive by match", ""};
    } catch (const std::system_error& error) {
        auto finding = unreachable;
        finding.detail = std::string("unreachable: ") + error.what();
        return finding;
    }
}

Finding checkSocket() {
    const std::filesystem::path path = SocketHelper::browserSocketLocation();
    const std::string subject = "core service socket";
    const std::string notRunning = "start the Kerrow core service for this user";
    try {
        checkDirectoryTrust(path.parent_path(), "socket directory");
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
            return {false, subject, "no socket at " + path.string(), notRunning};
        }
        checkSocketTrust(path);
        const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        if (!socket ||
            ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address),  // NOLINT
                      sizeof(address)) != 0) {
            return {false, subject,
                    "no one listens at " + path.string() + ": " + std::strerror(errno), notRunning};
        }
        checkPeerTrust(socket.get(), path);
        return {true, subject, path.string() + ": trusted, and the core service listens", ""};
    } catch (const SocketTrustError& error) {
        return {false, subject, error.what(),
                "make " + path.parent_path().string() +
                    " owned by you and writable by you alone (chmod 700), or find out who "
                    "else owns the socket"};
    } catch (const std::system_error& error) {
        return {false, subject, error.what(), notRunning};
    }
}

// Information only: without Landlock the host still runs, with its system-call filter alone.
Finding checkConfinement() {
    const int abi = landlockAbiVersion();
    return {true, "confinement",
            abi > 0 ? "Landlock ABI " + std::to_string(abi) +
                          ": the host reaches only its log folder and Unix sockets"
                    : "no Landlock on this kernel (or off at boot): the host's files and network "
                      "stay open to it, its system calls are filtered",
            ""};
}

}  // namespace

std::vector<Finding> diagnose(const Options& options, const Environment& environment) {
    std::vector<Finding> findings;
    checkBrowsers(options, environment, findings);
    findings.push_back(checkBus());
    findings.push_back(checkSocket());
    findings.push_back(checkConfinement());
    return findings;
}

int doctor(const Options& options, const Environment& environment, std::ostream& out,
           std::ostream& /*err*/) {
    const auto findings = diagnose(options, environment);
    const bool sound = std::all_of(findings.begin(), findings.end(),
                                   [](const Finding& finding) { return finding.ok; });
    if (options.json) {
        nlohmann::ordered_json report;
        report["ok"] = sound;
        auto& list = report["findings"] = nlohmann::ordered_json::array();
        for (const auto& finding : findings) {
            list.push_back({{"ok", finding.ok},
                            {"subject", finding.subject},
                            {"detail", finding.detail},
                            {"fix", finding.fix}});
        }
        out << report.dump(2) << "\n";
    } else {
        for (const auto& finding : findings) {
            out << (finding.ok ? "ok       " : "PROBLEM  ") << finding.subject << ": "
                << finding.detail << (finding.fix.empty() ? "" : "; fix: " + finding.fix) << "\n";
        }
    }
    return sound ? 0 : 1;
}

}  // namespace kerrow::installer
