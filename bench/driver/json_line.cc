#include "bench/driver/json_line.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace kerrow::bench {
namespace {

// `value` as printed with `format` and read back, so that the line carries no more digits than
// the measurement holds.
double rounded(const char* format, double value) {
    if (!std::isfinite(value)) {
        return value;
    }
    char number[32];
    std::snprintf(number, sizeof number, format, value);
    return std::strtod(number, nullptr);
}

}  // namespace

JsonLine& JsonLine::add(std::string_view key, std::string_view text) {
    members_[std::string(key)] = std::string(text);
    return *this;
}

JsonLine& JsonLine::add(std::string_view key, double value) {
    members_[std::string(key)] = rounded("%.6g", value);
    return *this;
}

JsonLine& JsonLine::add(std::string_view key, std::int64_t value) {
    members_[std::string(key)] = value;
    return *this;
}

JsonLine& JsonLine::add(std::string_view key, const std::vector<double>& values) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const double value : values) {
        list.push_back(rounded("%.1f", value));
    }
    members_[std::string(key)] = std::move(list);
    return *this;
}

}  // namespace kerrow::bench
