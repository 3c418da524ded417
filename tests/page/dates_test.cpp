// SPDX-License-Identifier: MIT
// Dates and durations of HTTP and of people.
#include <corvel_page.h>

#include <climits>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace {

std::string http_date(time_t time) {
    char text[CORVEL_HTTP_DATE_SIZE];
    return corvel_http_date(time, text);
}

/** The date's seconds since 1970; -1 if it is refused. */
time_t parsed(const char *text) {
    time_t time = -1;
    return corvel_parse_http_date(text, &time) ? time : -1;
}

std::string duration(long long seconds) {
    char text[CORVEL_TIME_TEXT_SIZE];
    return corvel_duration_text(seconds, text);
}

TEST(corvel_http_date, HasTheFixedForm) {
    EXPECT_EQ(http_date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(http_date(0), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(http_date(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
}

TEST(corvel_http_date, FillsItsBufferToTheLastByte) {
    EXPECT_EQ(http_date(784111777).size() + 1, std::size_t{CORVEL_HTTP_DATE_SIZE});
}

TEST(corvel_http_date, IsLimitedToTheYears1970To9999) {
    EXPECT_EQ(http_date(-1), http_date(0));
    EXPECT_EQ(http_date(253402300800), "Fri, 31 Dec 9999 23:59:59 GMT");
}

TEST(corvel_http_date, DoesNotDependOnTheTimeZone) {
    ASSERT_EQ(setenv("TZ", "XYZ-5:30", 1), 0);
    tzset();
    EXPECT_EQ(http_date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
    unsetenv("TZ");
    tzset();
}

TEST(corvel_parse_http_date, ReadsAllThreeForms) {
    EXPECT_EQ(parsed("Sun, 06 Nov 1994 08:49:37 GMT"), 784111777);
    EXPECT_EQ(parsed("Sunday, 06-Nov-94 08:49:37 GMT"), 784111777);
    EXPECT_EQ(parsed("Sun Nov  6 08:49:37 1994"), 784111777);
    EXPECT_EQ(parsed("Wed Nov 16 08:49:37 1994"), 784975777);
}

TEST(corvel_parse_http_date, PlacesAYearOfTwoDigitsMoreThan50YearsAheadInThePast) {
    const time_t now = time(nullptr);
    tm today{};
    gmtime_r(&now, &today);
    const int year = today.tm_year + 1900;
    for (const int ahead : {0, 50, 51}) {
        char text[64];
        std::snprintf(text, sizeof text, "Sunday, 01-Jan-%02d 00:00:00 GMT", (year + ahead) % 100);
        const time_t read = parsed(text);
        tm date{};
        gmtime_r(&read, &date);
        // A century's turn between the two years makes the first rule undecidable from two digits.
        const int expected = ahead > 50 ? year + ahead - 100 : year + ahead;
        if (expected / 100 == year / 100)
            EXPECT_EQ(date.tm_year + 1900, expected) << text;
        else
            EXPECT_LE(date.tm_year + 1900, year + 50) << text;
    }
}

TEST(corvel_parse_http_date, ReadsWhatCorvelHttpDateWrites) {
    std::mt19937 random(1);
    std::uniform_int_distribution<time_t> times(0, 253402300799);
    for (int i = 0; i < 10000; ++i) {
        const time_t time = times(random);
        ASSERT_EQ(parsed(http_date(time).c_str()), time);
    }
}

TEST(corvel_parse_http_date, RefusesWhatIsNotADate) {
    for (const char *text :
         {"", "Sun", "Sun, 06 Nov 1994 08:49:37", "Sun, 06 Nov 1994 08:49:37 CET",
          "Sun, 06 Nov 1994 08:49:37 GMT ", " Sun, 06 Nov 1994 08:49:37 GMT",
          "Sun, 6 Nov 1994 08:49:37 GMT", "Sun, 31 Nov 1994 08:49:37 GMT",
          "Sun, 00 Nov 1994 08:49:37 GMT", "Wed, 29 Feb 1900 00:00:00 GMT",
          "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:60:00 GMT",
          "Sun, 06 Nov 1994 08:49:61 GMT", "Sun, 06 nov 1994 08:49:37 GMT",
          "Mon, 01 Jan 1600 00:00:00 GMT", "Sun, -6 Nov 1994 08:49:37 GMT"})
        EXPECT_EQ(parsed(text), -1) << text;
    EXPECT_EQ(parsed(nullptr), -1);
}

TEST(corvel_parse_http_date, ReadsDatesBefore1970) {
    EXPECT_EQ(parsed("Wed, 31 Dec 1969 23:59:58 GMT"), -2);
    EXPECT_EQ(parsed("Mon, 01 Jan 1601 00:00:00 GMT"), -11644473600);
}

TEST(corvel_duration_text, ShowsDaysOnlyFromOneDayOn) {
    EXPECT_EQ(duration(0), "00:00:00");
    EXPECT_EQ(duration(86399), "23:59:59");
    EXPECT_EQ(duration(86400), "1 d 00:00:00");
    EXPECT_EQ(duration(3 * 86400 + 4 * 3600 + 5 * 60 + 6), "3 d 04:05:06");
}

TEST(corvel_duration_text, TakesANegativeDurationAsZero) { EXPECT_EQ(duration(-1), "00:00:00"); }

TEST(corvel_duration_text, HoldsTheLongestDuration) {
    EXPECT_EQ(duration(LLONG_MAX), "106751991167300 d 15:30:07");
}

TEST(corvel_date_text, IsInLocalTime) {
    ASSERT_EQ(setenv("TZ", "XYZ-5:30", 1), 0);
    tzset();
    char text[CORVEL_TIME_TEXT_SIZE];
    EXPECT_STREQ(corvel_date_text(784111777, text), "1994-11-06 14:19:37");
    unsetenv("TZ");
    tzset();
}

} // namespace
