#include "tools/installer/browsers.h"

namespace kerrow::installer {
namespace {

using Base = UserFolder::Base;
constexpr auto chromium = BrowserFamily::chromium;
constexpr auto firefox = BrowserFamily::firefox;
constexpr std::string_view chromeSystem = "/etc/opt/chrome/native-messaging-hosts";
constexpr std::string_view edgeSystem = "/etc/opt/edge/native-messaging-hosts";

// A Chrome-family browser whose profile folder is $XDG_CONFIG_HOME/<profile>.
constexpr Browser chromeFamily(std::string_view name, std::string_view userManifests,
                               std::string_view profile,
                               std::array<std::string_view, 2> system = {},
                               std::string_view flatpakId = {},
                               std::string_view flatpakManifests = {}) {
    return Browser{name,
                   chromium,
                   {Base::config, userManifests},
                   {UserFolder{Base::config, profile}},
                   system,
                   flatpakId,
                   flatpakManifests};
}

// Sources for every folder: docs/installing.md.
constexpr std::array browsers{
    chromeFamily("chrome", "google-chrome/NativeMessagingHosts", "google-chrome", {chromeSystem},
                 "com.google.Chrome", "config/google-chrome/NativeMessagingHosts"),
    chromeFamily("chrome-beta", "google-chrome-beta/NativeMessagingHosts", "google-chrome-beta",
                 {chromeSystem}),
    chromeFamily("chrome-unstable", "google-chrome-unstable/NativeMessagingHosts",
                 "google-chrome-unstable", {chromeSystem}),
    chromeFamily("chromium", "chromium/NativeMessagingHosts", "chromium",
                 {"/etc/chromium/native-messaging-hosts"}, "org.chromium.Chromium",
                 "config/chromium/NativeMessagingHosts"),
    chromeFamily("edge", "microsoft-edge/NativeMessagingHosts", "microsoft-edge", {edgeSystem},
                 "com.microsoft.Edge", "config/microsoft-edge/NativeMessagingHosts"),
    chromeFamily("edge-beta", "microsoft-edge-beta/NativeMessagingHosts", "microsoft-edge-beta",
                 {edgeSystem}),
    chromeFamily("edge-dev", "microsoft-edge-dev/NativeMessagingHosts", "microsoft-edge-dev",
                 {edgeSystem}),
    chromeFamily("brave", "BraveSoftware/Brave-Browser/NativeMessagingHosts",
                 "BraveSoftware/Brave-Browser", {chromeSystem}, "com.brave.Browser",
                 "config/BraveSoftware/Brave-Browser/NativeMessagingHosts"),
    chromeFamily("brave-beta", "BraveSoftware/Brave-Browser-Beta/NativeMessagingHosts",
                 "BraveSoftware/Brave-Browser-Beta", {chromeSystem}),
    chromeFamily("brave-dev", "BraveSoftware/Brave-Browser-Dev/NativeMessagingHosts",
                 "BraveSoftware/Brave-Browser-Dev", {chromeSystem}),
    chromeFamily("brave-nightly", "BraveSoftware/Brave-Browser-Nightly/NativeMessagingHosts",
                 "BraveSoftware/Brave-Browser-Nightly", {chromeSystem}),
    chromeFamily("vivaldi", "vivaldi/NativeMessagingHosts", "vivaldi",
                 {chromeSystem, "/etc/opt/vivaldi/native-messaging-hosts"}, "com.vivaldi.Vivaldi",
                 "config/vivaldi/NativeMessagingHosts"),
    chromeFamily("vivaldi-snapshot", "vivaldi-snapshot/NativeMessagingHosts", "vivaldi-snapshot",
                 {chromeSystem, "/etc/opt/vivaldi/native-messaging-hosts"}),
    chromeFamily("opera", "opera/NativeMessagingHosts", "opera", {chromeSystem}),
    // Firefox reads one user's manifests only from ~/.mozilla, also when its profile lives under
    // $XDG_CONFIG_HOME/mozilla (Firefox 147 and later) or it runs as a snap.
    Browser{
        "firefox",
        firefox,
        {Base::home, ".mozilla/native-messaging-hosts"},
        {UserFolder{Base::home, ".mozilla"}, UserFolder{Base::config, "mozilla"},
         UserFolder{Base::home, "snap/firefox"},
         UserFolder{Base::home, ".var/app/org.mozilla.firefox"}},
        {"/usr/lib/mozilla/native-messaging-hosts", "/usr/lib64/mozilla/native-messaging-hosts"},
        "org.mozilla.firefox",
        ".mozilla/native-messaging-hosts"},
    Browser{"librewolf",
            firefox,
            {Base::home, ".librewolf/native-messaging-hosts"},
            {UserFolder{Base::home, ".librewolf"}},
            {"/usr/lib/librewolf/native-messaging-hosts"},
            "io.gitlab.librewolf-community",
            ".librewolf/native-messaging-hosts"},
    Browser{"waterfox",
            firefox,
            {Base::home, ".waterfox/native-messaging-hosts"},
            {UserFolder{Base::home, ".waterfox"}},
            {"/usr/lib/waterfox/native-messaging-hosts"},
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
