// Config: the addresses the extension connects to, as carried in the config payload. A plain,
// mutable value with no shared state: build, copy and code it on any thread.
//
// JSON: {"address":"ws://localhost:8080/","api":"https://api.kerrowsoftware.com"}. Both members
// are always written. Reading is lenient member by member: a member that is missing, null or not
// a string takes its default; only a value that is not a JSON object fails.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kerrow {

struct Config {
    /// The local WebSocket endpoint.
    static constexpr std::string_view kDefaultAddress = "ws://localhost:8080/";
    /// The base URL of the cloud API service; the host only carries it.
    static constexpr std::string_view kDefaultAPI = "https://api.kerrowsoftware.com";

    enum class CodingKeys { address, api };

    std::string address{kDefaultAddress};
    std::string api{kDefaultAPI};

    [[nodiscard]] static constexpr std::string_view keyText(CodingKeys key) {
        return key == CodingKeys::address ? "address" : "api";
    }

    /// Appends the JSON object; false when a text is not UTF-8, in which case `out` holds a
    /// partial text.
    [[nodiscard]] bool encode(std::string& out) const;

    /// Never throws; nullopt only when `value` is not a JSON object. A string member is used as
    /// it is, even when empty.
    [[nodiscard]] static std::optional<Config> decode(const nlohmann::json& value);

    bool operator==(const Config&) const = default;
};

}  // namespace kerrow
