// The ISO 8601 internet date-time form in which the model writes and reads points in time, e.g.
// "2024-05-01T08:00:00Z". Pure functions, any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace kerrow {

/// `date` in UTC to the second with the suffix Z. Gives nullopt for dates outside the years
/// 0000 to 9999, which the four-digit year of the form cannot hold.
[[nodiscard]] std::optional<std::string> formatInternetDateTime(std::chrono::sys_seconds date);

/// Reads "YYYY-MM-DDTHH:MM:SSZ", or the same with a "+HH:MM" or "-HH:MM" offset in place of Z,
/// and gives the point in time in UTC. Rejected: fractional seconds, lowercase "t" or "z", the
/// leap second 60, offsets without the colon, and dates or times that do not exist.
[[nodiscard]] std::optional<std::chrono::sys_seconds> parseInternetDateTime(std::string_view text);

}  // namespace kerrow
