// A daemon of one's own: a private home, a vosterd that serves it, and their removal.
#pragma once

#include <string>
#include <sys/types.h>

namespace plex {

struct OwnDaemon {
    std::string home;  // its directory, empty when there is none
    pid_t pid = -1;    // its process
    int link = -1;     // the connection to it
    int input = -1;    // a terminal whose settings commands are to have; it is not closed here
    bool kept = false; // the home is somebody's, who has its configuration: it stays
};

// Makes the home, below TMPDIR or in /tmp, with its configuration. Returns an empty string or what
// went wrong.
std::string makehome(OwnDaemon &own);

// Starts `program`, or when it is empty the vosterd that stands beside this program, else the first
// along PATH, in that home: in a session of its own, with no signal blocked, ended by the kernel
// should this process vanish. In a home that is kept it has our configuration. Returns as above.
std::string startdaemon(OwnDaemon &own, std::string program = "");

// Tries to connect to it: 1 when `link` is the connection, 0 when it is not ready yet, -1 when it
// has ended instead.
int joindaemon(OwnDaemon &own);

// Waits up to five seconds for it to listen: `link` is the connection then. Returns an empty string
// or what went wrong.
std::string awaitdaemon(OwnDaemon &own);

// Closes the link, which ends the daemon and its commands, waits for it, removes its endpoint and a
// home that is not kept. What was never made is passed over.
void stopdaemon(OwnDaemon &own);

} // namespace plex
