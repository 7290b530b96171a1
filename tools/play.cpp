#include "tools/play.h"

#include "libsrc/plex.h"

#include <cerrno>
#include <cstdio>

namespace plex {
namespace {

constexpr size_t piecesize = 16384; // what one print call takes, with its terminator
constexpr char ctrlz = 0x1A;

} // namespace

bool playtext(const char *text, size_t len) {
    static char piece[piecesize];
    size_t n = 0;
    bool more = true;
    for (size_t i = 0; i < len && more; i++) {
        more = text[i] != ctrlz;
        if (more && text[i] != '\0') {
            piece[n++] = text[i];
        }
        if (n == piecesize - 1 || !more || i + 1 == len) {
            piece[n] = '\0';
            unxprntf("%s", piece);
            n = 0;
        }
    }
    return more;
}

bool playfile(const char *path) {
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    static char part[piecesize - 1];
    size_t n = 0;
    do {
        n = fread(part, 1, sizeof part, file);
    } while (n > 0 && playtext(part, n));
    const bool failed = ferror(file) != 0;
    const int cause = errno;
    fclose(file);
    errno = cause;
    return !failed;
}

} // namespace plex
