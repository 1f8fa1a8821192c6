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
    /// The folder holding the installer itself, where the host is looked for by default.
    std::filesystem::path programDirectory;
};

/// One manifest folder and the browsers that read it.
struct Target {
    std::filesystem::path directory;
    BrowserFamily family = BrowserFamily::chromium;
    /// The selected browsers reading this folder (empty for a --user-data-dir folder).
    std::vector<const Browser*> selected;
    /// Every browser reading this folder in this scope; more than `selected` when a folder is
    /// shared with a browser that was not selected.
    std::vector<const Browser*> readers;
    /// Named on the command line (--browser or --user-data-dir), not implied by "every browser".
    bool named = false;
    /// For the current user: the browser's own folder, whose absence means the browser is unused.
    std::optional<std::filesystem::path> browserFolder;

    [[nodiscard]] std::filesystem::path manifestPath() const;
    /// "chrome", "chrome+brave+vivaldi", "user data dir".
    [[nodiscard]] std::string label() const;
};

/// The folders that `options` select, in browser order, one entry per distinct folder.
[[nodiscard]] std::vector<Target> selectTargets(const Options& options,
                                                const Environment& environment);

/// Runs the action; returns the exit status (0, 1 or 2 as the usage text says). Progress goes to
/// `out`, failures to `err`.
[[nodiscard]] int run(const Options& options, const Environment& environment, std::ostream& out,
                      std::ostream& err);

}  // namespace kerrow::installer
