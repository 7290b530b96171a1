// The daemon's state, one of each, and who may touch it. "Start" is the start-up, before the link
// is there; whoever is not named reads it at most.
#pragma once

#include "libunix/runtime/process.h"

#include <sys/ioctl.h>
#include <termios.h>

namespace plex {

struct Child;

// The table of commands, the most recent first. Changed by the routines of child.h alone: in the
// main flow only while SIGCHLD is blocked, and by the handlers of endings.h.
extern Child *children;

// Descriptors, each set once by start and closed by cleanup; -1 while there is none.
extern int lockfd; // the single-instance lock
extern int ipcfd;  // the listening endpoint
extern int bbsfd;  // the connection to the host

// Set by start, and never again.
extern int debug;         // non-zero: tell the log what happens
extern int reapall;       // non-zero: one SIGCHLD is as good as many
extern termios mytermios; // the template that every command's terminal starts with
extern winsize mywinsize;
extern sighandler sigpipe; // what SIGPIPE did before the daemon ignored it, and does in commands

constexpr const char *LOCKNAME = "vosterd.pid";

} // namespace plex
