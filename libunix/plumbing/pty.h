// Pseudo-terminal pairs, and a child process on one.
//
// Master and slave are closed by an exec, the three that the child gets of the slave are not.
// Failures are reported on standard error as "ROUTINE:CALL: reason" (in a child, the standard error
// that it was forked with, until its own is in place).
#pragma once

#include <sys/ioctl.h>
#include <termios.h>

namespace plex {

// A buffer that holds any slave's path with its terminator.
constexpr int PTYNAME = 20;

// Opens a master and stores its slave's path in `pts_name` (PTYNAME bytes). Returns the master, or
// -1 open, -2 grantpt, -3 unlockpt, -4 ptsname failed, with the master closed.
int ptym_open(char *pts_name);

// Opens the slave `pts_name` of the master `fdm`; a session leader without a terminal acquires it
// as its controlling terminal. Returns the slave, or -5 with the master closed. Prints nothing.
int ptys_open(int fdm, const char *pts_name);

// Forks a child that leads a session of its own on a fresh pseudo-terminal, which is its standard
// input, output and error. The slave gets `slave_termios` and `slave_winsize`; without the settings
// it gets neither. `slave_name`, when not null, receives the slave's path (PTYNAME bytes).
//
// Returns in the child 0 (its copies of the master and, above 2, of the slave are open); in the
// parent the child's process id, with the master in `*ptrfdm` and the terminal set up; -1 when no
// master can be had, -2 when the fork fails (the master is then left open). A child that cannot be
// set up exits with -1 setsid, -2 slave, -4 settings, -5 size, -6, -7, -8 descriptors 0, 1, 2.
int pty_fork(int *ptrfdm, char *slave_name, const struct termios *slave_termios,
             const struct winsize *slave_winsize);

// Where pty_fork is, for a caller that has signals to hold back around the fork alone: nothing that
// may block, such as a report, happens between `before` and the end of the hold.
enum class AtFork {
    before, // the fork is next
    child,  // in the child, once it has opened the slave; nothing was reported yet
    failed  // in the parent, there is no child and nothing was reported yet
};

// Called by pty_fork there; null at first. In the parent of a child the caller itself goes on.
extern void (*atfork)(AtFork where);

} // namespace plex
