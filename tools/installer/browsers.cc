#include "tools/installer/browsers.h"

namespace kerrow::installer {
namespace {

using Base = UserFolder::Base;
constexpr auto chromium = BrowserFamily::chromium;
constexpr auto firefox = BrowserFamily::firefox;
constexpr std::string_view chromeSystem = "/etc/opt/chrome/native-messaging-hosts";
constexpr std::string_view chromiumSystem = "/etc/chromium/native-messaging-hosts";
constexpr std::string_view edgeSystem = "/etc/opt/edge/native-messaging-hosts";
constexpr std::array<std::string_view, 2> mozillaSystem = {
    "/usr/lib/mozilla/native-messaging-hosts", "/usr/lib64/mozilla/native-messaging-hosts"};
constexpr UserFolder mozillaUser{Base::home, ".mozilla/native-messaging-hosts"};

// A Chrome-family browser reading <profile>/NativeMessagingHosts, its profile folder under
// `base` (Base::chromeConfig where the browser honours $CHROME_CONFIG_HOME).
constexpr Browser chromeFamily(std::string_view name, Base base, std::string_view profile,
                               std::string_view userManifests,
                               std::array<std::string_view, 2> system,
                               std::array<Flatpak, 2> flatpaks = {}) {
    return Browser{name,   chromium, {UserFolder{base, userManifests}}, {UserFolder{base, profile}},
                   system, flatpaks};
}

// Sources for every folder: docs/installing.md.
constexpr std::array browsers{
    chromeFamily("chrome", Base::chromeConfig, "google-chrome",
                 "google-chrome/NativeMessagingHosts", {chromeSystem},
                 {Flatpak{"com.google.Chrome", "config/google-chrome/NativeMessagingHosts"}}),
    chromeFamily("chrome-beta", Base::chromeConfig, "google-chrome-beta",
                 "google-chrome-beta/NativeMessagingHosts", {chromeSystem}),
    chromeFamily("chrome-unstable", Base::chromeConfig, "google-chrome-unstable",
                 "google-chrome-unstable/NativeMessagingHosts", {chromeSystem}),
    chromeFamily("chrome-canary", Base::chromeConfig, "google-chrome-canary",
                 "google-chrome-canary/NativeMessagingHosts", {chromeSystem}),
    chromeFamily("chromium", Base::chromeConfig, "chromium", "chromium/NativeMessagingHosts",
                 {chromiumSystem},
                 {Flatpak{"org.chromium.Chromium", "config/chromium/NativeMessagingHosts"},
                  Flatpak{"io.github.ungoogled_software.ungoogled_chromium",
                          "config/chromium/NativeMessagingHosts"}}),
    chromeFamily("thorium", Base::chromeConfig, "thorium", "thorium/NativeMessagingHosts",
                 {chromiumSystem}),
    chromeFamily(
        "edge", Base::config, "microsoft-edge", "microsoft-edge/NativeMessagingHosts", {edgeSystem},
        // The Flatpak has packaged both Edge stable and Edge beta.
        {Flatpak{"com.microsoft.Edge", "config/microsoft-edge/NativeMessagingHosts"},
         Flatpak{"com.microsoft.Edge", "config/microsoft-edge-beta/NativeMessagingHosts"}}),
    chromeFamily("edge-beta", Base::config, "microsoft-edge-beta",
                 "microsoft-edge-beta/NativeMessagingHosts", {edgeSystem}),
    chromeFamily("edge-dev", Base::config, "microsoft-edge-dev",
                 "microsoft-edge-dev/NativeMessagingHosts", {edgeSystem}),
    // Brave reads its default profile folder and Chrome's system folder, whatever its profile.
    chromeFamily(
        "brave", Base::config, "BraveSoftware/Brave-Browser",
        "BraveSoftware/Brave-Browser/NativeMessagingHosts", {chromeSystem},
        {Flatpak{"com.brave.Browser", "config/BraveSoftware/Brave-Browser/NativeMessagingHosts"}}),
    chromeFamily("brave-beta", Base::config, "BraveSoftware/Brave-Browser-Beta",
                 "BraveSoftware/Brave-Browser-Beta/NativeMessagingHosts", {chromeSystem}),
    chromeFamily("brave-dev", Base::config, "BraveSoftware/Brave-Browser-Dev",
                 "BraveSoftware/Brave-Browser-Dev/NativeMessagingHosts", {chromeSystem}),
    chromeFamily("brave-nightly", Base::config, "BraveSoftware/Brave-Browser-Nightly",
                 "BraveSoftware/Brave-Browser-Nightly/NativeMessagingHosts", {chromeSystem}),
    // Sources disagree on Vivaldi's system folder: both are written.
    chromeFamily("vivaldi", Base::config, "vivaldi", "vivaldi/NativeMessagingHosts",
                 {chromiumSystem, chromeSystem},
                 {Flatpak{"com.vivaldi.Vivaldi", "config/vivaldi/NativeMessagingHosts"}}),
    chromeFamily("vivaldi-snapshot", Base::config, "vivaldi-snapshot",
                 "vivaldi-snapshot/NativeMessagingHosts", {chromiumSystem, chromeSystem}),
    chromeFamily("opera", Base::config, "opera", "opera/NativeMessagingHosts", {chromeSystem},
                 {Flatpak{"com.opera.Opera", "config/opera/NativeMessagingHosts"}}),
    // Firefox reads one user's manifests only from ~/.mozilla, also when its profile lives under
    // $XDG_CONFIG_HOME/mozilla (Firefox 147 and later) or it runs as a snap.
    Browser{"firefox",
            firefox,
            {mozillaUser},
            {UserFolder{Base::home, ".mozilla/firefox"}, UserFolder{Base::config, "mozilla"},
             UserFolder{Base::home, "snap/firefox"},
             UserFolder{Base::home, ".var/app/org.mozilla.firefox"}},
            mozillaSystem,
            {Flatpak{"org.mozilla.firefox", ".mozilla/native-messaging-hosts"}}},
    Browser{"zen", firefox, {mozillaUser}, {UserFolder{Base::home, ".zen"}}, mozillaSystem, {}},
    Browser{"floorp",
            firefox,
            {UserFolder{Base::home, ".floorp/native-messaging-hosts"}, mozillaUser},
            {UserFolder{Base::home, ".floorp"}},
            {},
            {}},
    Browser{"librewolf",
            firefox,
            {UserFolder{Base::home, ".librewolf/native-messaging-hosts"}},
            {UserFolder{Base::home, ".librewolf"}, UserFolder{Base::config, "librewolf"}},
            {"/usr/lib/librewolf/native-messaging-hosts",
             "/usr/lib64/librewolf/native-messaging-hosts"},
            {Flatpak{"io.gitlab.librewolf-community", ".librewolf/native-messaging-hosts"}}},
    Browser{
        "waterfox",
        firefox,
        {UserFolder{Base::home, ".waterfox/native-messaging-hosts"}},
        {UserFolder{Base::home, ".waterfox"}},
        {"/usr/lib/waterfox/native-messaging-hosts", "/usr/lib64/waterfox/native-messaging-hosts"},
        {Flatpak{"net.waterfox.waterfox", ".waterfox/native-messaging-hosts"}}},
    // torbrowser-launcher installs one browser per architecture and language, each with its own
    // home folder inside; each install in use gets its manifest.
    Browser{
        "tor-browser",
        firefox,
        {UserFolder{Base::install, ".mozilla/native-messaging-hosts"}},
        {UserFolder{Base::home, ".local/share/torbrowser/tbb/*/*/Browser/TorBrowser/Data/Browser"}},
        {},
        {}},
};

}  // namespace

std::span<const Browser> knownBrowsers() {
    return browsers;
}

const Browser* findBrowser(std::string_view name) {
    for (const Browser& browser : browsers) {
        if (browser.name == name) {
            return &browser;
        }
    }
    return nullptr;
}

std::string_view familyName(BrowserFamily family) {
    return family == BrowserFamily::chromium ? "Chrome family" : "Firefox family";
}

}  // namespace kerrow::installer
