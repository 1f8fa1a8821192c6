#include "tools/installer/installer.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tools/installer/doctor.h"
#include "tools/installer/manifest.h"
#include "tools/installer/manifest_file.h"

namespace kerrow::installer {
namespace {

constexpr mode_t manifestMode = 0644;
constexpr mode_t launcherMode = 0755;
constexpr mode_t systemFolderMode = 0755;
// Browsers create their profile folders private; folders made for one user follow suit.
constexpr mode_t userFolderMode = 0700;

// The browsers named with --browser that have no folder among `targets` (Tor Browser without an
// install, or a browser without a folder for all users with --system), each named on `err` after
// `verb`; false when there is none.
bool reportBrowsersNotFound(const Options& options, const std::vector<Target>& targets,
                            std::string_view verb, const Environment& environment,
                            std::ostream& err) {
    bool any = false;
    for (const Browser* browser : options.browsers) {
        if (std::none_of(targets.begin(), targets.end(), [&](const Target& target) {
                return std::find(target.selected.begin(), target.selected.end(), browser) !=
                       target.selected.end();
            })) {
            err << browser->name << ": " << verb << ": "
                << (options.scope == Scope::system
                        ? std::string("it reads no folder for all users")
                        : "no install found at " +
                              userFolderPath(browser->inUse.front(), environment).string())
                << "\n";
            any = true;
        }
    }
    return any;
}

// The text with every character the shell treats specially quoted.
std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text) {
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return quoted + "'";
}

// Runs `command` with its output on ours; true when it ended with status 0.
bool runCommand(const std::vector<std::string>& command) {
    std::vector<char*> argv;
    for (const auto& argument : command) {
        argv.push_back(const_cast<char*>(argument.c_str()));  // NOLINT: execvp takes char*
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Writes the Flatpak launcher into the app's folder and asks for (or grants) the permission it
// needs; false when the grant was asked for and failed.
bool setUpFlatpak(const Target& target, const std::filesystem::path& host, const Options& options,
                  std::ostream& out, std::ostream& err) {
    createDirectories(target.launcherPath().parent_path(), userFolderMode);
    writeFileAtomically(target.launcherPath(), launcherText(host), launcherMode);
    const auto command = flatpakGrantCommand(target.flatpakId);
    const auto line = joined(command, " ");
    if (!options.grantFlatpak) {
        out << target.label() << ": the browser needs permission to start the host: " << line
            << "\n";
        return true;
    }
    if (runCommand(command)) {
        out << target.label() << ": granted: " << line << "\n";
        return true;
    }
    err << target.label() << ": FAILED: " << line << "\n";
    return false;
}

// The host the manifest should name, or a usage error on `err`.
std::optional<std::filesystem::path> hostToInstall(const Options& options,
                                                   const Environment& environment,
                                                   std::ostream& err) {
    const std::filesystem::path host =
        options.hostPath.value_or(environment.programDirectory / hostFileName);
    if (!options.root.empty()) {
        return host;  // a staging root: the host is where the package will put it
    }
    struct stat status {};
    if (::stat(host.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        err << "host binary " << host << " does not exist"
            << (options.hostPath ? "" : "; give its absolute path with --host") << "\n";
        return std::nullopt;
    }
    if (::access(host.c_str(), X_OK) != 0) {
        err << "host binary " << host << " is not executable\n";
        return std::nullopt;
    }
    return host;
}

int install(const Options& options, const Environment& environment, std::ostream& out,
            std::ostream& err) {
    const auto host = hostToInstall(options, environment, err);
    if (!host) {
        return 2;
    }
    const mode_t folderMode = options.scope == Scope::system ? systemFolderMode : userFolderMode;
    const auto targets = selectTargets(options, environment);
    int status =
        reportBrowsersNotFound(options, targets, "not registered", environment, err) ? 1 : 0;
    int written = 0;
    for (const Target& target : targets) {
        if (!target.named && !target.inUse()) {
            continue;
        }
        const auto& ids = options.extensionIds(target.family);
        if (ids.empty()) {
            err << target.label() << ": not registered: no " << familyName(target.family)
                << " extension id given\n";
            status = 1;
            continue;
        }
        try {
            createDirectories(target.directory, folderMode);
            const auto named = target.flatpakFolder ? target.launcherPath() : *host;
            writeFileAtomically(target.manifestPath(), manifestText(target.family, named, ids),
                                manifestMode);
            out << target.label() << ": wrote " << target.manifestPath().string() << "\n";
            if (target.flatpakFolder && !setUpFlatpak(target, *host, options, out, err)) {
                status = 1;
            }
            ++written;
        } catch (const std::system_error& error) {
            err << target.label() << ": cannot write the manifest: " << error.what() << "\n";
            status = 1;
        }
    }
    if (options.scope == Scope::user && options.browsers.empty() &&
        std::filesystem::is_directory(environment.home / "snap/chromium")) {
        err << "chromium (snap): not registered: the snap of Chromium cannot start native "
               "messaging hosts\n";
        status = 1;
    }
    if (written == 0 && status == 0) {
        err << "no manifest written: no browser found in use here (looked for ~/.mozilla/firefox, "
               "~/.config/google-chrome, ~/.var/app/<id>, ...); name one with --browser\n";
        status = 1;
    }
    return status;
}

int check(const Options& options, const Environment& environment, std::ostream& out,
          std::ostream& err) {
    const auto targets = selectTargets(options, environment);
    int status = reportBrowsersNotFound(options, targets, "missing", environment, err) ? 1 : 0;
    int found = 0;
    for (const Target& target : targets) {
        const auto path = target.manifestPath();
        const auto text = readText(path);
        if (!text) {
            if (target.named) {
                err << target.label() << ": missing " << path.string() << "\n";
                status = 1;
            } else {
                out << target.label() << ": not installed (" << path.string() << ")\n";
            }
            continue;
        }
        ++found;
        auto problems = manifestProblems(
            *text, {target.family, target.flatpakFolder ? target.launcherPath() : options.hostPath,
                    options.extensionIds(target.family)});
        struct stat fileStatus {};
        if (options.scope == Scope::system && ::stat(path.c_str(), &fileStatus) == 0 &&
            (fileStatus.st_mode & S_IROTH) == 0) {
            problems.emplace_back("not readable by other users");
        }
        if (problems.empty()) {
            out << target.label() << ": ok " << path.string() << "\n";
        } else {
            err << target.label() << ": FAILED " << path.string() << ": " << joined(problems, "; ")
                << "\n";
            status = 1;
        }
    }
    if (found == 0 && status == 0) {
        err << "no manifest found\n";
        status = 1;
    }
    return status;
}

int remove(const Options& options, const Environment& environment, std::ostream& out,
           std::ostream& err) {
    int status = 0;
    for (const Target& target : selectTargets(options, environment)) {
        const auto path = target.manifestPath();
        std::string others;  // readers not named keep a folder; "every browser" names them all
        for (const Browser* reader :
             options.browsers.empty() ? std::vector<const Browser*>{} : target.readers) {
            if (std::find(target.selected.begin(), target.selected.end(), reader) ==
                target.selected.end()) {
                others += (others.empty() ? "" : ", ") + std::string(reader->name);
            }
        }
        if (!others.empty()) {
            out << target.label() << ": kept " << path.string() << ", also read by " << others
                << "\n";
            continue;
        }
        try {
            out << target.label() << (removeFile(path) ? ": removed " : ": not present ")
                << path.string() << "\n";
            if (target.flatpakFolder) {
                removeFile(target.launcherPath());
            }
        } catch (const std::system_error& error) {
            err << target.label() << ": cannot remove the manifest: " << error.what() << "\n";
            status = 1;
        }
    }
    return status;
}

}  // namespace

std::string launcherText(const std::filesystem::path& host) {
    return "#!/bin/sh\n"
           "# Written by kerrow-native-messaging-host-install. The browser runs in a Flatpak\n"
           "# sandbox; the host runs outside it, with the session bus and the core service.\n"
           "exec flatpak-spawn --host " +
           shellQuoted(host.string()) + " \"$@\"\n";
}

std::vector<std::string> flatpakGrantCommand(std::string_view id) {
    return {"flatpak", "override", "--user", "--talk-name=org.freedesktop.Flatpak",
            std::string(id)};
}

int run(const Options& options, const Environment& environment, std::ostream& out,
        std::ostream& err) {
    if (options.scope == Scope::user && !environment.home.is_absolute()) {
        err << "HOME is not an absolute path; use --system or --user-data-dir\n";
        return 2;
    }
    switch (options.action) {
        case Action::install:
            return install(options, environment, out, err);
        case Action::check:
            return check(options, environment, out, err);
        case Action::remove:
            return remove(options, environment, out, err);
        case Action::doctor:
            return doctor(options, environment, out, err);
    }
    return 2;
}

}  // namespace kerrow::installer
