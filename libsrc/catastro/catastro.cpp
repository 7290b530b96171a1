#include "libsrc/catastro/catastro.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace plex {
namespace {

constexpr int catstatus = 90;

} // namespace

void catastro(const char *string, ...) {
    va_list args;
    va_start(args, string);
    vfprintf(stderr, string, args);
    va_end(args);
    fputc('\n', stderr);
    exit(catstatus);
}

void memcata() {
    fputs("There is not enough memory to continue.\n", stderr);
    exit(catstatus);
}

} // namespace plex
