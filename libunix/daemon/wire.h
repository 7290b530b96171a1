// The records on the host link, in the machine's byte order, without padding. docs/protocol.md
// tells the whole conversation.
#pragma once

#include <cstddef>
#include <cstdint>

namespace plex {

// The endpoint, a socket in the host's home directory.
constexpr const char *ENDPOINT = "vosterd.socket";

constexpr int CMDSIZE = 1024;

// Host to daemon.
struct servermsg {
    int32_t usrnum;                // on whose behalf
    int32_t msgtyp;                // MSG_RUN or MSG_KILL
    unsigned char cmdstg[CMDSIZE]; // for MSG_RUN the command line, terminated unless it fills all
};

// Daemon to host.
struct clientmsg {
    int32_t usrnum;  // whom it concerns
    int32_t msgtyp;  // MSG_STARTED, MSG_FAILED or MSG_ENDED
    int32_t message; // MSG_ENDED: the raw wait status
};

static_assert(sizeof(servermsg) == 1032 && offsetof(servermsg, cmdstg) == 8);
static_assert(sizeof(clientmsg) == 12 && offsetof(clientmsg, message) == 8);

constexpr int32_t MSG_RUN = 1;  // run cmdstg for usrnum
constexpr int32_t MSG_KILL = 2; // kill the command of usrnum
constexpr int32_t MSG_STARTED =
    -1; // the command runs; its terminal's master follows as a descriptor
constexpr int32_t MSG_FAILED = -2; // it could not be started; the other fields say nothing
constexpr int32_t MSG_ENDED = -3;  // a command's process ended

} // namespace plex
