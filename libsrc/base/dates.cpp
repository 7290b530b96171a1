// The words hold more than dates do: a month of 15, an hour of 31, a day of 0. Whatever a word's
// fields say is shown as it stands, and the buffers hold it.

#include "libsrc/base/dates.h"

#include "libsrc/base/compare.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace plex {

const char moname[16][4] = {"000", "JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL",
                            "AUG", "SEP", "OCT", "NOV", "DEC", "XXX", "XXX", "XXX"};

const std::array<int, 12> daymon = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

namespace {

constexpr int epoch = 1980;

int yearof(uint16_t date) {
    return date >> 9; // counted from the epoch
}

int monthof(uint16_t date) {
    return date >> 5 & 15;
}

int dayof(uint16_t date) {
    return date & 31;
}

int twodigits(uint16_t date) {
    return (yearof(date) + epoch) % 100;
}

int hourof(uint16_t time) {
    return time >> 11;
}

int minuteof(uint16_t time) {
    return time >> 5 & 63;
}

const tm *localnow() {
    const time_t seconds = time(nullptr);
    return localtime(&seconds); // follows a changed TZ, which localtime_r need not
}

// Typed numbers may be anything: sums wrap to the word instead of overflowing.
int word(int high, unsigned highunit, int mid, unsigned midunit, int low) {
    const unsigned sum = static_cast<unsigned>(high) * highunit +
                         static_cast<unsigned>(mid) * midunit + static_cast<unsigned>(low);
    return static_cast<int16_t>(sum);
}

bool leap(int year) {
    return year % 4 == 0;
}

} // namespace

uint16_t tmdate(const tm &when) {
    // Unsigned: a file's time may be set to years that no word and hardly an int holds.
    const auto year = static_cast<int>(static_cast<unsigned>(when.tm_year) - 80U);
    return static_cast<uint16_t>(word(year, 512, when.tm_mon + 1, 32, when.tm_mday));
}

uint16_t tmtime(const tm &when) {
    return static_cast<uint16_t>(word(when.tm_hour, 2048, when.tm_min, 32, when.tm_sec / 2));
}

uint16_t today() {
    return tmdate(*localnow());
}

int daytoday() {
    return localnow()->tm_wday;
}

uint16_t now() {
    return tmtime(*localnow());
}

char *ncdate(uint16_t date) {
    static char text[sizeof "MM/DD/YY"];
    text[0] = '\0';
    if (date != 0) {
        snprintf(text, sizeof text, "%02d/%02d/%02d", monthof(date), dayof(date), twodigits(date));
    }
    return text;
}

char *nctime(uint16_t time) {
    static char text[sizeof "HH:MM:SS"];
    snprintf(text, sizeof text, "%02d:%02d:%02d", hourof(time), minuteof(time), (time & 31) * 2);
    return text;
}

char *ncedat(uint16_t date) {
    static char text[sizeof "DD-MMM-YY"];
    snprintf(text, sizeof text, "%02d-%s-%02d", dayof(date), moname[monthof(date)],
             twodigits(date));
    return text;
}

char *ncudnt(uint16_t date, uint16_t time) {
    static char text[sizeof "Mmm DD  -2147483648"]; // for a compiler that knows nothing of years
    memcpy(text, moname[monthof(date)], sizeof moname[0]);
    strlwr(text + 1);
    snprintf(text + 3, sizeof text - 3, " %2d %02d:%02d", dayof(date), hourof(time),
             minuteof(time));
    if (yearof(date) != yearof(today())) {
        snprintf(text + 7, sizeof text - 7, " %d", yearof(date) + epoch);
    }
    return text;
}

int dcdate(const char *text) {
    int month = 0;
    int day = 0;
    int year = 0;
    if (sscanf(text, "%d/%d/%d", &month, &day, &year) != 3) {
        year = twodigits(today());
        if (sscanf(text, "%d/%d", &month, &day) != 2) {
            return -1;
        }
    }
    const int since = year < 80 ? 20 : -80; // years from the epoch to the century meant
    return word(static_cast<int>(static_cast<unsigned>(year) + static_cast<unsigned>(since)), 512,
                month, 32, day);
}

int dctime(const char *text) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (sscanf(text, "%d:%d:%d", &hour, &minute, &second) != 3) {
        if (sscanf(text, "%d:%d", &hour, &minute) != 2) {
            return -1;
        }
    }
    return word(hour, 2048, minute, 32, second / 2);
}

uint16_t cofdat(uint16_t date) {
    const int year = yearof(date);
    const int month = std::clamp(monthof(date), 1, 12);
    const int days = dayof(date) - 1 + 365 * year + (year + 3) / 4 +
                     daymon[static_cast<unsigned>(month - 1)] + (month > 2 && leap(year) ? 1 : 0);
    return static_cast<uint16_t>(days);
}

uint16_t datofc(uint16_t count) {
    int passed = 0;
    int year = 0;
    for (int length = 366; passed + length <= count; length = leap(year) ? 366 : 365) {
        passed += length;
        year++;
    }
    const int rest = count - passed;
    int month = 1;
    int before = 0;
    for (; month < 12; month++) {
        const int next = daymon[static_cast<unsigned>(month)] + (month > 1 && leap(year) ? 1 : 0);
        if (next > rest) {
            break;
        }
        before = next;
    }
    return static_cast<uint16_t>(word(year, 512, month, 32, rest - before + 1));
}

} // namespace plex
