#include "libunix/common/tmpfil.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

int pid;
uint16_t counter;

} // namespace

char *tmpfil(const char *dir, const char *ext, char *buf) {
    if (counter == 0) {
        pid = getpid();
        // Names do not draw on it; callers do.
        srand(static_cast<unsigned>(time(nullptr)));
    }
    for (int tries = 0; tries < 256; tries++) {
        counter++;
        // The id is signed on purpose: one of 0x8000 or more prints as eight digits.
        sprintf(buf, "%s/%04X%04X.%s", dir, counter,
                static_cast<unsigned>(static_cast<int16_t>(pid)), ext);
        struct stat st = {};
        if (lstat(buf, &st) != 0) {
            return buf;
        }
    }
    return nullptr;
}

} // namespace plex
