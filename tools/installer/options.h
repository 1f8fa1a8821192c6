// The installer's command line, parsed and validated before anything touches the disk.
// Options is a plain value; parseOptions uses getopt_long, whose state is global: call it from
// one thread at a time (main does).
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "tools/installer/browsers.h"

namespace kerrow::installer {

enum class Action { install, check, remove, doctor };
enum class Scope {
    user,         ///< each browser's folder in the user's home
    system,       ///< the folders read for every user
    userDataDir,  ///< <dir>/NativeMessagingHosts of one Chromium-family profile folder
};

struct Options {
    Action action = Action::install;
    Scope scope = Scope::user;
    /// Absolute; set when scope is userDataDir.
    std::filesystem::path userDataDir;
    /// The browsers named with --browser, in order, without repeats; empty means every browser.
    std::vector<const Browser*> browsers;
    std::vector<std::string> chromiumExtensionIds;
    std::vector<std::string> firefoxExtensionIds;
    /// Absolute when set.
    std::optional<std::filesystem::path> hostPath;
    /// Prefixed to every system folder (a package's staging root); empty for the real system.
    std::filesystem::path root;
    /// --grant-flatpak: run the permission command for each Flatpak browser, not only print it.
    bool grantFlatpak = false;
    /// --json: the doctor's findings as JSON.
    bool json = false;
    bool help = false;
    bool version = false;

    [[nodiscard]] const std::vector<std::string>& extensionIds(BrowserFamily family) const {
        return family == BrowserFamily::chromium ? chromiumExtensionIds : firefoxExtensionIds;
    }
};

/// A command line that cannot be carried out; `message` says why, in one line.
struct UsageError {
    std::string message;
};

/// Parses the arguments after the program name. The host path is checked for form only (absolute);
/// whether it exists is the installer's business.
[[nodiscard]] std::variant<Options, UsageError> parseOptions(
    std::span<const std::string_view> arguments);

/// The --help text.
[[nodiscard]] std::string usageText(std::string_view programName);

}  // namespace kerrow::installer
