// The session: what the user types goes to the command, what it writes comes back, until it ends.
#pragma once

namespace plex {

struct Session {
    int signals; // a signalfd; what it brings, but SIGWINCH, SIGTSTP and SIGCONT, ends the session
    int link;    // the daemon
    int usrnum;
    int master; // the command's terminal
    int slave;  // the same, open as commands have it; closed when the command has ended
    int input;  // what is typed there, -1 for nothing
    int output; // where goes what it shows
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

// Relays input, output and the window's size. The output is complete when it
// returns Ending::command: all that the command wrote has been written.
Ending relay(const Session &session);

} // namespace plex
