// Points of time as text.
#include "utc_time.h"

#include <gtest/gtest.h>

namespace
{

TEST(UtcTime, OfNanosecondsIsToldToTheMicrosecond)
{
    EXPECT_EQ(utc_microseconds(0), "1970-01-01T00:00:00.000000Z");
    EXPECT_EQ(utc_microseconds(1999), "1970-01-01T00:00:00.000001Z");
    EXPECT_EQ(utc_microseconds(1'999'999'999), "1970-01-01T00:00:01.999999Z");
    EXPECT_EQ(utc_microseconds(2'147'483'648'000'000'000ULL), "2038-01-19T03:14:08.000000Z");
}

TEST(UtcTime, OfNowHasOneFormOfEachLength)
{
    const std::string before = utc_now_microseconds();
    const std::string now = utc_now();
    const std::string after = utc_now_microseconds();
    ASSERT_EQ(now.size(), 20u);
    ASSERT_EQ(before.size(), 27u);
    EXPECT_EQ(now.back(), 'Z');
    EXPECT_LE(before.substr(0, 19), now.substr(0, 19));
    EXPECT_LE(now.substr(0, 19), after.substr(0, 19));
    EXPECT_LE(before, after);
}

} // namespace

TEST(UtcTime, IsReadBack)
{
    EXPECT_EQ(utc_parse_seconds("1970-01-01T00:00:10Z"), 10);
    EXPECT_EQ(utc_parse_seconds(utc_seconds(1'900'000'000)), 1'900'000'000);
    EXPECT_EQ(utc_parse_seconds("2026-01-31T23:59:59.123Z"), utc_parse_seconds("2026-01-31T23:59:59Z"));
    for (const char *text : {"", "2026", "2026-01-31", "2026-01-31T23:59:59", "2026-13-31T23:59:59Z", "x"})
        EXPECT_FALSE(utc_parse_seconds(text)) << text;
}
