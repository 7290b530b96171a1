// A host's side of the link to vosterd: the conversation that docs/protocol.md describes.
//
// There are two ways to read. hostread and hostfd wait, for a host that does one thing at a time.
// hostnext never waits, for a host that polls many descriptors; hostdecode is what it makes of the
// bytes, for a host that reads them itself. A link is read in one of the two ways, not in both.
//
// A host that has more requests on the way than the link's buffer holds must read answers while it
// sends, or both sides wait for each other.
#pragma once

#include "libunix/daemon/wire.h"
#include "libunix/plumbing/svr4fd.h"

#include <cstddef>
#include <string_view>

namespace plex {

// What a read from the link brought. After anything but `got` and `more` the link is out of step
// or gone.
enum class Link {
    got,     // what was asked for
    more,    // nothing whole yet: the rest is to come
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
// closed by an exec, or -1 with errno: ENOENT when there is no endpoint, ECONNREFUSED when nobody
// listens at it. While a daemon starts it is the one and then, for a moment, the other: who has
// started one tries again. A daemon that has its host already does not say so: the link then stays
// silent.
int hostopen(const char *home);

// Sends a request whole. 0, or -1 with errno; EPIPE (never SIGPIPE) when the daemon is gone, EAGAIN
// when a link that does not block is full and nothing was sent.
int hostsend(int link, const servermsg &request);

// Asks to run the command line `command` (at most CMDSIZE bytes, without a terminator; E2BIG beyond
// that) for `usrnum`, or to kill the user's most recent command. Results as hostsend's.
int hostrun(int link, int usrnum, std::string_view command);
int hostkill(int link, int usrnum);

// Waits for the next record.
Link hostread(int link, clientmsg &record);

// Waits for the descriptor that follows a MSG_STARTED: the caller's own, closed by an exec.
Link hostfd(int link, int &fd);

// What the daemon said: a record, and with a MSG_STARTED its descriptor, the caller's own. Else
// `fd` is NOFD; with a MSG_STARTED that means that the system would not pass the descriptor, and
// LOSTFD that this process had no room for it. The link stays in step either way.
struct Hostitem {
    clientmsg record;
    int fd;
};

// What has come of an item that is not whole; empty at first. One for each link.
struct Hostpart {
    unsigned char record[sizeof(clientmsg)];
    size_t have;
};

// The next item, as far as it is there: `got`, with `item`, or `more`, when there is nothing to do
// until the link is readable again; else the link is to be closed. Never waits, whether or not the
// link blocks. The descriptor is closed by an exec.
Link hostnext(int link, Hostpart &part, Hostitem &item);

// What one read brought, as recv_bytes has it: bytes, and the descriptor that came with the last of
// them, or NOFD or LOSTFD.
struct Hostbytes {
    const unsigned char *at;
    size_t left;
    int fd;
};

// Takes bytes off `in` up to the end of an item: `got`; or takes all: `more`. To be repeated until
// it says `more`. The descriptor is `item`'s then; one that comes where none should is closed
// (`strayfd`).
Link hostdecode(Hostpart &part, Hostbytes &in, Hostitem &item);

} // namespace plex
