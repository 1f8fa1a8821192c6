// Carries out one parsed command line: writes, checks or removes the host manifest in every
// folder the options select, reporting one line per folder. Runs on the calling thread.
#pragma once

#include <filesystem>
#include <optional>
#include <ostream>
#include <vector>

#include "tools/installer/browsers.h"
#include "tools/installer/options.h"

namespace kerrow::installer {

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

/// The launcher that a Flatpak browser starts in place of the host: a shell script running
/// `flatpak-spawn --host <host> <arguments>`, which passes the standard streams through and
/// forwards signals to the host.
[[nodiscard]] std::string launcherText(const std::filesystem::path& host);

/// The command that lets the Flatpak app `id` ask for the host to be started outside it.
[[nodiscard]] std::vector<std::string> flatpakGrantCommand(std::string_view id);

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

/// Runs the action; returns the exit status (0, 1 or 2 as the usage text says). Progress goes to
/// `out`, failures to `err`. The doctor lives in doctor.h.
[[nodiscard]] int run(const Options& options, const Environment& environment, std::ostream& out,
                      std::ostream& err);

}  // namespace kerrow::installer
