#include "libunix/screen/print.h"

#include "libunix/screen/ansi.h"
#include "libunix/screen/display.h"
#include "libunix/screen/screen.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace plex {
namespace {

char prtbuf[16384];
int32_t pxoff;
int32_t pyoff;

int format(const char *fmt, va_list args) {
    prtbuf[0] = '\0'; // what a failed formatting leaves
    return vsnprintf(prtbuf, sizeof prtbuf, fmt, args);
}

void show() {
    bgnout();
    outbuf(reinterpret_cast<const unsigned char *>(prtbuf), strnlen(prtbuf, sizeof prtbuf));
    wrcurp(dx);
    if (showsatonce()) {
        updtrm(0);
    }
}

uint16_t showtwice(int column, int row, const char *fmt, va_list args) {
    locate(column, row);
    format(fmt, args);
    const int count = fmtagain(prtbuf);
    show();
    return static_cast<uint16_t>(count);
}

// Unsigned, so that hostile coordinates wrap instead of overflowing.
int add(int32_t a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

} // namespace

uint16_t unxprntf(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int count = format(fmt, args);
    va_end(args);
    show();
    return static_cast<uint16_t>(count);
}

int printfat(uint16_t column, uint16_t row, const char *fmt, ...) {
    locate(column, row);
    va_list args;
    va_start(args, fmt);
    const int count = format(fmt, args);
    va_end(args);
    show();
    return count;
}

uint16_t pat(int column, int row, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const uint16_t count = showtwice(column, row, fmt, args);
    va_end(args);
    return count;
}

uint16_t prat(int column, int row, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const uint16_t count = showtwice(add(pxoff, column), add(pyoff, row), fmt, args);
    va_end(args);
    return count;
}

void proff(int32_t column, int32_t row) {
    pxoff = column;
    pyoff = row;
}

int fmtagain(char *text) {
    char *to = text;
    for (const char *from = text; *from != '\0'; from++) {
        *to++ = *from;
        if (from[0] == '%' && from[1] == '%') {
            from++;
        }
    }
    *to = '\0';
    return static_cast<int>(to - text);
}

int auxcrt() {
    return 0;
}

} // namespace plex
