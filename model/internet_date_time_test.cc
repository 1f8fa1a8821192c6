#include "model/internet_date_time.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string_view>

namespace kerrow {
namespace {

using std::chrono::seconds;
using std::chrono::sys_seconds;

TEST(InternetDateTime, WritesUTCToTheSecondWithZForFourDigitYearsAndReadsOffsets) {
    const struct {
        std::int64_t secondsSinceEpoch;
        std::optional<std::string_view> text;
    } cases[] = {
        {0, "1970-01-01T00:00:00Z"},
        {1714550400, "2024-05-01T08:00:00Z"},
        {1709251199, "2024-02-29T23:59:59Z"},
        {-1, "1969-12-31T23:59:59Z"},
        {-62167219200, "0000-01-01T00:00:00Z"},
        {253402300799, "9999-12-31T23:59:59Z"},
        {-62167219201, std::nullopt},
        {253402300800, std::nullopt},
    };
    for (const auto& [secondsSinceEpoch, text] : cases) {
        const sys_seconds date{seconds{secondsSinceEpoch}};
        EXPECT_EQ(formatInternetDateTime(date), text) << secondsSinceEpoch;
        if (text) {
            EXPECT_EQ(parseInternetDateTime(*text), date) << *text;
        }
    }
    // Numeric offsets are read as the same instant.
    for (const std::string_view text : {"2024-05-01T10:00:00+02:00", "2024-05-01T02:30:00-05:30",
                                        "2024-05-01T08:00:00+00:00", "2024-05-02T07:59:00+23:59"}) {
        EXPECT_EQ(parseInternetDateTime(text), sys_seconds{seconds{1714550400}}) << text;
    }
}

TEST(InternetDateTime, RefusesOtherForms) {
    for (const std::string_view text : {
             "",
             "1714550400",
             "2024-05-01T08:00:00",     // no zone
             "2024-05-01T08:00:00.5Z",  // fractional seconds
             "2024-05-01t08:00:00Z",
             "2024-05-01T08:00:00z",
             "2024-05-01 08:00:00Z",
             "2024-05-01T08:00:00+0200",
             "2024-05-01T08:00:00+24:00",
             "2024-05-01T08:00:00+02:60",
             "2024-05-01T08:00:00Z ",
             "2024-02-30T08:00:00Z",
             "2023-02-29T08:00:00Z",
             "2024-13-01T08:00:00Z",
             "2024-00-01T08:00:00Z",
             "2024-05-00T08:00:00Z",
             "2024-05-01T24:00:00Z",
             "2024-05-01T08:60:00Z",
             "2024-05-01T23:59:60Z",
             "2024-5-01T08:00:00Z",
             "2024-05-01T08:00:0aZ",
         }) {
        EXPECT_EQ(parseInternetDateTime(text), std::nullopt) << text;
    }
}

}  // namespace
}  // namespace kerrow
