// The commands that run, their end, and the daemon's own.
//
// The table is changed by the main flow only while SIGCHLD is blocked, and by the SIGCHLD handler.
#pragma once

#include <csignal>
#include <cstdint>

namespace plex {

// A running command.
struct Child {
    int32_t usrnum; // on whose behalf; several commands may have the same
    int32_t pid;
    int32_t fd;  // our copy of its terminal's master; -1 once closed
    Child *next; // one started earlier
};

// The daemon's state.
extern Child *children; // the most recent first
extern int ipcfd;       // the listening endpoint, -1 when not open
extern int bbsfd;       // the connection to the host, -1 when there is none
extern int lockfd;      // the single-instance lock
extern int debug;       // non-zero: tell the log what happens

constexpr const char *LOCKNAME = "vosterd.pid";

// Puts a command at the head of the table; null when memory has run out.
Child *add_child(int usrnum, int pid, int fd);

// The first record, the most recent, with that process id or user; null when there is none.
Child *find_child(int pid);
Child *find_child_usrnum(int usrnum);

// Closes the master of the record with that process id and drops it: 1, or -1 when there is none.
int delete_child(int pid);

// Closes every master and drops every record.
void free_children();

// Blocks `signo`, or SIGTERM and SIGINT, and returns the mask as it was; restores a mask.
sigset_t block_signal(int signo);
sigset_t block_endings();
void unblock_signal(sigset_t oldmask);

// The SIGCHLD handler: reaps one ended command, however many there are, and tells the host. Ended
// commands whose signals merged are reaped with the signals that follow.
void process_signal(int signo);

// Drops the user's most recent command and sends its process SIGTERM. The host is not told of its
// end again.
void killcmd(int usrnum);

// Takes everything down: files, commands, descriptors. With 0 it returns; else the process exits
// with `signo` + 100. Also the handler of SIGTERM and SIGINT.
void cleanup(int signo);

// Writes `len` bytes to the host. A host that is gone raises no SIGPIPE and is not reported: its
// absence ends the request loop.
void tellhost(const void *record, size_t len);

} // namespace plex
