// Starting a command.
#pragma once

#include "libunix/daemon/wire.h"

#include "libunix/runtime/process.h"

#include <sys/ioctl.h>
#include <termios.h>

namespace plex {

extern servermsg &srvmsg;        // the request being served
extern struct termios mytermios; // the template that every command's terminal starts with
extern struct winsize mywinsize;
extern sighandler sigpipe; // what SIGPIPE did before the daemon ignored it, and does in commands

// Runs the command line `cmdstg` for `usrnum` on a terminal of its own and answers the host:
// MSG_STARTED and the terminal's master, or MSG_FAILED. 0 when it was started, else 1. A command
// that cannot be executed counts as started: it says so on its terminal, and its end is reported.
int runcmd(int usrnum, char *cmdstg);

} // namespace plex
