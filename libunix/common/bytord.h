// Byte order. Stored integers are little-endian whatever the processor; these name the conversion
// wherever one is read or written: n is the native order, l the stored one, us and ss are 16 bits,
// ul and sl 32, a leading p gives a pointer to a stored copy. Stored integers need no alignment.
#pragma once

#include <cstdint>

namespace plex {

// Reverse two bytes, or four, in place; return `p`.
void *rev2byt(void *p);
void *rev4byt(void *p);

// The value in stored order.
uint16_t nus2l(uint16_t bigs);
int16_t nss2l(int16_t bigs);
uint32_t nul2l(uint32_t bigl);
int32_t nsl2l(int32_t bigl);

// The value of the stored bytes at `p`.
uint16_t lus2n(const void *p);
int16_t lss2n(const void *p);
uint32_t lul2n(const void *p);
int32_t lsl2n(const void *p);

// A static copy in stored order, ready to be written; each has its own, which its next call
// overwrites.
uint16_t *pnus2l(uint16_t bigs);
int16_t *pnss2l(int16_t bigs);
uint32_t *pnul2l(uint32_t bigl);

// Stores its copy like the others, but returns the word itself instead of its address. This is
// deliberate.
int32_t pnsl2l(int32_t bigl);

} // namespace plex
