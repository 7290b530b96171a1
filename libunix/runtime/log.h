// The process's one diagnostic log.
//
// Where it goes is chosen once, by the setting BBSLOG; without that setting there is no log and
// every writer does nothing. Each item reaches the file with the call that wrote it, so the log is
// current when the process dies. Nothing is ever reported: a log that cannot be opened is no log.
#pragma once

namespace plex {

// Chooses and opens the log. `filnam` (a path) is the file that BBSLOG=file means. BBSLOG may also
// be "null", "stdout" (which is unbuffered from then on), "stderr" (in any letter case) or the path
// of another file. A file is created or emptied. A log opened earlier is left to its owner; call
// this once.
void bgnlog(const char *filnam);

// Whether there is a log, for a caller whose items are dear to make.
bool logging();

// Writes one item, formatted as printf does. Adds nothing: the format carries its own newline.
// May be called from a signal handler that interrupts another call (items of up to 2047 bytes).
void inform(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Writes a dump of the `len` bytes at `buf`, headed by `str`: sixteen bytes a line in hexadecimal
// and as characters. A length of 0 (or less) still writes the header and one line of fillers.
void infbyt(const char *str, const void *buf, int len);

} // namespace plex
