#include "tools/installer/targets.h"

#include <algorithm>
#include <system_error>

#include "tools/installer/manifest.h"

namespace kerrow::installer {
namespace {

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
            const auto found = matching(userFolderPath(folder, environment));
            inUse.insert(inUse.end(), found.begin(), found.end());
        }
    }
    std::vector<Target> targets;
    for (const auto& manifests : browser.userManifests) {
        if (manifests.path.empty()) {
            continue;
        }
        if (manifests.base != UserFolder::Base::install) {
            targets.push_back({userFolderPath(manifests, environment),
                               browser.family,
                               {&browser},
                               {&browser},
                               named});
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

}  // namespace

std::filesystem::path userFolderPath(const UserFolder& folder, const Environment& environment) {
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

}  // namespace kerrow::installer
