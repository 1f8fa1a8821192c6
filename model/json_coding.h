// Helpers that the model's encoders and decoders share: writing keys and integers, and reading
// typed members out of a parsed JSON object. Internal to model/. Pure functions, any thread.
//
// The readers never throw: each checks the JSON type before it touches the value and gives
// nullopt (or nullptr) for a member that is missing, null or of another type.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kerrow::json_coding {

/// Appends `"key":`. The model's key texts are plain ASCII names that need no escape.
void appendKey(std::string& out, std::string_view key);

void appendInteger(std::string& out, std::int64_t value);

/// Appends a JSON array of strings; false when an element is not well-formed UTF-8.
[[nodiscard]] bool appendStringArray(std::string& out, const std::vector<std::string>& texts);

/// The member `key` of `object` when it is itself a JSON object, else nullptr.
/// REQUIRES (for all readers): `object` is a JSON object.
[[nodiscard]] const nlohmann::json* readObject(const nlohmann::json& object, std::string_view key);

/// The member `key` of `object` when it is a JSON array, else nullptr.
[[nodiscard]] const nlohmann::json* readArray(const nlohmann::json& object, std::string_view key);

[[nodiscard]] std::optional<std::string> readString(const nlohmann::json& object,
                                                    std::string_view key);

/// Only JSON integers that fit 64 signed bits: 29.97, 1e3, "42" and 9223372036854775808 fail.
[[nodiscard]] std::optional<std::int64_t> readInt64(const nlohmann::json& object,
                                                    std::string_view key);

/// An array whose elements are all strings.
[[nodiscard]] std::optional<std::vector<std::string>> readStringArray(const nlohmann::json& object,
                                                                      std::string_view key);

/// True when arrays and objects in `text` nest deeper than `limit`. Exact for valid JSON, which
/// is all that matters: invalid text fails to parse whatever this says.
[[nodiscard]] bool nestsDeeperThan(std::string_view text, int limit);

}  // namespace kerrow::json_coding
