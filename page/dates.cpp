// SPDX-License-Identifier: MIT
#include <corvel_page.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "support/text.h"

using namespace corvel;

namespace corvel {
namespace {

constexpr char month_names[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr char day_names[] = "SunMonTueWedThuFriSat";
constexpr long long seconds_per_day = 86400;

/// The numbers of a date, each of two digits, and the month from 0.
enum Part { day, hour, minute, second, year, century, month, part_count };

constexpr int no_century = -1;

/// One of the names in a string of names of three letters, and all that follow it.
const char *name_at(const char *names, int index) {
    return names + 3 * static_cast<std::size_t>(index);
}

/// The index of the name that a string starts with in a string of names of three letters; -1 if it
/// starts with none.
int name_index(const char *names, const char *text) {
    for (int index = 0; *names != '\0'; ++index, names += 3)
        if (std::strncmp(names, text, 3) == 0)
            return index;
    return -1;
}

/// Reads the parts of a date. A digit of the pattern matches the two digits of the part of that
/// number, `_` a day with a space instead of a leading zero, `w` and `m` the name of a
/// weekday and of a month, and `*` the letters of a weekday's long name after its first three.
bool read(const char *text, const char *pattern, int (&parts)[part_count]) {
    parts[century] = no_century;
    for (; *pattern != '\0'; ++pattern) {
        if (*pattern == 'w' || *pattern == 'm') {
            parts[month] = name_index(*pattern == 'w' ? day_names : month_names, text);
            if (parts[month] < 0)
                return false;
            text += 3;
        } else if (*pattern == '*') {
            while (*text >= 'a' && *text <= 'z')
                ++text;
        } else if (*pattern == '_' || is_digit(*pattern)) {
            const char tens = *pattern == '_' && *text == ' ' ? '0' : *text;
            if (!is_digit(tens) || !is_digit(text[1]))
                return false;
            parts[*pattern == '_' ? day : *pattern - '0'] = 10 * (tens - '0') + text[1] - '0';
            text += 2;
        } else if (*text++ != *pattern) {
            return false;
        }
    }
    return *text == '\0';
}

/// The year of a date since 1900. A year of two digits that is more than 50 years ahead is in the
/// past.
int year_of(const int (&parts)[part_count]) {
    if (parts[century] != no_century)
        return 100 * parts[century] + parts[year] - 1900;
    const time_t now = time(nullptr);
    tm today{};
    gmtime_r(&now, &today);
    const int result = today.tm_year - today.tm_year % 100 + parts[year];
    return result > today.tm_year + 50 ? result - 100 : result;
}

} // namespace
} // namespace corvel

char *corvel_http_date(time_t time, char text[CORVEL_HTTP_DATE_SIZE]) {
    tm utc{};
    // HTTP has no years of five digits.
    constexpr time_t last_second = 253402300799;
    if (time < 0)
        time = 0;
    else if (time > last_second)
        time = last_second;
    gmtime_r(&time, &utc);
    // Not strftime(), which depends on the locale. Only values that fit are printed; the compiler
    // cannot know that.
    char formatted[96];
    std::snprintf(formatted, sizeof formatted, "%.3s, %02d %.3s %04d %02d:%02d:%02d GMT",
                  name_at(day_names, utc.tm_wday), utc.tm_mday, name_at(month_names, utc.tm_mon),
                  utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
    store({text, CORVEL_HTTP_DATE_SIZE}, formatted);
    return text;
}

bool corvel_parse_http_date(const char *text, time_t *time) {
    int parts[part_count];
    text = text_or_empty(text);
    if (!read(text, "w, 0 m 54 1:2:3 GMT", parts) && !read(text, "w*, 0-m-4 1:2:3 GMT", parts) &&
        !read(text, "w m _ 1:2:3 54", parts))
        return false;
    tm date{};
    date.tm_year = year_of(parts);
    date.tm_mon = parts[month];
    date.tm_mday = parts[day];
    date.tm_hour = parts[hour];
    date.tm_min = parts[minute];
    if (date.tm_year < 1601 - 1900 || date.tm_hour > 23 || date.tm_min > 59 || parts[second] > 60)
        return false;
    const time_t start = timegm(&date);
    // timegm() turns a day that does not exist into one of another month.
    if (date.tm_mday != parts[day])
        return false;
    *time = start + parts[second];
    return true;
}

char *corvel_duration_text(long long seconds, char text[CORVEL_TIME_TEXT_SIZE]) {
    if (seconds < 0)
        seconds = 0;
    // The operators would link 4 KiB of the compiler's own division on a 32-bit processor.
    const lldiv_t days = lldiv(seconds, seconds_per_day);
    const int clock = static_cast<int>(days.rem);
    // A precision of 0 prints nothing for 0 days.
    std::snprintf(text, CORVEL_TIME_TEXT_SIZE,
                  days.quot > 0 ? "%lld d %02d:%02d:%02d" : "%.0lld%02d:%02d:%02d", days.quot,
                  clock / 3600, clock / 60 % 60, clock % 60);
    return text;
}

char *corvel_date_text(time_t time, char text[CORVEL_TIME_TEXT_SIZE]) {
    tm local{};
    if (localtime_r(&time, &local) == nullptr ||
        strftime(text, CORVEL_TIME_TEXT_SIZE, "%Y-%m-%d %H:%M:%S", &local) == 0)
        text[0] = '\0';
    return text;
}
