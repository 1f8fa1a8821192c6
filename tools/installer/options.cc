#include "tools/installer/options.h"

#include <getopt.h>

#include <algorithm>
#include <array>

#include "kerrow_extension_ids.h"
#include "tools/installer/manifest.h"

namespace kerrow::installer {
namespace {

// getopt_long's codes for the long options; each option's text comes from longOptions.
enum Code : int {
    browserCode = 256,
    extensionIdCode,
    hostCode,
    userDataDirCode,
    rootCode,
    systemCode,
    checkCode,
    removeCode,
    doctorCode,
    jsonCode,
    grantFlatpakCode,
    versionCode,
    helpCode = 'h',
};

constexpr std::array<option, 14> longOptions{{
    {"browser", required_argument, nullptr, browserCode},
    {"extension-id", required_argument, nullptr, extensionIdCode},
    {"host", required_argument, nullptr, hostCode},
    {"user-data-dir", required_argument, nullptr, userDataDirCode},
    {"root", required_argument, nullptr, rootCode},
    {"system", no_argument, nullptr, systemCode},
    {"check", no_argument, nullptr, checkCode},
    {"remove", no_argument, nullptr, removeCode},
    {"doctor", no_argument, nullptr, doctorCode},
    {"json", no_argument, nullptr, jsonCode},
    {"grant-flatpak", no_argument, nullptr, grantFlatpakCode},
    {"version", no_argument, nullptr, versionCode},
    {"help", no_argument, nullptr, helpCode},
    {nullptr, 0, nullptr, 0},
}};

// "--browser" for browserCode; empty for a code of no long option.
std::string optionText(int code) {
    for (const option& entry : longOptions) {
        if (entry.name != nullptr && entry.val == code) {
            return "--" + std::string(entry.name);
        }
    }
    return {};
}

std::string browserNames() {
    std::string names;
    for (const Browser& browser : knownBrowsers()) {
        names += (names.empty() ? "" : ", ") + std::string(browser.name);
    }
    return names;
}

// `text` cut at spaces into lines of the help's second column, each line started anew.
std::string wrapped(const std::string& text) {
    constexpr std::size_t indent = 23;
    constexpr std::size_t width = 99;
    std::string lines;
    std::size_t column = width;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(' ', start), text.size());
        if (column + 1 + (end - start) > width) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else {
            lines += ' ';
            ++column;
        }
        lines += text.substr(start, end - start);
        column += end - start;
        start = end + 1;
    }
    return lines;
}

std::optional<UsageError> addExtensionId(Options& options, std::string_view id) {
    const auto family = extensionIdFamily(id);
    if (!family) {
        return UsageError{"'" + std::string(id) +
                          "' is neither a Chrome extension id (32 letters a-p) nor a Firefox "
                          "add-on id (name@domain or {GUID})"};
    }
    auto& ids = *family == BrowserFamily::chromium ? options.chromiumExtensionIds
                                                   : options.firefoxExtensionIds;
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
        ids.emplace_back(id);
    }
    return std::nullopt;
}

std::optional<UsageError> addBrowser(Options& options, std::string_view name) {
    const Browser* const browser = findBrowser(name);
    if (browser == nullptr) {
        return UsageError{"unknown browser '" + std::string(name) + "' (known: " + browserNames() +
                          ")"};
    }
    if (std::find(options.browsers.begin(), options.browsers.end(), browser) ==
        options.browsers.end()) {
        options.browsers.push_back(browser);
    }
    return std::nullopt;
}

std::optional<UsageError> setAction(Options& options, Action action, bool& actionGiven) {
    if (actionGiven && options.action != action) {
        return UsageError{"--check, --remove and --doctor exclude each other"};
    }
    options.action = action;
    actionGiven = true;
    return std::nullopt;
}

// The combinations that the options alone rule out.
std::optional<UsageError> validate(const Options& options, bool systemGiven) {
    if (systemGiven && options.scope == Scope::userDataDir) {
        return UsageError{"--system and --user-data-dir exclude each other"};
    }
    if (options.scope == Scope::userDataDir &&
        std::any_of(options.browsers.begin(), options.browsers.end(),
                    [](const Browser* b) { return b->family != BrowserFamily::chromium; })) {
        return UsageError{
            "--user-data-dir is a Chromium-family profile folder; Firefox reads "
            "manifests only from ~/.mozilla or the system folder"};
    }
    if (!options.root.empty() && options.scope != Scope::system) {
        return UsageError{"--root is for --system (a package's staging root)"};
    }
    if (options.json && options.action != Action::doctor) {
        return UsageError{"--json is for --doctor"};
    }
    if (options.action != Action::install) {
        return std::nullopt;
    }
    if (options.chromiumExtensionIds.empty() && options.firefoxExtensionIds.empty()) {
        return UsageError{"give at least one --extension-id"};
    }
    if (options.scope == Scope::userDataDir && options.chromiumExtensionIds.empty()) {
        return UsageError{"--user-data-dir needs a Chrome extension id"};
    }
    for (const Browser* browser : options.browsers) {
        if (options.extensionIds(browser->family).empty()) {
            return UsageError{"--browser " + std::string(browser->name) + " needs a " +
                              std::string(familyName(browser->family)) + " extension id"};
        }
    }
    return std::nullopt;
}

// Carries out the option `code` with its value (empty for an option without one).
std::optional<UsageError> apply(Options& options, int code, std::string_view value,
                                bool& actionGiven, bool& systemGiven) {
    switch (code) {
        case helpCode:
            options.help = true;
            break;
        case versionCode:
            options.version = true;
            break;
        case doctorCode:
            return setAction(options, Action::doctor, actionGiven);
        case checkCode:
            return setAction(options, Action::check, actionGiven);
        case removeCode:
            return setAction(options, Action::remove, actionGiven);
        case jsonCode:
            options.json = true;
            break;
        case grantFlatpakCode:
            options.grantFlatpak = true;
            break;
        case systemCode:
            systemGiven = true;
            if (options.scope != Scope::userDataDir) {
                options.scope = Scope::system;
            }
            break;
        case browserCode:
            return addBrowser(options, value);
        case extensionIdCode:
            return addExtensionId(options, value);
        case rootCode:
            options.root = std::filesystem::absolute(value).lexically_normal();
            break;
        case hostCode:
            if (!value.starts_with('/')) {
                return UsageError{"--host must be an absolute path, not '" + std::string(value) +
                                  "'"};
            }
            options.hostPath = std::filesystem::path(value).lexically_normal();
            break;
        case userDataDirCode:
            options.scope = Scope::userDataDir;
            options.userDataDir = std::filesystem::absolute(value).lexically_normal();
            break;
    }
    return std::nullopt;
}

}  // namespace

std::variant<Options, UsageError> parseOptions(std::span<const std::string_view> arguments) {
    std::vector<std::string> texts{"kerrow-native-messaging-host-install"};
    texts.insert(texts.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    const int argc = static_cast<int>(texts.size());

    Options options;
    bool actionGiven = false;
    bool systemGiven = false;
    optind = 0;  // a full restart of getopt's scan
    opterr = 0;  // the messages are ours
    // "-": a non-option is returned as code 1; ":": a missing value as ':'.
    for (int code = 0;
         (code = ::getopt_long(argc, argv.data(), "-:h", longOptions.data(), nullptr)) != -1;) {
        if (code == 1) {
            return UsageError{"unknown argument '" + std::string(optarg) + "'"};
        }
        if (code == ':') {
            return UsageError{optionText(optopt) + " needs a value"};
        }
        if (code == '?') {
            const auto known = optionText(optopt);  // known, but given a value
            return UsageError{known.empty()
                                  ? "unknown argument '" + std::string(argv[optind - 1]) + "'"
                                  : known + " takes no value"};
        }
        const std::string_view value = optarg != nullptr ? optarg : "";
        if (optarg != nullptr && value.empty()) {
            return UsageError{optionText(code) + " needs a value"};
        }
        if (auto error = apply(options, code, value, actionGiven, systemGiven)) {
            return *error;
        }
        if (options.help || options.version) {
            return options;
        }
    }
    if (optind < argc) {
        return UsageError{"unknown argument '" + std::string(argv[optind]) + "'"};
    }
    if (options.chromiumExtensionIds.empty() && options.firefoxExtensionIds.empty()) {
        for (const std::string_view id : configuredExtensionIds) {
            if (auto error = addExtensionId(options, id)) {
                return *error;
            }
        }
    }
    if (auto error = validate(options, systemGiven)) {
        return *error;
    }
    return options;
}

std::string usageText(std::string_view programName) {
    const std::string name(programName);
    return "Usage: " + name + " [WHERE] [--browser NAME]... --extension-id ID... [--host PATH]\n" +
           "       " + name + " [WHERE] [--browser NAME]... [--extension-id ID]... --check\n" +
           "       " + name + " [WHERE] [--browser NAME]... --remove\n" + "       " + name +
           " [--extension-id ID]... --doctor [--json]\n" + R"(
Writes (default), verifies (--check) or removes (--remove) the manifest that lets a browser start
the Kerrow native messaging host (com.kerrowsoftware.native_messaging_host), or diagnoses the
whole chain from browser to core service (--doctor).

WHERE
  (none)               for the current user, in each browser's folder under $HOME
                       (Chrome family: $XDG_CONFIG_HOME, default ~/.config; Chrome, Chromium
                       and Thorium: $CHROME_CONFIG_HOME when set), and inside ~/.var/app/<id>
                       for each browser installed as a Flatpak
  --system             for every user (run as root): /etc/opt/chrome, /etc/chromium,
                       /etc/opt/edge, /usr/lib/mozilla, /usr/lib/librewolf, /usr/lib/waterfox
                       (and the same under /usr/lib64 where it exists)
  --root DIR           with --system: write under DIR (a package's staging root)
  --user-data-dir DIR  for a Chromium-family browser started with --user-data-dir=DIR:
                       DIR/NativeMessagingHosts

  --browser NAME       a browser below; repeatable. Without it: every browser; for the current
                       user only those in use (~/.config/google-chrome, ~/.mozilla/firefox,
                       ~/.zen, ~/snap/firefox, ~/.var/app/<id>, ...):)" +
           wrapped(browserNames()) + R"(
  --extension-id ID    an extension allowed to start the host; repeatable. A Chrome extension
                       id is 32 letters a-p; a Firefox add-on id is name@domain or {GUID}.
                       With --check or --doctor: the manifest must allow exactly these.
                       Default: the ids this build was made with (none in a development
                       build, whose ids are placeholders).
  --host PATH          the host binary, an absolute path. Default: kerrow-native-messaging-host
                       in this program's folder. With --check: the manifest must name it.
  --grant-flatpak      run `flatpak override --user --talk-name=org.freedesktop.Flatpak <id>`
                       for each Flatpak browser (otherwise the command is only printed)
  --check              verify each manifest: JSON, name, type, host executable, extension ids
  --remove             remove the manifests (a folder shared with a browser not named stays)
  --doctor             check every manifest of every browser in use, each Flatpak launcher and
                       permission, the session bus and the core service's socket; one line per
                       finding, saying what to do
  --json               with --doctor: the findings as JSON
  --version            print the version

Manifests are written atomically with mode 0644.
Exit status: 0 done (or every manifest checked is sound, or the doctor found nothing wrong),
1 a browser in use could not be registered, none was found, or a manifest or the chain is
unsound, 2 bad command line.
)";
}

}  // namespace kerrow::installer
