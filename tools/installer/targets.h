// The folders a command line selects: for each browser of the table (browsers.h) and each scope,
// the folder where its manifest goes, resolved against the user's environment and the file
// system (which browsers are in use, which installs exist). Plain values and functions; any
// thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/installer/browsers.h"
#include "tools/installer/options.h"

namespace kerrow::installer {

/// The host's file name, beside the installer and in a Flatpak browser's launcher folder.
inline constexpr std::string_view hostFileName = "kerrow-native-messaging-host";

/// What the installer takes from its process environment.
struct Environment {
    /// $HOME; empty when it is unset (the current user's folders are then unknown).
    std::filesystem::path home;
    /// $XDG_CONFIG_HOME when it is set and absolute.
    std::optional<std::filesystem::path> configHome;
    /// $CHROME_CONFIG_HOME when it is set and absolute.
    std::optional<std::filesystem::path> chromeConfigHome;
    /// The folder holding the installer itself, where the host is looked for by default.
    std::filesystem::path programDirectory;

    /// $XDG_CONFIG_HOME or ~/.config.
    [[nodiscard]] std::filesystem::path configDirectory() const {
        return configHome.value_or(home / ".config");
    }
};

/// One manifest folder and the browsers that read it.
struct Target {
    std::filesystem::path directory;
    BrowserFamily family = BrowserFamily::chromium;
    /// The selected browsers reading this folder (empty for a --user-data-dir folder); of a
    /// folder shared by several browsers, those in use when any is.
    std::vector<const Browser*> selected = {};
    /// Every browser reading this folder in this scope (for the current user: those in use);
    /// more than `selected` when a folder is shared with a browser that was not selected.
    std::vector<const Browser*> readers = {};
    /// Named on the command line (--browser or --user-data-dir), not implied by "every browser".
    bool named = false;
    /// For the current user: the folders of which any one tells that the browser is in use.
    std::vector<std::filesystem::path> inUseFolders = {};
    /// A Flatpak browser's folder: the manifest names a launcher written here
    /// (launcherPath()), which starts the host outside the sandbox.
    std::optional<std::filesystem::path> flatpakFolder = {};
    /// The Flatpak app id (empty for a browser outside a sandbox).
    std::string_view flatpakId = {};

    /// True when no in-use folder is known or one of them exists.
    [[nodiscard]] bool inUse() const;
    [[nodiscard]] std::filesystem::path launcherPath() const;

    [[nodiscard]] std::filesystem::path manifestPath() const;
    /// "chrome", "chrome+brave+vivaldi", "chromium (flatpak org.chromium.Chromium)",
    /// "user data dir".
    [[nodiscard]] std::string label() const;
};

/// The folders that `options` select, in browser order, one entry per distinct folder. A browser
/// installed inside the home (Tor Browser) has one folder per install found, none without one.
[[nodiscard]] std::vector<Target> selectTargets(const Options& options,
                                                const Environment& environment);

/// `folder` for the current user; a folder relative to an install stays relative.
[[nodiscard]] std::filesystem::path userFolderPath(const UserFolder& folder,
                                                   const Environment& environment);

}  // namespace kerrow::installer
