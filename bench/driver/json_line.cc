#include "bench/driver/json_line.h"

#include <cstdio>

namespace kerrow::bench {
namespace {

// Texts here are names and program names: quotes and backslashes are all that need escaping.
void appendEscaped(std::string& out, std::string_view text) {
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
        }
        out.push_back(c);
    }
}

}  // namespace

JsonLine& JsonLine::add(std::string_view name, std::string_view text) {
    key(name);
    members_.push_back('"');
    appendEscaped(members_, text);
    members_.push_back('"');
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, double value) {
    key(name);
    char number[32];
    std::snprintf(number, sizeof number, "%.6g", value);
    members_.append(number);
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, std::int64_t value) {
    key(name);
    members_.append(std::to_string(value));
    return *this;
}

JsonLine& JsonLine::add(std::string_view name, const std::vector<double>& values) {
    key(name);
    members_.push_back('[');
    char number[32];
    for (std::size_t i = 0; i < values.size(); ++i) {
        std::snprintf(number, sizeof number, i == 0 ? "%.1f" : ",%.1f", values[i]);
        members_.append(number);
    }
    members_.push_back(']');
    return *this;
}

void JsonLine::key(std::string_view name) {
    if (!members_.empty()) {
        members_.push_back(',');
    }
    members_.push_back('"');
    appendEscaped(members_, name);
    members_.append("\":");
}

}  // namespace kerrow::bench
