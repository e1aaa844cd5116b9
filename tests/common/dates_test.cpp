#include "common/dates.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(dates, takes_date_times_as_local) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    // 11:00 UTC, in winter and in summer.
    EXPECT_EQ(parse_datetime("2024-01-15T12:00:00Z"), 1705316400);
    EXPECT_EQ(parse_datetime("2024-07-15T13:00:00Z"), 1721041200);
    EXPECT_EQ(print_datetime(1705316400), "2024-01-15T12:00:00Z");
    EXPECT_EQ(print_datetime(1721041200), "2024-07-15T13:00:00Z");
    // Where the box's clock ends in 2038, so do the dates.
    constexpr bool wide = sizeof(time_t) > sizeof(int32_t);
    EXPECT_EQ(parse_datetime("2038-01-19T04:14:07Z"), 2147483647);
    EXPECT_EQ(parse_datetime("2038-01-19T04:14:08Z"), wide ? 2147483648 : -1);
    unsetenv("TZ");
    tzset();

    if (wide) {  // a year of five digits
        EXPECT_EQ(print_datetime(static_cast<time_t>(400000000000)), std::nullopt);
    }
    for (const char *text : {"", "2024-05-01", "2024-05-01 13:07:42", "2024-13-01T13:07:42Z"}) {
        EXPECT_FALSE(is_datetime(text)) << text;
        EXPECT_EQ(parse_datetime(text), std::nullopt) << text;
    }
}

}  // namespace
