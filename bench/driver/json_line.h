// JsonLine: one line of the driver's results, a flat JSON object with members in the order
// added (texts, numbers, lists of numbers), written with nlohmann::json. A plain value; one
// thread.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow::bench {

class JsonLine {
  public:
    JsonLine& add(std::string_view key, std::string_view text);
    JsonLine& add(std::string_view key, const char* text) {
        return add(key, std::string_view(text));
    }
    /// Kept to six significant digits, as a measurement is worth.
    JsonLine& add(std::string_view key, double value);
    JsonLine& add(std::string_view key, std::int64_t value);
    /// Numbers with one decimal, as the latencies in microseconds are given.
    JsonLine& add(std::string_view key, const std::vector<double>& values);
    /// Compact JSON on one line.
    [[nodiscard]] std::string text() const { return members_.dump(); }

  private:
    nlohmann::ordered_json members_ = nlohmann::ordered_json::object();
};

}  // namespace kerrow::bench
