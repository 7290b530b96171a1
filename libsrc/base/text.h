// Strings: comparison without regard to letter case, bounded copies, trimming, searching, parts of
// file names, strings stored in files. Bytes are taken as unsigned.
#pragma once

#include <cstdio>

namespace plex {

// 1 when the strings are equal ignoring letter case, else 0.
int sameas(const char *stg1, const char *stg2);

// 1 when `shorts` is the beginning of `longs` ignoring letter case (an empty one always is), else
// 0.
int sameto(const char *shorts, const char *longs);

// Copies at most `num` - 1 bytes of `src` and fills `dst` with zero bytes up to `num` bytes in all,
// so the result is always terminated. With `num` 0 nothing is written. Returns `dst`.
char *stzcpy(char *dst, const char *src, unsigned num);

// Appends `src` to `dst` in the same way; `num` is the size of the whole destination. A `dst` that
// is full already is left as it is. Returns `dst`.
char *stzcat(char *dst, const char *src, unsigned num);

// The length without the trailing run of white space and Ctrl-Z bytes.
int strpln(const char *string);

// Cuts the string there; returns how many bytes went.
int depad(char *string);

// The first byte that is not a space (tabs are not skipped).
const char *skpwht(const char *cp);
char *skpwht(char *cp);

// Finds the pattern `stg` in `body` ignoring letter case; a "-" in the pattern stands for a run of
// one or more bytes that are neither letters nor digits. Returns the offset just past the first
// match, or 0 when there is none (or the pattern is empty).
int findstg(const char *stg, const char *body);

// The file-name part of a path: behind the last "/" or "\", else behind the last ":".
const char *fnwext(const char *fulpth);
char *fnwext(char *fulpth);

// Reads a zero-terminated string of at most `n` - 1 bytes into `stg` (`n` bytes): 1 when all of it
// was read, 0 when it was cut by the end of the file or by the size; the byte that would have
// filled the last place is consumed and lost. Nothing is written with `n` below 1.
int fgetstg(char *stg, int n, FILE *stream);

} // namespace plex
