// Playing text with ANSI sequences through the screen engine.
#pragma once

#include <cstddef>

namespace plex {

// Prints `len` bytes of a text in code page 437 in the current window; sequences count if
// interpretation is on (ansion). Zero bytes, which some files are padded with, are left out; a
// Ctrl-Z ends the text, as what follows it is a record about the file. An X window follows fifty
// times a second; behind the last text it is the caller's to bring up to date (updtrm). Returns
// whether the text may go on: no Ctrl-Z came.
bool playtext(const char *text, size_t len);

// Prints the file `path` and brings the console up to date. False, with errno, when it cannot be
// read.
bool playfile(const char *path);

} // namespace plex
