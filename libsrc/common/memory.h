// Checked allocation: none of these returns null; exhausted memory ends the program through the
// out-of-memory catastrophe (memcata). Blocks are freed with free().
#pragma once

namespace plex {

// `size` bytes, not initialised.
void *alcmem(unsigned size);

// `nbytes` bytes of zero.
void *alczer(unsigned nbytes);

// A copy of the string `stg`.
char *alcdup(const char *stg);

// A block of `newsize` bytes that begins with what `mptr` (a block of `oldsize` bytes, or null)
// held; `mptr` is freed. When either size is 0 the old block is neither copied nor freed.
void *alcrsz(void *mptr, unsigned oldsize, unsigned newsize);

} // namespace plex
