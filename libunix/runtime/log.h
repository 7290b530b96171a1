// The process's one diagnostic log.
//
// There is none until bgnlog has chosen one, and every writer does nothing then. Each item reaches
// the file with the call that wrote it, so the log is current when the process dies.
#pragma once

#include <cstdio>

namespace plex {

// Writes to `stream` from here on, which stays its owner's; null: there is no log, as at first.
void logto(FILE *stream);

// Whether there is a log, for a caller whose items are dear to make.
bool logging();

// Writes one item, formatted as printf does. Adds nothing: the format carries its own newline.
// May be called from a signal handler that interrupts another call (items of up to 2047 bytes).
void inform(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Writes a dump of the `len` bytes at `buf`, headed by `str`: sixteen bytes a line in hexadecimal
// and as characters. A length of 0 (or less) still writes the header and one line of fillers.
void infbyt(const char *str, const void *buf, int len);

} // namespace plex
