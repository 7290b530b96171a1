// Names for temporary files.
#pragma once

namespace plex {

// Builds in `buf` the name "DIR/CCCCPPPP.EXT" of a file that does not exist yet, from a counter and
// the process id; `buf` holds `dir`, `ext` and 15 bytes more. The file is not created. Returns
// `buf`, or null after 256 names that all exist.
char *tmpfil(const char *dir, const char *ext, char *buf);

} // namespace plex
