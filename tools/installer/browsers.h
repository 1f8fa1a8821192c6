// The one table of the browsers whose native messaging host manifests the installer manages: for
// each browser and channel, the folders that tell it is in use, where it reads manifests for one
// user and for all users, and its Flatpaks. Constant data; any thread.
#pragma once

#include <array>
#include <span>
#include <string_view>

namespace kerrow::installer {

/// How a browser names the extensions allowed to start a host: the Chrome family lists origins
/// under "allowed_origins", the Firefox family lists add-on ids under "allowed_extensions".
enum class BrowserFamily { chromium, firefox };

/// A folder of one user's. An empty path is no folder. A path component "*" stands for every
/// folder at that place (a browser installed once per architecture and language).
struct UserFolder {
    enum class Base {
        home,          ///< the user's home ("~/.mozilla")
        config,        ///< $XDG_CONFIG_HOME, default ~/.config ("BraveSoftware/Brave-Browser")
        chromeConfig,  ///< $CHROME_CONFIG_HOME, else as config ("google-chrome")
        install,       ///< the folder found in use (inUse), for a browser installed in the home
    } base = Base::home;
    std::string_view path;
};

/// A Flatpak of a browser: the app's folder is ~/.var/app/<id>.
struct Flatpak {
    std::string_view id;
    /// Where the sandboxed browser reads manifests, inside its app folder.
    std::string_view manifests;
};

struct Browser {
    /// The name used on the command line ("chrome", "chrome-beta", "librewolf").
    std::string_view name;
    BrowserFamily family;
    /// The folders where this browser reads one user's manifests; created when missing. Where
    /// sources disagree on the folder, both are written.
    std::array<UserFolder, 2> userManifests;
    /// Folders whose presence tells that the user runs this browser (any one suffices).
    std::array<UserFolder, 4> inUse;
    /// The folders read for all users; empty entries are unused. A folder under /usr/lib64 is
    /// written only where /usr/lib64 exists. Several browsers share /etc/opt/chrome.
    std::array<std::string_view, 2> systemDirectories;
    /// Empty ids are unused.
    std::array<Flatpak, 2> flatpaks;
};

/// Every browser, in the order of the command-line help.
[[nodiscard]] std::span<const Browser> knownBrowsers();
/// The browser called `name` on the command line, or null.
[[nodiscard]] const Browser* findBrowser(std::string_view name);
/// "Chrome family" or "Firefox family", for messages.
[[nodiscard]] std::string_view familyName(BrowserFamily family);

}  // namespace kerrow::installer
