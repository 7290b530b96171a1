// What the entries share.
#pragma once

#include <cstdlib>
#include <unistd.h>

namespace fuzz {

inline void require(bool holds) {
    if (!holds) {
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
