// A named endpoint in the file system on which each opener gets a private, two-way byte stream.
// An exec closes every descriptor that is made here.
#pragma once

namespace plex {

// Makes the endpoint `filename` (mode 0666; whatever had that name is removed) and returns its
// listening descriptor. On failure the failing step is reported on standard error ("pipe", "creat"
// or "fattach" with the reason) and the result is -1; when the name cannot be made ("creat") the
// file-creation mask is left at 0. Callers exit then.
int lsnsoc(const char *filename);

// Waits for an opener of the listening descriptor `servfd` and returns the connection, or -1 with a
// line in the log.
int acceptfd(int servfd);

// Opens the endpoint `path` from the other side, quietly: a descriptor open for reading and
// writing, or -1 with errno.
int consoc(const char *path);

// The same, or when `path` is no endpoint the file itself; a failure is an item in the log too.
int fdserver(const char *path);

} // namespace plex
