// Comparisons that fold letter case, case conversion in place, and the names of a few byte
// operations that programs of the system expect. Bytes are taken as unsigned.
//
// strcasecmp and strncasecmp are not the C library's: the first gives no ordering.
#pragma once

#include <array>
#include <cstddef>

namespace plex {

// The folding table of strncasecmp: the identity, but "A" to "Z" give "a" to "z".
extern const std::array<unsigned char, 256> charmap;

// The difference of the first pair of bytes that differ after upper-casing, else 0: over `n` bytes,
// and over terminated strings.
int memicmp(const void *s1, const void *s2, size_t n);
int stricmp(const char *s1, const char *s2);

// Another name for stricmp.
int strcmpi(const char *s1, const char *s2);

// 0 when the strings are equal ignoring case. Else by their first characters that differ so, `a`
// and `b`, the first rule that fits: 1 when one of the two is "_" and the other a letter or digit;
// 1 when `a` is lower-case and `b` upper-case; otherwise toupper(a) - toupper(b). No ordering: for
// some pairs the result is positive both ways.
int gstricmp(const char *s1, const char *s2);

// 0 when the strings are equal ignoring case, else 1. Deliberately no ordering.
int strcasecmp(const char *s1, const char *s2);

// Compares at most `n` bytes through charmap, stopping at the terminator: the difference, or 0.
int strncasecmp(const char *s1, const char *s2, size_t n);

// Change only "A" to "Z" (or "a" to "z"), in place; return `str`.
char *strlwr(char *str);
char *strupr(char *str);

// Copies `len` bytes from `src` to `dst` (the source comes first); the two may overlap.
void scn2mem(const void *src, void *dst, size_t len);

// Switch a monochrome adapter's palette; there is none on this platform, and they do nothing.
void monorcol();
void imonorcol();

} // namespace plex
