// Dates and times of day as packed 16-bit words, as PC file systems keep them.
//
// A date: the year less 1980 in bits 9 to 15, the month (from 1) in bits 5 to 8, the day of the
// month in bits 0 to 4; 0 is no date. A time: the hour in bits 11 to 15, the minute in bits 5 to
// 10, half the seconds in bits 0 to 4. A day count: days since 1 January 1980.
//
// Each conversion to text returns a static buffer of its own that its next call overwrites.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>

namespace plex {

// The names of the months by a date's month field: "000" for 0, "XXX" for 13 to 15.
extern const char moname[16][4];

// The days before the first of each month in a common year.
extern const std::array<int, 12> daymon;

// The words for a broken-down time.
uint16_t tmdate(const tm &when);
uint16_t tmtime(const tm &when);

// The present local date and time of day; the day of the week, 0 for Sunday.
uint16_t today();
int daytoday();
uint16_t now();

// "03/07/95" (month, day, year); the empty string for date 0.
char *ncdate(uint16_t date);

// "14:05:58"
char *nctime(uint16_t time);

// "07-MAR-95"
char *ncedat(uint16_t date);

// As in a directory listing: "Mar  7 14:05" in the present year, "Mar  7  1995" in any other.
char *ncudnt(uint16_t date, uint16_t time);

// The date typed as month/day/year, or month/day for this year, as a signed 16-bit value; -1 when
// it is none. The year has two digits (80 to 99 are of the 20th century). Nothing checks ranges:
// other numbers give a meaningless word.
int dcdate(const char *text);

// The time typed as hour:minute:second or hour:minute, in the same way.
int dctime(const char *text);

// A date's day count, exact from 1980 to 2099 (every fourth year counts as a leap year), and its
// inverse: cofdat(datofc(count)) is `count` for every day until the end of 2107. A month of 0
// counts as January and one above 12 as December; a count beyond the last year that a date holds
// gives a meaningless word.
uint16_t cofdat(uint16_t date);
uint16_t datofc(uint16_t count);

} // namespace plex
