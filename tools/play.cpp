// Text goes to the engine past the formatted printing, which brings an X window up to date with
// each call: more often than anybody sees, and the server would set the pace.

#include "tools/play.h"

#include "libsrc/plex.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace plex {
namespace {

constexpr size_t partsize = 16384;
constexpr int64_t frame = 20; // milliseconds
constexpr char ctrlz = 0x1A;

int64_t nextframe; // when the window is due

void follow() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t ms = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    if ((dsptyp & DSP_X11) != 0 && ms >= nextframe) {
        updtrm(0);
        nextframe = ms + frame;
    }
}

} // namespace

bool playtext(const char *text, size_t len) {
    const void *last = memchr(text, ctrlz, len);
    const char *end = last != nullptr ? static_cast<const char *>(last) : text + len;
    bgnout();
    while (text < end) {
        const size_t n = strnlen(text, static_cast<size_t>(end - text));
        outbuf(reinterpret_cast<const unsigned char *>(text), n);
        text += n + 1; // and the zero byte
    }
    wrcurp(dx);
    follow();
    return last == nullptr;
}

bool playfile(const char *path) {
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    static char part[partsize];
    size_t n = 0;
    do {
        n = fread(part, 1, sizeof part, file);
    } while (n > 0 && playtext(part, n));
    const bool failed = ferror(file) != 0;
    const int cause = errno;
    fclose(file);
    if ((dsptyp & DSP_X11) != 0) {
        updtrm(0);
    }
    errno = cause;
    return !failed;
}

} // namespace plex
