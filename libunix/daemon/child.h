// The table of commands: one record for each that was started and has not been told ended or
// killed. state.h has its head and who may change it.
#pragma once

#include <cstdint>

namespace plex {

// A running command.
struct Child {
    int32_t usrnum; // on whose behalf; several commands may have the same
    int32_t pid;
    int32_t fd;  // our copy of its terminal's master; -1 once closed
    Child *next; // one started earlier
};

// Puts a command at the head of the table; null when memory has run out.
Child *add_child(int usrnum, int pid, int fd);

// The first record, the most recent, with that process id or user; null when there is none.
Child *find_child(int pid);
Child *find_child_usrnum(int usrnum);

// Closes the master of the record with that process id and drops it: 1, or -1 when there is none.
int delete_child(int pid);

// Closes every master and drops every record.
void free_children();

} // namespace plex
