#include "libunix/common/tiles.h"

#include "libsrc/base/fatal.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace plex {

void *alctile(unsigned qty, unsigned size) {
    // A multiple of four grows by four as well: a stride is always larger than its tile.
    const uint64_t stride = uint64_t{size} + 4 - (size & 3);
    const uint64_t bytes = stride * qty + sizeof(uint32_t);
    char *block = nullptr;
    if (stride <= UINT32_MAX && bytes <= PTRDIFF_MAX) {
        block = static_cast<char *>(malloc(static_cast<size_t>(bytes)));
    }
    if (block == nullptr) {
        catastro("NOT ENOUGH MEMORY");
    }
    const auto word = static_cast<uint32_t>(stride);
    memcpy(block, &word, sizeof word);
    return block + sizeof word;
}

void *ptrtile(void *bigptr, unsigned index) {
    auto *first = static_cast<char *>(bigptr);
    uint32_t stride = 0;
    memcpy(&stride, first - sizeof stride, sizeof stride);
    return first + static_cast<size_t>(stride) * index;
}

} // namespace plex
