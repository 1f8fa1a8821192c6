// The native messaging host manifest: the extension ids it may name, its text, and the checks
// that tell whether a manifest on disk lets a browser start the host. Plain functions; any thread.
//
// Chrome family: {"name": ..., "description": ..., "path": <absolute host path>,
//                 "type": "stdio", "allowed_origins": ["chrome-extension://<id>/", ...]}
// Firefox:       the same with "allowed_extensions": ["<add-on id>", ...].
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/installer/browsers.h"

namespace kerrow::installer {

/// The host's name: what the extension passes to connectNative, and the manifest's file name.
inline constexpr std::string_view hostName = "com.kerrowsoftware.native_messaging_host";
/// The manifest's file name in every browser folder.
[[nodiscard]] std::string manifestFileName();

/// A Chrome-family extension id: exactly 32 letters from a to p.
[[nodiscard]] bool isChromiumExtensionId(std::string_view id);
/// A Firefox add-on id: "{8-4-4-4-12 hex digits}" or "name@domain" (letters, digits, "-._"),
/// at most 80 characters; letters in either case, as Firefox accepts them.
[[nodiscard]] bool isFirefoxExtensionId(std::string_view id);
/// The family whose id syntax `id` follows, or no value when it follows neither.
[[nodiscard]] std::optional<BrowserFamily> extensionIdFamily(std::string_view id);

/// The manifest for `family`: indented JSON text ending in a newline. The ids must be of that
/// family; `hostPath` is written as given.
[[nodiscard]] std::string manifestText(BrowserFamily family, const std::filesystem::path& hostPath,
                                       const std::vector<std::string>& extensionIds);

/// What a manifest must hold besides the fixed members.
struct ManifestExpectation {
    BrowserFamily family = BrowserFamily::chromium;
    /// When set, "path" must be exactly this.
    std::optional<std::filesystem::path> hostPath;
    /// When not empty, the allowed ids must be exactly these (in any order).
    std::vector<std::string> extensionIds;
};

/// Every reason why `text` is not a manifest that lets the browser start the host: not JSON, a
/// wrong or missing member, an id of the wrong syntax, a host path that is relative, missing or
/// not executable (the file system is consulted). Empty when the manifest is sound.
[[nodiscard]] std::vector<std::string> manifestProblems(std::string_view text,
                                                        const ManifestExpectation& expected);

}  // namespace kerrow::installer
