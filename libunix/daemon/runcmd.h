// Starting a command.
#pragma once

namespace plex {

// Runs the command line `cmdstg` for `usrnum` on a terminal of its own and answers the host:
// MSG_STARTED and the terminal's master, or MSG_FAILED. 0 when it was started, else 1. A command
// that cannot be executed counts as started: it says so on its terminal, and its end is reported.
int runcmd(int usrnum, char *cmdstg);

} // namespace plex
