// inform is called from signal handlers too, which may interrupt another call of it, or the C
// library's streams and memory at work. So it touches neither: an item is formatted on the stack
// and goes out with one system call.

#include "libunix/runtime/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace plex {
namespace {

FILE *fp; // null: no log

constexpr int linebytes = 16;

// Longer than anything that a handler says; only text beyond it takes memory.
constexpr size_t itemsize = 2048;

// Errors are ignored: a full disk or a reader that is gone is no reason to stop.
void writeall(const char *text, size_t len) {
    while (len > 0) {
        const auto n = TEMP_FAILURE_RETRY(write(fileno(fp), text, len));
        if (n <= 0) {
            break;
        }
        text += n;
        len -= static_cast<size_t>(n);
    }
}

// A dump line behind its address: three columns for each byte, " : ", one for each, the terminator.
constexpr size_t dumpline = 4 * linebytes + 4;

} // namespace

void logto(FILE *stream) {
    fp = stream;
}

bool logging() {
    return fp != nullptr;
}

void inform(const char *fmt, ...) {
    if (fp == nullptr) {
        return;
    }
    const int saved = errno; // handlers report errno after logging
    char item[itemsize];
    va_list args;
    va_list again;
    va_start(args, fmt);
    va_copy(again, args);
    const int len = vsnprintf(item, sizeof item, fmt, args);
    if (len >= static_cast<int>(sizeof item)) {
        const size_t size = static_cast<size_t>(len) + 1;
        auto *longer = static_cast<char *>(malloc(size));
        if (longer != nullptr) {
            writeall(longer, static_cast<size_t>(vsnprintf(longer, size, fmt, again)));
            free(longer);
        }
    } else if (len > 0) {
        writeall(item, static_cast<size_t>(len));
    }
    va_end(again);
    va_end(args);
    errno = saved;
}

void infbyt(const char *str, const void *buf, int len) {
    if (fp == nullptr) {
        return;
    }
    inform("%s (%d bytes at %p):\n", str, len, buf);
    const auto *at = static_cast<const unsigned char *>(buf);
    int left = std::max(len, 0);
    do {
        const int nnow = std::min(left, linebytes);
        char line[dumpline];
        size_t n = 0;
        for (int i = 0; i < linebytes; i++) {
            n += static_cast<size_t>(i < nnow ? snprintf(line + n, sizeof line - n, "%02X ", at[i])
                                              : snprintf(line + n, sizeof line - n, "   "));
        }
        n += static_cast<size_t>(snprintf(line + n, sizeof line - n, " : "));
        for (int i = 0; i < linebytes; i++) {
            // The asterisk fills the character column of a short line: no byte looks like it in
            // the hexadecimal column, so a reader sees where the data ends.
            line[n++] = i >= nnow ? '*' : isprint(at[i]) != 0 ? static_cast<char>(at[i]) : '.';
        }
        line[n] = '\0';
        inform("%p : %s\n", static_cast<const void *>(at), line);
        at += nnow;
        left -= nnow;
    } while (left > 0);
}

} // namespace plex
