// What the entries share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace fuzz {

inline void require(bool holds, const char *what = "what must hold does not") {
    if (!holds) {
        fprintf(stderr, "%s\n", what);
        abort();
    }
}

// Enters a directory of its own, in memory, which goes when the process ends, with the file that an
// entry leaves in it.
inline void home(const char *leftover = "") {
    static char dir[] = "/dev/shm/plexfuzz.XXXXXX";
    static const char *const file = leftover;
    require(mkdtemp(dir) != nullptr && chdir(dir) == 0);
    atexit([] {
        unlink(file);
        rmdir(dir);
    });
}

} // namespace fuzz
