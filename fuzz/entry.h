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

inline const char *leftover = ""; // the file that an entry leaves in its home

// Enters a directory of its own, in memory, which goes when the process ends.
inline void home() {
    static char dir[] = "/dev/shm/plexfuzz.XXXXXX";
    require(mkdtemp(dir) != nullptr && chdir(dir) == 0);
    atexit([] {
        unlink(leftover);
        rmdir(dir);
    });
}

} // namespace fuzz
