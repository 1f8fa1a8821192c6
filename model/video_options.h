// VideoOptions: the resolution and frame rate of a video call, as carried in the sendVideo
// payload. A plain value with no shared state: build, copy and code it on any thread.
//
// JSON: {"resolution":{"width":1280,"height":720},"framerate":30}. Reading is strict: every
// member present and a JSON integer that fits 64 signed bits. No range is imposed; zero and
// negative values are carried as they are.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace kerrow {

struct VideoOptions {
    struct Resolution {
        enum class CodingKeys { width, height };

        std::int64_t width = 0;
        std::int64_t height = 0;

        [[nodiscard]] static constexpr std::string_view keyText(CodingKeys key) {
            return key == CodingKeys::width ? "width" : "height";
        }

        /// Appends the JSON object; it holds only integers, so it cannot fail.
        void encode(std::string& out) const;

        /// Strict: both members present and integers. Never throws.
        [[nodiscard]] static std::optional<Resolution> decode(const nlohmann::json& value);

        bool operator==(const Resolution&) const = default;
    };

    enum class CodingKeys { resolution, framerate };

    Resolution resolution;
    std::int64_t framerate = 0;

    [[nodiscard]] static constexpr std::string_view keyText(CodingKeys key) {
        return key == CodingKeys::resolution ? "resolution" : "framerate";
    }

    void encode(std::string& out) const;

    /// Strict: both members present, "resolution" an object, "framerate" an integer.
    [[nodiscard]] static std::optional<VideoOptions> decode(const nlohmann::json& value);

    bool operator==(const VideoOptions&) const = default;
};

}  // namespace kerrow
