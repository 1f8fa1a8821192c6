// The one table of the browsers whose native messaging host manifests the installer manages: for
// each browser and channel, the folders that tell it is in use, where it reads manifests for one
// user and for all users, and its Flatpak. Constant data; any thread.
#pragma once

#include <array>
#include <span>
#include <string_view>

namespace kerrow::installer {

/// How a browser names the extensions allowed to start a host: the Chrome family lists origins
/// under "allowed_origins", the Firefox family lists add-on ids under "allowed_extensions".
enum class BrowserFamily { chromium, firefox };

/// A folder relative to the user's home ("~/.mozilla") or to $XDG_CONFIG_HOME, default ~/.config
/// ("google-chrome"). An empty path is no folder.
struct UserFolder {
    enum class Base { home, config } base = Base::home;
    std::string_view path;
};

struct Browser {
    /// The name used on the command line ("chrome", "chrome-beta", "librewolf").
    std::string_view name;
    BrowserFamily family;
    /// The folder where this browser reads one user's manifests; created when missing.
    UserFolder userManifests;
    /// Folders whose presence tells that the user runs this browser (any one suffices).
    std::array<UserFolder, 4> inUse;
    /// The folders read for all users; empty entries are unused. A folder under /usr/lib64 is
    /// written only where /usr/lib64 exists. Several browsers share /etc/opt/chrome.
    std::array<std::string_view, 2> systemDirectories;
    /// The Flatpak app id, or empty; the app's folder is ~/.var/app/<id>.
    std::string_view flatpakId;
    /// Where the sandboxed browser reads manifests, inside its app folder.
    std::string_view flatpakManifests;
};

/// Every browser, in the order of the command-line help.
[[nodiscard]] std::span<const Browser> knownBrowsers();
/// The browser called `name` on the command line, or null.
[[nodiscard]] const Browser* findBrowser(std::string_view name);
/// "Chrome family" or "Firefox family", for messages.
[[nodiscard]] std::string_view familyName(BrowserFamily family);

}  // namespace kerrow::installer
