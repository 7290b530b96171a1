#include "libunix/runtime/bgnlog.h"

#include "libsrc/base/compare.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/log.h"

#include <cstdio>

namespace plex {

void bgnlog(const char *filnam) {
    const char *target = getoption("BBSLOG");
    if (target == nullptr) {
        target = "null";
    } else if (stricmp(target, "file") == 0) {
        target = filnam;
    }
    if (stricmp(target, "null") == 0) {
        logto(nullptr);
    } else if (stricmp(target, "stdout") == 0) {
        // The program's own output goes the same way, and items bypass the stream: unbuffered, both
        // come in the order in which they were said.
        fflush(stdout);
        setvbuf(stdout, nullptr, _IONBF, 0);
        logto(stdout);
    } else if (stricmp(target, "stderr") == 0) {
        logto(stderr);
    } else {
        logto(fopen(target, "w+e"));
    }
}

} // namespace plex
