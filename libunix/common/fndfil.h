// Finding the files of a directory by wildcard, one at a time, in a search record of the caller's.
// Nothing is open between calls: a search may be abandoned at any time, and any number may be in
// progress at once.
#pragma once

#include <cstdint>
#include <dirent.h>

namespace plex {

constexpr uint8_t DIRATTR = 16; // the attribute of a directory

struct fndblk {
    char junk[21];     // reserved
    uint8_t attr;      // what was found: 0 a file, DIRATTR a directory
    uint16_t time;     // when it was last modified, local time, packed (libsrc/base/dates.h)
    uint16_t date;     //
    int size;          // its size in bytes, the largest int when that is larger
    char filspc[256];  // the pattern
    char dirnam[1024]; // the directory searched
    char name[256];    // the name of what was found, without the directory
    uint8_t rattr; // what is wanted: DIRATTR for files and directories, any other value for files
    DIR *dirp;     // the directory, open inside a call only
    int64_t pos;   // where in it the next call goes on
};

// Starts a search for `spec`, a path whose last component may hold "*" and "?" (letter case counts;
// without a "/" the working directory is searched). One trailing "/" is ignored. 1 with the record
// filled for the first entry that matches; 0 when there is none, the directory cannot be read, or
// `spec` is longer than the record's fields. "." and ".." are never found. A symbolic link counts
// as what it points to; whatever is neither a directory nor a regular file counts as a file.
int fnd1st(fndblk *fbptr, const char *spec, int attr);

// The same for the next entry. What happens to entries that came or went since the last call is the
// platform's; the entry found last does not come back.
int fndnxt(fndblk *fbptr);

// Another name for fnd1st.
int fndfil(fndblk *fbptr, const char *spec, int attr);

// Ends a search. There is nothing to release; 1.
int fndfre(fndblk *fbptr);

// 1 when `dir`/`name` is a regular file (or a symbolic link to one), else 0.
int isfile(const char *dir, const char *name);

// Fills the record's attr, time, date, size and name for the entry `filnam` of its directory: 0, or
// -1 when the entry is gone, is a directory that was not asked for, or has too long a name.
int filstr(const char *filnam, fndblk *fbptr);

} // namespace plex
