// The session: what the user types goes to the command, what it writes comes back, until it ends.
#pragma once

namespace plex {

struct Session {
    int signals; // a signalfd; what it brings, but SIGWINCH, SIGTSTP and SIGCONT, ends the session
    int link;    // the daemon
    int usrnum;
    int master; // the command's terminal
};

struct Ending {
    enum {
        command,   // the command ended; `value` is its wait status
        signalled, // this process was told to end by signal `value`
        lost,      // the daemon went away before it told the command's end
        failed     // the output could not be written: errno `value`
    } how;
    int value;
};

// Relays standard input, standard output and the window's size. The output is complete when it
// returns Ending::command: all that the command wrote has been written.
Ending relay(const Session &session);

} // namespace plex
