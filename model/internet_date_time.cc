#include "model/internet_date_time.h"

namespace kerrow {

namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_days;
using std::chrono::sys_seconds;

constexpr sys_seconds kEarliest = sys_days{std::chrono::year{0} / 1 / 1};
constexpr sys_seconds kEnd = sys_days{std::chrono::year{10000} / 1 / 1};

void writeDigits(char* at, unsigned value, int count) {
    for (int index = count - 1; index >= 0; --index) {
        at[index] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

// The number written in `count` ASCII digits at `text[at]`, or -1 when one is not a digit.
int readDigits(std::string_view text, std::size_t at, int count) {
    int value = 0;
    for (int index = 0; index < count; ++index) {
        const char digit = text[at + static_cast<std::size_t>(index)];
        if (digit < '0' || digit > '9') {
            return -1;
        }
        value = value * 10 + (digit - '0');
    }
    return value;
}

// The offset from UTC named by the zone designator, "Z" or "+HH:MM"/"-HH:MM".
std::optional<minutes> readZone(std::string_view zone) {
    if (zone == "Z") {
        return minutes{0};
    }
    if (zone.size() != 6 || (zone[0] != '+' && zone[0] != '-') || zone[3] != ':') {
        return std::nullopt;
    }
    const int offsetHours = readDigits(zone, 1, 2);
    const int offsetMinutes = readDigits(zone, 4, 2);
    if (offsetHours < 0 || offsetHours > 23 || offsetMinutes < 0 || offsetMinutes > 59) {
        return std::nullopt;
    }
    const minutes offset = hours{offsetHours} + minutes{offsetMinutes};
    return zone[0] == '+' ? offset : -offset;
}

}  // namespace

std::optional<std::string> formatInternetDateTime(sys_seconds date) {
    if (date < kEarliest || date >= kEnd) {
        return std::nullopt;
    }
    const sys_days day = std::chrono::floor<days>(date);
    const std::chrono::year_month_day calendarDate{day};
    const std::chrono::hh_mm_ss time{date - day};
    std::string text = "0000-00-00T00:00:00Z";
    writeDigits(&text[0], static_cast<unsigned>(static_cast<int>(calendarDate.year())), 4);
    writeDigits(&text[5], static_cast<unsigned>(calendarDate.month()), 2);
    writeDigits(&text[8], static_cast<unsigned>(calendarDate.day()), 2);
    writeDigits(&text[11], static_cast<unsigned>(time.hours().count()), 2);
    writeDigits(&text[14], static_cast<unsigned>(time.minutes().count()), 2);
    writeDigits(&text[17], static_cast<unsigned>(time.seconds().count()), 2);
    return text;
}

std::optional<sys_seconds> parseInternetDateTime(std::string_view text) {
    constexpr std::size_t kZoneStart = 19;  // after "YYYY-MM-DDTHH:MM:SS"
    if (text.size() <= kZoneStart || text[4] != '-' || text[7] != '-' || text[10] != 'T' ||
        text[13] != ':' || text[16] != ':') {
        return std::nullopt;
    }
    const int year = readDigits(text, 0, 4);
    const int month = readDigits(text, 5, 2);
    const int day = readDigits(text, 8, 2);
    const int hour = readDigits(text, 11, 2);
    const int minute = readDigits(text, 14, 2);
    const int second = readDigits(text, 17, 2);
    const std::optional<minutes> offset = readZone(text.substr(kZoneStart));
    if (year < 0 || month < 0 || day < 0 || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59 || !offset) {
        return std::nullopt;
    }
    const std::chrono::year_month_day calendarDate{std::chrono::year{year},
                                                   std::chrono::month{static_cast<unsigned>(month)},
                                                   std::chrono::day{static_cast<unsigned>(day)}};
    if (!calendarDate.ok()) {
        return std::nullopt;
    }
    return sys_days{calendarDate} + hours{hour} + minutes{minute} + seconds{second} - *offset;
}

}  // namespace kerrow
