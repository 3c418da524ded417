// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

constexpr char month_names[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr char day_names[] = "SunMonTueWedThuFriSat";
constexpr long long seconds_per_day = 86400;

/// A date and time of day in UTC, as read from a string.
struct Date {
    int year = 0;
    int month = 0; ///< From 1.
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

bool is_leap_year(int year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

int days_in_month(int year, int month) {
    constexpr signed char days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap_year(year) ? 29 : days[month - 1];
}

/// The days from 1970-01-01 to a day of the years 1601 to 9999. timegm() is not used: it accepts
/// days that do not exist.
long long days_since_1970(const Date &date) {
    const int years = date.year - 1;
    long long days = 365LL * years + years / 4 - years / 100 + years / 400;
    for (int month = 1; month < date.month; ++month)
        days += days_in_month(date.year, month);
    constexpr long long days_before_1970 = 719162;
    return days + date.day - 1 - days_before_1970;
}

bool is_valid(const Date &date) {
    return date.year >= 1601 && date.month >= 1 && date.day >= 1 &&
           date.day <= days_in_month(date.year, date.month) && date.hour <= 23 &&
           date.minute <= 59 && date.second <= 60;
}

/// One of the names in a string of names of three letters, and all that follow it.
const char *name_at(const char *names, int index) {
    return names + 3 * static_cast<std::size_t>(index);
}

/// Reads a string from its start to its end; each function is false where something else follows.
class DateReader {
  public:
    explicit DateReader(std::string_view text) : rest_(text) {}

    bool literal(std::string_view expected) {
        const bool follows = front(rest_, expected.size()) == expected;
        if (follows)
            rest_ = after(rest_, expected.size());
        return follows;
    }
    bool number(std::size_t digits, int &value) {
        if (rest_.size() < digits)
            return false;
        value = 0;
        for (const char digit : front(rest_, digits)) {
            if (!is_digit(digit))
                return false;
            value = 10 * value + (digit - '0');
        }
        rest_ = after(rest_, digits);
        return true;
    }
    /// Reads one of the names in a string of names of three letters; @p index counts from 0.
    bool name(std::string_view names, int &index) {
        index = 0;
        for (; !names.empty(); names = after(names, 3), ++index) {
            if (literal(front(names, 3)))
                return true;
        }
        return false;
    }
    bool month(int &value) {
        const bool follows = name(month_names, value);
        ++value;
        return follows;
    }
    bool clock(Date &date) {
        return number(2, date.hour) && literal(":") && number(2, date.minute) && literal(":") &&
               number(2, date.second);
    }
    /// Skips the letters of a weekday's long name after its first three.
    void skip_letters() {
        while (!rest_.empty() && rest_.front() >= 'a' && rest_.front() <= 'z')
            rest_ = after(rest_, 1);
    }
    [[nodiscard]] bool at_end() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

/// "Sun, 06 Nov 1994 08:49:37 GMT"
bool read_fixed(std::string_view text, Date &date) {
    DateReader reader(text);
    int weekday = 0;
    return reader.name(day_names, weekday) && reader.literal(", ") && reader.number(2, date.day) &&
           reader.literal(" ") && reader.month(date.month) && reader.literal(" ") &&
           reader.number(4, date.year) && reader.literal(" ") && reader.clock(date) &&
           reader.literal(" GMT") && reader.at_end();
}

/// "Sunday, 06-Nov-94 08:49:37 GMT". A year of two digits that is more than 50 years ahead is in
/// the past.
bool read_two_digit_year(std::string_view text, Date &date) {
    DateReader reader(text);
    int weekday = 0;
    if (!reader.name(day_names, weekday))
        return false;
    reader.skip_letters();
    if (!(reader.literal(", ") && reader.number(2, date.day) && reader.literal("-") &&
          reader.month(date.month) && reader.literal("-") && reader.number(2, date.year) &&
          reader.literal(" ") && reader.clock(date) && reader.literal(" GMT") && reader.at_end()))
        return false;
    const time_t now = time(nullptr);
    tm today{};
    gmtime_r(&now, &today);
    const int this_year = today.tm_year + 1900;
    date.year += this_year - this_year % 100;
    if (date.year > this_year + 50)
        date.year -= 100;
    return true;
}

/// "Sun Nov  6 08:49:37 1994"
bool read_asctime(std::string_view text, Date &date) {
    DateReader reader(text);
    int weekday = 0;
    return reader.name(day_names, weekday) && reader.literal(" ") && reader.month(date.month) &&
           reader.literal(" ") &&
           (reader.literal(" ") ? reader.number(1, date.day) : reader.number(2, date.day)) &&
           reader.literal(" ") && reader.clock(date) && reader.literal(" ") &&
           reader.number(4, date.year) && reader.at_end();
}

} // namespace
} // namespace corvel

char *corvel_http_date(time_t time, char text[CORVEL_HTTP_DATE_SIZE]) {
    tm utc{};
    // Independent of the locale, which strftime() is not. HTTP has no years of five digits.
    constexpr time_t last_second = 253402300799;
    if (time < 0)
        time = 0;
    else if (time > last_second)
        time = last_second;
    gmtime_r(&time, &utc);
    // Only values that fit are printed; the compiler cannot know that.
    char formatted[96];
    std::snprintf(formatted, sizeof formatted, "%.3s, %02d %.3s %04d %02d:%02d:%02d GMT",
                  name_at(day_names, utc.tm_wday), utc.tm_mday, name_at(month_names, utc.tm_mon),
                  utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
    store({text, CORVEL_HTTP_DATE_SIZE}, formatted);
    return text;
}

bool corvel_parse_http_date(const char *text, time_t *time) {
    const std::string_view given = text_of(text);
    Date date;
    if (!read_fixed(given, date) && !read_two_digit_year(given, date) && !read_asctime(given, date))
        return false;
    if (!is_valid(date))
        return false;
    *time = static_cast<time_t>(days_since_1970(date) * seconds_per_day + 3600LL * date.hour +
                                60LL * date.minute + date.second);
    return true;
}

char *corvel_duration_text(long long seconds, char text[CORVEL_TIME_TEXT_SIZE]) {
    if (seconds < 0)
        seconds = 0;
    // The operators would link 4 KiB of the compiler's own division on a 32-bit processor.
    const lldiv_t days = lldiv(seconds, seconds_per_day);
    const int clock = static_cast<int>(days.rem);
    int used = 0;
    if (days.quot > 0)
        used = std::snprintf(text, CORVEL_TIME_TEXT_SIZE, "%lld d ", days.quot);
    std::snprintf(text + used, CORVEL_TIME_TEXT_SIZE - static_cast<std::size_t>(used),
                  "%02d:%02d:%02d", clock / 3600, clock / 60 % 60, clock % 60);
    return text;
}

char *corvel_date_text(time_t time, char text[CORVEL_TIME_TEXT_SIZE]) {
    tm local{};
    if (localtime_r(&time, &local) == nullptr ||
        strftime(text, CORVEL_TIME_TEXT_SIZE, "%Y-%m-%d %H:%M:%S", &local) == 0)
        text[0] = '\0';
    return text;
}
