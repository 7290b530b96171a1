#include "libsrc/common/memory.h"

#include "libsrc/base/fatal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace plex {

void *alcmem(unsigned size) {
    void *block = malloc(size != 0 ? size : 1); // a null for 0 bytes is no exhausted memory
    if (block == nullptr) {
        memcata();
    }
    return block;
}

void *alczer(unsigned nbytes) {
    return memset(alcmem(nbytes), 0, nbytes);
}

char *alcdup(const char *stg) {
    const size_t size = strlen(stg) + 1;
    if (size > static_cast<unsigned>(-1)) {
        memcata();
    }
    return static_cast<char *>(memcpy(alcmem(static_cast<unsigned>(size)), stg, size));
}

void *alcrsz(void *mptr, unsigned oldsize, unsigned newsize) {
    void *block = alcmem(newsize);
    const unsigned keep = std::min(oldsize, newsize);
    if (mptr != nullptr && keep != 0) {
        memcpy(block, mptr, keep);
        free(mptr);
    }
    return block;
}

} // namespace plex
