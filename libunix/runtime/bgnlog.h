// Where the log goes. A module apart from the log: it asks the settings, which write to the log.
#pragma once

namespace plex {

// Chooses and opens the log by the setting BBSLOG; without that setting there is none. `filnam` (a
// path) is the file that BBSLOG=file means. BBSLOG may also be "null", "stdout" (which is
// unbuffered from then on), "stderr" (in any letter case) or the path of another file, which is
// created or emptied. A log opened earlier is left to its owner; call this once. Nothing is
// reported: a log that cannot be opened is no log.
void bgnlog(const char *filnam);

} // namespace plex
