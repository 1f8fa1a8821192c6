// The browsers whose native messaging host manifests the installer manages, and the folders in
// which each of them reads host manifests on Linux. Constant data; any thread.
#pragma once

#include <span>
#include <string_view>

namespace kerrow::installer {

/// How a browser names the extensions allowed to start a host: the Chrome family lists origins
/// under "allowed_origins", Firefox lists add-on ids under "allowed_extensions".
enum class BrowserFamily { chromium, firefox };

struct Browser {
    /// The name used on the command line ("chrome", "firefox").
    std::string_view name;
    BrowserFamily family;
    /// The browser's own folder for one user: under $XDG_CONFIG_HOME (default ~/.config) for the
    /// Chrome family, under $HOME for Firefox. Its presence tells that the user runs the browser.
    std::string_view userFolder;
    /// The manifest folder inside `userFolder`.
    std::string_view userManifestSubfolder;
    /// The folder read for all users. Brave and Vivaldi read Google Chrome's; several browsers
    /// may therefore share one manifest file.
    std::string_view systemDirectory;
};

/// Every browser, in the order of the command-line help.
[[nodiscard]] std::span<const Browser> knownBrowsers();
/// The browser called `name` on the command line, or null.
[[nodiscard]] const Browser* findBrowser(std::string_view name);
/// "Chrome family" or "Firefox", for messages.
[[nodiscard]] std::string_view familyName(BrowserFamily family);

}  // namespace kerrow::installer
