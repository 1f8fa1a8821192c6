#include "model/video_options.h"

#include <nlohmann/json.hpp>

#include "model/json_coding.h"

namespace kerrow {

using json_coding::appendInteger;
using json_coding::appendKey;
using json_coding::readInt64;

void VideoOptions::Resolution::encode(std::string& out) const {
    out.push_back('{');
    appendKey(out, keyText(CodingKeys::width));
    appendInteger(out, width);
    out.push_back(',');
    appendKey(out, keyText(CodingKeys::height));
    appendInteger(out, height);
    out.push_back('}');
}

std::optional<VideoOptions::Resolution> VideoOptions::Resolution::decode(
    const nlohmann::json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    const std::optional<std::int64_t> width = readInt64(value, keyText(CodingKeys::width));
    const std::optional<std::int64_t> height = readInt64(value, keyText(CodingKeys::height));
    if (!width || !height) {
        return std::nullopt;
    }
    return Resolution{*width, *height};
}

void VideoOptions::encode(std::string& out) const {
    out.push_back('{');
    appendKey(out, keyText(CodingKeys::resolution));
    resolution.encode(out);
    out.push_back(',');
    appendKey(out, keyText(CodingKeys::framerate));
    appendInteger(out, framerate);
    out.push_back('}');
}

std::optional<VideoOptions> VideoOptions::decode(const nlohmann::json& value) {
    if (!value.is_object()) {
        return std::nullopt;
    }
    const nlohmann::json* resolutionValue =
        json_coding::readObject(value, keyText(CodingKeys::resolution));
    const std::optional<Resolution> resolution =
        resolutionValue != nullptr ? Resolution::decode(*resolutionValue) : std::nullopt;
    const std::optional<std::int64_t> framerate = readInt64(value, keyText(CodingKeys::framerate));
    if (!resolution || !framerate) {
        return std::nullopt;
    }
    return VideoOptions{*resolution, *framerate};
}

}  // namespace kerrow
