#include "model/config.h"

#include <nlohmann/json.hpp>

#include "model/json_coding.h"
#include "model/json_text.h"

namespace kerrow {

bool Config::encode(std::string& out) const {
    using json_coding::appendKey;
    out.push_back('{');
    appendKey(out, keyText(CodingKeys::address));
    if (!appendJSONString(out, address)) {
        return false;
    }
    out.push_back(',');
    appendKey(out, keyText(CodingKeys::api));
    if (!appendJSONString(out, api)) {
        return false;
    }
    out.push_back('}');
    return true;
}

std::optional<Config> Config::decode(const nlohmann::json& value) {
    using json_coding::readString;
    if (!value.is_object()) {
        return std::nullopt;
    }
    return Config{
        .address =
            readString(value, keyText(CodingKeys::address)).value_or(std::string{kDefaultAddress}),
        .api = readString(value, keyText(CodingKeys::api)).value_or(std::string{kDefaultAPI}),
    };
}

}  // namespace kerrow
