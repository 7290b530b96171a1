// Reading text files line by line: all files that match a wildcard, one after the other, and
// settings of the form PREFIXvalue in their lines. One scan at a time; its state is global.
//
//   if (tfsopn("*.cfg") > 0) {
//       while (tfsrdl() != 0) {
//           if (tfstate == tfsline && tfspfx("NAME=")) { ... tfspst ... }
//       }
//   }
#pragma once

#include "libunix/common/fndfil.h"

#include <cstdio>

namespace plex {

// The values of tfstate.
constexpr int tfsidle = 0;  // nothing left to read, or no scan
constexpr int tfsfound = 1; // files found, none open
constexpr int tfsnext = 2;  // the next file is to be opened
constexpr int tfsline = 3;  // a line is in tfsbuf
constexpr int tfsended = 4; // a file has ended

extern int tfstate;
extern char tfsbuf[129];  // the line
extern char *tfspst;      // the value behind the prefix that was matched, in tfsbuf
extern char tfspth[1024]; // the path of the file being read
extern char *namptr;      // its file-name part, in tfspth
extern fndblk tfsfb;
extern FILE *tfsfp;

// Starts a scan of the files that match `fname`, a path whose last component may hold wildcards;
// one that was under way is abandoned. Returns how many there are, 0 for none. A path that leaves
// no room for a file name ends the program.
int tfsopn(const char *fname);

// Goes one step on and returns tfstate: a line is in tfsbuf exactly when that is tfsline, without
// the white space and Ctrl-Z bytes at its end; a line of more than 128 bytes comes in pieces, one a
// call. tfsidle when everything has been read. A file that cannot be opened ends the program.
int tfsrdl();

// 1 when the line starts with `prefix` (letter case ignored) and a value that is not empty follows,
// perhaps after spaces: it is at tfspst then. Else 0, and tfspst is null when the prefix is not
// there at all.
int tfspfx(const char *prefix);

// Drops the prefix that was matched: the line then is the value alone, to be matched again.
void tfsdpr();

// Abandons the scan.
void tfsabt();

} // namespace plex
