// The single-instance lock: an exclusive record lock on a file that holds the owner's process id.
// The lock decides, not the file: one left behind by a dead process does not block the next start.
#pragma once

namespace plex {

// Takes the lock on `filnam`, creating the file (mode 0700) when it is missing, and writes the
// process id as "%6d\n" at its start. Returns the open descriptor, which holds the lock until it is
// closed, or a negative value after a line on standard error: the file cannot be opened, or another
// process holds the lock.
int maklck(const char *filnam);

// Releases the lock held by `fd`, closes it and removes `filnam`: 1. When the lock cannot be
// released: a line on standard error and a negative value, nothing closed or removed.
int dellck(int fd, const char *filnam);

} // namespace plex
