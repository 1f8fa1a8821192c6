#include "tools/installer/installer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <system_error>

#include "tools/installer/manifest.h"
#include "tools/installer/manifest_file.h"

namespace kerrow::installer {
namespace {

constexpr mode_t manifestMode = 0644;
constexpr mode_t systemFolderMode = 0755;
// Browsers create their profile folders private; folders made for one user follow suit.
constexpr mode_t userFolderMode = 0700;
constexpr std::string_view hostFileName = "kerrow-native-messaging-host";

std::filesystem::path userDirectory(const Browser& browser, const Environment& environment) {
    const std::filesystem::path base =
        browser.family == BrowserFamily::firefox
            ? environment.home
            : environment.configHome.value_or(environment.home / ".config");
    return base / browser.userFolder;
}

std::optional<std::string> readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::string joined(const std::vector<std::string>& parts) {
    std::string text;
    for (const auto& part : parts) {
        text += (text.empty() ? "" : "; ") + part;
    }
    return text;
}

// The host the manifest should name, or a usage error on `err`.
std::optional<std::filesystem::path> hostToInstall(const Options& options,
                                                   const Environment& environment,
                                                   std::ostream& err) {
    const std::filesystem::path host =
        options.hostPath.value_or(environment.programDirectory / hostFileName);
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
    int status = 0;
    int written = 0;
    for (const Target& target : selectTargets(options, environment)) {
        const auto& ids = options.extensionIds(target.family);
        if (ids.empty()) {
            out << target.label() << ": skipped, no " << familyName(target.family)
                << " extension id given\n";
            continue;
        }
        if (!target.named && target.browserFolder &&
            !std::filesystem::is_directory(*target.browserFolder)) {
            out << target.label() << ": skipped, " << target.browserFolder->string()
                << " does not exist (name the browser with --browser to write anyway)\n";
            continue;
        }
        try {
            createDirectories(target.directory, folderMode);
            writeFileAtomically(target.manifestPath(), manifestText(target.family, *host, ids),
                                manifestMode);
            out << target.label() << ": wrote " << target.manifestPath().string() << "\n";
            ++written;
        } catch (const std::system_error& error) {
            err << target.label() << ": cannot write the manifest: " << error.what() << "\n";
            status = 1;
        }
    }
    if (written == 0 && status == 0) {
        err << "no manifest written: no selected browser is in use here; name one with "
               "--browser\n";
        status = 1;
    }
    return status;
}

int check(const Options& options, const Environment& environment, std::ostream& out,
          std::ostream& err) {
    int status = 0;
    int found = 0;
    for (const Target& target : selectTargets(options, environment)) {
        const auto path = target.manifestPath();
        const auto text = readFile(path);
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
            *text, {target.family, options.hostPath, options.extensionIds(target.family)});
        struct stat fileStatus {};
        if (options.scope == Scope::system && ::stat(path.c_str(), &fileStatus) == 0 &&
            (fileStatus.st_mode & S_IROTH) == 0) {
            problems.emplace_back("not readable by other users");
        }
        if (problems.empty()) {
            out << target.label() << ": ok " << path.string() << "\n";
        } else {
            err << target.label() << ": FAILED " << path.string() << ": " << joined(problems)
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
        if (target.selected.size() < target.readers.size()) {
            std::string others;
            for (const Browser* reader : target.readers) {
                if (std::find(target.selected.begin(), target.selected.end(), reader) ==
                    target.selected.end()) {
                    others += (others.empty() ? "" : ", ") + std::string(reader->name);
                }
            }
            out << target.label() << ": kept " << path.string() << ", also read by " << others
                << "\n";
            continue;
        }
        try {
            out << target.label() << (removeFile(path) ? ": removed " : ": not present ")
                << path.string() << "\n";
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

std::string Target::label() const {
    if (selected.empty()) {
        return "user data dir";
    }
    std::string text;
    for (const Browser* browser : selected) {
        text += (text.empty() ? "" : "+") + std::string(browser->name);
    }
    return text;
}

std::vector<Target> selectTargets(const Options& options, const Environment& environment) {
    if (options.scope == Scope::userDataDir) {
        return {Target{options.userDataDir / "NativeMessagingHosts",
                       BrowserFamily::chromium,
                       {},
                       {},
                       true,
                       std::nullopt}};
    }
    const bool all = options.browsers.empty();
    std::vector<const Browser*> browsers = options.browsers;
    if (all) {
        for (const Browser& browser : knownBrowsers()) {
            browsers.push_back(&browser);
        }
    }
    std::vector<Target> targets;
    for (const Browser* browser : browsers) {
        if (options.scope == Scope::user) {
            const auto folder = userDirectory(*browser, environment);
            targets.push_back(Target{folder / browser->userManifestSubfolder,
                                     browser->family,
                                     {browser},
                                     {browser},
                                     !all,
                                     folder});
            continue;
        }
        const std::filesystem::path directory = browser->systemDirectory;
        auto existing = std::find_if(targets.begin(), targets.end(),
                                     [&](const Target& t) { return t.directory == directory; });
        if (existing != targets.end()) {
            existing->selected.push_back(browser);
            continue;
        }
        Target target{directory, browser->family, {browser}, {}, !all, std::nullopt};
        for (const Browser& reader : knownBrowsers()) {
            if (reader.systemDirectory == browser->systemDirectory) {
                target.readers.push_back(&reader);
            }
        }
        targets.push_back(std::move(target));
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
    }
    return 2;
}

}  // namespace kerrow::installer
