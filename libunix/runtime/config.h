// Settings: environment variables first, then the lines NAME=value of one plain-text file,
// "/etc/plexhost.cfg" or the file that the environment variable BBSCONFIG names.
//
// A setting is a line that begins at its first character with the name (in any letter case) and
// "="; the value is the rest of the line. No comments, quotes, sections or trimming. The first
// match wins. The file is read anew by every look-up; one that cannot be read ends the program with
// "Unable to open plexhost.cfg!" on standard error and status 1.
#pragma once

namespace plex {

// The value of `option` (at most 64 characters) in the file, or null when there is none; a longer
// name is logged and counts as absent. The text belongs to this module and is overwritten by the
// next look-up.
const char *getcfg(const char *option);

// The value of `option` in the environment (an empty value counts), else in the file, else null.
const char *getoption(const char *option);

// Enters the directory that the file's HOME names; the environment's HOME is never asked. Does
// nothing when the file has none. A directory that cannot be entered ends the program, status 1.
void bbshome();

} // namespace plex
