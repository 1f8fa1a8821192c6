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
constexpr std::string_view hostFileName = "kerrow-native-messaging-host";

// The folder for the current user; one relative to an install is left relative.
std::filesystem::path resolve(const UserFolder& folder, const Environment& environment) {
    switch (folder.base) {
        case UserFolder::Base::home:
            return environment.home / folder.path;
        case UserFolder::Base::config:
            return environment.configDirectory() / folder.path;
        case UserFolder::Base::chromeConfig:
            return environment.chromeConfigHome.value_or(environment.configDirectory()) /
                   folder.path;
        case UserFolder::Base::install:
            break;
    }
    return folder.path;
}

// The folders that `pattern` names: itself, or where a component is "*", every folder that exists
// and matches it, in order.
std::vector<std::filesystem::path> matching(const std::filesystem::path& pattern) {
    std::vector<std::filesystem::path> found{pattern.root_path()};
    bool wild = false;
    for (const auto& part : pattern.relative_path()) {
        std::vector<std::filesystem::path> next;
        for (const auto& prefix : found) {
            if (part != "*") {
                next.push_back(prefix / part);
                continue;
            }
            wild = true;
            std::error_code error;
            for (auto entry = std::filesystem::directory_iterator(prefix, error);
                 !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
                next.push_back(entry->path());
            }
        }
        found = std::move(next);
    }
    if (wild) {
        std::erase_if(found, [](const auto& path) { return !std::filesystem::is_directory(path); });
        std::sort(found.begin(), found.end());
    }
    return found;
}

// One browser's folders for the current user, each read by this browser alone so far.
std::vector<Target> userTargets(const Browser& browser, bool named,
                                const Environment& environment) {
    std::vector<std::filesystem::path> inUse;
    for (const auto& folder : browser.inUse) {
        if (!folder.path.empty()) {
            const auto found = matching(resolve(folder, environment));
            inUse.insert(inUse.end(), found.begin(), found.end());
        }
    }
    std::vector<Target> targets;
    for (const auto& manifests : browser.userManifests) {
        if (manifests.path.empty()) {
            continue;
        }
        if (manifests.base != UserFolder::Base::install) {
            targets.push_back(
                {resolve(manifests, environment), browser.family, {&browser}, {&browser}, named});
            targets.back().inUseFolders = inUse;
            continue;
        }
        for (const auto& install : inUse) {
            targets.push_back({install / manifests.path,
                               browser.family,
                               {&browser},
                               {&browser},
                               named,
                               {install}});
        }
    }
    for (const Flatpak& flatpak : browser.flatpaks) {
        if (flatpak.id.empty()) {
            continue;
        }
        const auto app = environment.home / ".var/app" / flatpak.id;
        targets.push_back(
            {app / flatpak.manifests, browser.family, {&browser}, {&browser}, false, {app}, app});
        targets.back().flatpakId = flatpak.id;
    }
    return targets;
}

// Adds `target` to `targets`, or its browser to the target of the same folder: of browsers
// sharing a folder, those in use are named for it when any is.
void addUserTarget(std::vector<Target>& targets, Target target) {
    const auto existing = std::find_if(targets.begin(), targets.end(), [&](const Target& t) {
        return t.directory == target.directory;
    });
    if (existing == targets.end()) {
        targets.push_back(std::move(target));
        return;
    }
    const bool wasInUse = existing->inUse();
    if (target.inUse() && !wasInUse) {
        existing->selected.clear();
    }
    if (target.inUse() || !wasInUse) {
        existing->selected.push_back(target.selected.front());
    }
    existing->readers.push_back(target.selected.front());
    existing->inUseFolders.insert(existing->inUseFolders.end(), target.inUseFolders.begin(),
                                  target.inUseFolders.end());
    existing->named = existing->named || target.named;
}

// The current user's folders of `browsers`; the readers of each are the browsers in use that
// read it, and those selected.
std::vector<Target> selectUserTargets(const std::vector<const Browser*>& browsers, bool all,
                                      const Environment& environment) {
    std::vector<Target> targets;
    for (const Browser* browser : browsers) {
        for (auto& target : userTargets(*browser, !all, environment)) {
            addUserTarget(targets, std::move(target));
        }
    }
    for (const Browser& reader : knownBrowsers()) {
        for (const Target& folder : userTargets(reader, false, environment)) {
            for (Target& target : targets) {
                if (target.directory == folder.directory && folder.inUse() &&
                    std::find(target.readers.begin(), target.readers.end(), &reader) ==
                        target.readers.end()) {
                    target.readers.push_back(&reader);
                }
            }
        }
    }
    return targets;
}

// The selected browsers installed inside the home (Tor Browser) of which no install was found,
// each named on `err` after `verb`; false when there is none.
bool reportBrowsersNotFound(const Options& options, const std::vector<Target>& targets,
                            std::string_view verb, const Environment& environment,
                            std::ostream& err) {
    bool any = false;
    for (const Browser* browser : options.browsers) {
        const bool found = std::any_of(targets.begin(), targets.end(), [&](const Target& t) {
            return std::find(t.selected.begin(), t.selected.end(), browser) != t.selected.end();
        });
        if (!found && options.scope == Scope::user) {
            err << browser->name << ": " << verb << ": no install found at "
                << resolve(browser->inUse.front(), environment).string() << "\n";
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
        std::string others;
        for (const Browser* reader : target.readers) {
            if (!options.browsers.empty() &&
                std::find(target.selected.begin(), target.selected.end(), reader) ==
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

std::filesystem::path Target::manifestPath() const {
    return directory / manifestFileName();
}

std::filesystem::path Target::launcherPath() const {
    return flatpakFolder.value_or(std::filesystem::path()) / "kerrow" / hostFileName;
}

bool Target::inUse() const {
    return inUseFolders.empty() ||
           std::any_of(inUseFolders.begin(), inUseFolders.end(),
                       [](const auto& folder) { return std::filesystem::is_directory(folder); });
}

std::string Target::label() const {
    if (selected.empty()) {
        return "user data dir";
    }
    std::string text;
    for (const Browser* browser : selected) {
        text += (text.empty() ? "" : "+") + std::string(browser->name);
    }
    return flatpakFolder ? text + " (flatpak " + std::string(flatpakId) + ")" : text;
}

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

std::vector<Target> selectTargets(const Options& options, const Environment& environment) {
    if (options.scope == Scope::userDataDir) {
        Target target{options.userDataDir / "NativeMessagingHosts", BrowserFamily::chromium};
        target.named = true;
        return {target};
    }
    const bool all = options.browsers.empty();
    std::vector<const Browser*> browsers = options.browsers;
    if (all) {
        for (const Browser& browser : knownBrowsers()) {
            browsers.push_back(&browser);
        }
    }
    if (options.scope == Scope::user) {
        return selectUserTargets(browsers, all, environment);
    }
    const std::filesystem::path root = options.root.empty() ? "/" : options.root;
    std::vector<Target> targets;
    for (const Browser* browser : browsers) {
        for (const std::string_view system : browser->systemDirectories) {
            if (system.empty() || (system.starts_with("/usr/lib64/") &&
                                   !std::filesystem::is_directory(root / "usr/lib64"))) {
                continue;
            }
            const auto directory = root / std::filesystem::path(system).relative_path();
            auto existing = std::find_if(targets.begin(), targets.end(),
                                         [&](const Target& t) { return t.directory == directory; });
            if (existing != targets.end()) {
                existing->selected.push_back(browser);
                continue;
            }
            Target target{directory, browser->family, {browser}, {}, !all};
            for (const Browser& reader : knownBrowsers()) {
                const auto& readers = reader.systemDirectories;
                if (std::find(readers.begin(), readers.end(), system) != readers.end()) {
                    target.readers.push_back(&reader);
                }
            }
            targets.push_back(std::move(target));
        }
    }
    return targets;
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
