#include "tools/installer/manifest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

namespace kerrow::installer {
namespace {

constexpr std::string_view chromeOriginPrefix = "chrome-extension://";
constexpr std::size_t firefoxIdMaximumLength = 80;

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isFirefoxIdCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
}

bool isGuidId(std::string_view id) {
    // {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}
    constexpr std::string_view shape = "{00000000-0000-0000-0000-000000000000}";
    if (id.size() != shape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < id.size(); ++i) {
        const bool matches = shape[i] == '0' ? isHexDigit(id[i]) : id[i] == shape[i];
        if (!matches) {
            return false;
        }
    }
    return true;
}

bool isEmailLikeId(std::string_view id) {
    const std::size_t at = id.find('@');
    if (at == std::string_view::npos || at + 1 == id.size()) {
        return false;
    }
    const auto valid = [](std::string_view part) {
        return std::all_of(part.begin(), part.end(), isFirefoxIdCharacter);
    };
    return valid(id.substr(0, at)) && valid(id.substr(at + 1));
}

std::string jsonText(const nlohmann::json& value) {
    return value.dump();
}

// The ids a manifest allows, with a problem for each entry that is not a valid id.
std::vector<std::string> allowedIds(const nlohmann::json& manifest, BrowserFamily family,
                                    std::vector<std::string>& problems) {
    const char* const key =
        family == BrowserFamily::chromium ? "allowed_origins" : "allowed_extensions";
    const auto member = manifest.find(key);
    if (member == manifest.end() || !member->is_array() || member->empty()) {
        problems.push_back(std::string(key) + " must be a non-empty array");
        return {};
    }
    std::vector<std::string> ids;
    for (const auto& entry : *member) {
        if (!entry.is_string()) {
            problems.push_back(std::string(key) + " holds a non-string entry " + jsonText(entry));
            continue;
        }
        std::string id = entry.get<std::string>();
        if (family == BrowserFamily::chromium) {
            const bool origin =
                id.starts_with(chromeOriginPrefix) && id.ends_with('/') &&
                isChromiumExtensionId(id.substr(chromeOriginPrefix.size(),
                                                id.size() - chromeOriginPrefix.size() - 1));
            if (!origin) {
                problems.push_back("allowed_origins entry " + jsonText(entry) +
                                   " is not chrome-extension://<32 letters a-p>/");
                continue;
            }
            id = id.substr(chromeOriginPrefix.size(), id.size() - chromeOriginPrefix.size() - 1);
        } else if (!isFirefoxExtensionId(id)) {
            problems.push_back("allowed_extensions entry " + jsonText(entry) +
                               " is not a Firefox add-on id");
            continue;
        }
        ids.push_back(std::move(id));
    }
    return ids;
}

void checkHostPath(const nlohmann::json& manifest, const ManifestExpectation& expected,
                   std::vector<std::string>& problems) {
    const auto member = manifest.find("path");
    if (member == manifest.end() || !member->is_string()) {
        problems.push_back("path must be a string");
        return;
    }
    const std::filesystem::path path = member->get<std::string>();
    if (!path.is_absolute()) {
        problems.push_back("path " + jsonText(*member) + " is not absolute");
        return;
    }
    if (expected.hostPath && path != *expected.hostPath) {
        problems.push_back("path " + jsonText(*member) + " is not " +
                           jsonText(nlohmann::json(expected.hostPath->string())));
    }
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        problems.push_back("host " + path.string() + " does not exist or is not a file");
    } else if (::access(path.c_str(), X_OK) != 0) {
        problems.push_back("host " + path.string() + " is not executable");
    }
}

}  // namespace

std::string manifestFileName() {
    return std::string(hostName) + ".json";
}

bool isChromiumExtensionId(std::string_view id) {
    return id.size() == 32 &&
           std::all_of(id.begin(), id.end(), [](char c) { return c >= 'a' && c <= 'p'; });
}

bool isFirefoxExtensionId(std::string_view id) {
    return id.size() <= firefoxIdMaximumLength && (isGuidId(id) || isEmailLikeId(id));
}

std::optional<BrowserFamily> extensionIdFamily(std::string_view id) {
    if (isChromiumExtensionId(id)) {
        return BrowserFamily::chromium;
    }
    if (isFirefoxExtensionId(id)) {
        return BrowserFamily::firefox;
    }
    return std::nullopt;
}

std::string manifestText(BrowserFamily family, const std::filesystem::path& hostPath,
                         const std::vector<std::string>& extensionIds) {
    nlohmann::ordered_json manifest;
    manifest["name"] = hostName;
    manifest["description"] = "Kerrow native messaging host";
    manifest["path"] = hostPath.string();
    manifest["type"] = "stdio";
    if (family == BrowserFamily::chromium) {
        auto& origins = manifest["allowed_origins"] = nlohmann::ordered_json::array();
        for (const auto& id : extensionIds) {
            origins.push_back(std::string(chromeOriginPrefix) + id + "/");
        }
    } else {
        manifest["allowed_extensions"] = extensionIds;
    }
    return manifest.dump(2) + "\n";
}

std::vector<std::string> manifestProblems(std::string_view text,
                                          const ManifestExpectation& expected) {
    const auto manifest = nlohmann::json::parse(text, nullptr, false);
    if (manifest.is_discarded() || !manifest.is_object()) {
        return {"not a JSON object"};
    }
    std::vector<std::string> problems;
    const auto name = manifest.find("name");
    if (name == manifest.end() || !name->is_string() || name->get<std::string>() != hostName) {
        problems.push_back("name must be \"" + std::string(hostName) + "\"");
    }
    const auto type = manifest.find("type");
    if (type == manifest.end() || !type->is_string() || type->get<std::string>() != "stdio") {
        problems.push_back("type must be \"stdio\"");
    }
    checkHostPath(manifest, expected, problems);
    const auto ids = allowedIds(manifest, expected.family, problems);
    if (!expected.extensionIds.empty() &&
        std::set(ids.begin(), ids.end()) !=
            std::set(expected.extensionIds.begin(), expected.extensionIds.end())) {
        std::string wanted;
        for (const auto& id : expected.extensionIds) {
            wanted += (wanted.empty() ? "" : ", ") + id;
        }
        problems.push_back("allowed extensions are not exactly " + wanted);
    }
    return problems;
}

}  // namespace kerrow::installer
