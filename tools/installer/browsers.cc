#include "tools/installer/browsers.h"

#include <array>

namespace kerrow::installer {
namespace {

constexpr std::string_view chromeSystemDirectory = "/etc/opt/chrome/native-messaging-hosts";

constexpr std::array browsers{
    Browser{"chrome", BrowserFamily::chromium, "google-chrome", "NativeMessagingHosts",
            chromeSystemDirectory},
    Browser{"chromium", BrowserFamily::chromium, "chromium", "NativeMessagingHosts",
            "/etc/chromium/native-messaging-hosts"},
    Browser{"edge", BrowserFamily::chromium, "microsoft-edge", "NativeMessagingHosts",
            "/etc/opt/edge/native-messaging-hosts"},
    Browser{"brave", BrowserFamily::chromium, "BraveSoftware/Brave-Browser", "NativeMessagingHosts",
            chromeSystemDirectory},
    Browser{"vivaldi", BrowserFamily::chromium, "vivaldi", "NativeMessagingHosts",
            chromeSystemDirectory},
    Browser{"firefox", BrowserFamily::firefox, ".mozilla", "native-messaging-hosts",
            "/usr/lib/mozilla/native-messaging-hosts"},
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
    return family == BrowserFamily::chromium ? "Chrome family" : "Firefox";
}

}  // namespace kerrow::installer
