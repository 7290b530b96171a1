// A host's side of the link to vosterd: the conversation that docs/protocol.md describes.
//
// Calls block. A host that has more requests on the way than the link's buffer holds must read
// answers while it sends, or both sides wait for each other.
#pragma once

#include "libunix/daemon/wire.h"

#include <string_view>

namespace plex {

// What a read from the link brought. After anything but `got` the link is out of step or gone.
enum class Link {
    got,     // what was asked for
    ended,   // the daemon closed the link, at the border of a record
    cut,     // the daemon closed the link within a record
    plain,   // bytes stand where a descriptor should; they are left to be read
    strayfd, // a descriptor stands where a record should; it was closed
    lostfd,  // the descriptor came, but this process had no room for it
    failed   // a system call failed: errno
};

// A few words for people: "the daemon closed the link".
const char *linktext(Link link);

// Connects to the daemon whose home directory is `home`. Returns the link, the caller's own and
// closed by an exec, or -1 with errno: ENOENT when there is no endpoint, ENOTSOCK when what has its
// name is none, ECONNREFUSED when it was left behind. A daemon that has its host already does not
// say so: the link then stays silent.
int hostopen(const char *home);

// Sends a request whole. 0, or -1 with errno; EPIPE (never SIGPIPE) when the daemon is gone.
int hostsend(int link, const servermsg &request);

// Asks to run the command line `command` (at most CMDSIZE bytes, without a terminator; E2BIG beyond
// that) for `usrnum`, or to kill the user's most recent command. Results as hostsend's.
int hostrun(int link, int usrnum, std::string_view command);
int hostkill(int link, int usrnum);

// Waits for the next record.
Link hostread(int link, clientmsg &record);

// Waits for the descriptor that follows a MSG_STARTED: the caller's own, closed by an exec.
Link hostfd(int link, int &fd);

} // namespace plex
