// The stream carries records and bytes that bring descriptors, and nothing but their order tells
// which is next. So every read checks that the kernel agrees: a descriptor read as a record's byte
// would be closed unseen, and a record's byte taken for a descriptor's would be lost.

#include "libunix/host/hostlink.h"

#include "libunix/plumbing/csfd.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace plex {
namespace {

// One read of up to `in.left` bytes into `room`: what came, in `in`.
Link receive(int link, int flags, unsigned char *room, Hostbytes &in) {
    const auto n = TEMP_FAILURE_RETRY(recv_bytes(link, room, in.left, flags, &in.fd));
    in.at = room;
    in.left = static_cast<size_t>(std::max<ssize_t>(n, 0));
    if (n > 0) {
        return Link::got;
    }
    // Reset: it left with requests unread.
    return n == 0 || errno == ECONNRESET ? Link::ended : Link::failed;
}

// What comes where a record's byte should: false, and closed, when a descriptor did.
bool plainbytes(Hostbytes &in) {
    const int fd = std::exchange(in.fd, NOFD);
    if (fd >= 0) {
        close(fd);
    }
    return fd == NOFD;
}

} // namespace

const char *linktext(Link link) {
    switch (link) {
    case Link::got:
        return "all is well";
    case Link::more:
        return "the rest is to come";
    case Link::ended:
        return "the daemon closed the link";
    case Link::cut:
        return "the daemon closed the link within a record";
    case Link::plain:
        return "bytes came where a descriptor should";
    case Link::strayfd:
        return "a descriptor came where a record should";
    case Link::lostfd:
        return "no room for the descriptor that came";
    case Link::failed:
        break;
    }
    return strerror(errno);
}

int hostopen(const char *home) {
    // Through the open directory: the address of a socket has room for a hundred bytes of path.
    const int dir = open(home, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (dir == -1) {
        return -1;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(dir) + "/" + ENDPOINT;
    const int link = consoc(path.c_str());
    const int cause = errno;
    close(dir);
    errno = cause;
    return link;
}

int hostsend(int link, const servermsg &request) {
    const auto sent = TEMP_FAILURE_RETRY(send(link, &request, sizeof request, MSG_NOSIGNAL));
    if (sent == -1) {
        return -1;
    }
    if (sent != static_cast<ssize_t>(sizeof request)) {
        errno = EIO; // a part would end the daemon; the kernel takes a record whole or not at all
        return -1;
    }
    return 0;
}

int hostrun(int link, int usrnum, std::string_view command) {
    servermsg request = {usrnum, MSG_RUN, {}};
    if (command.size() > sizeof request.cmdstg) {
        errno = E2BIG;
        return -1;
    }
    memcpy(request.cmdstg, command.data(), command.size());
    return hostsend(link, request);
}

int hostkill(int link, int usrnum) {
    return hostsend(link, {usrnum, MSG_KILL, {}});
}

Link hostread(int link, clientmsg &record) {
    auto *at = reinterpret_cast<unsigned char *>(&record);
    for (size_t left = sizeof record; left > 0;) {
        Hostbytes in = {at, left, NOFD};
        const Link got = receive(link, 0, at, in);
        if (got != Link::got) {
            return got == Link::ended && left < sizeof record ? Link::cut : got;
        }
        if (!plainbytes(in)) {
            return Link::strayfd;
        }
        at += in.left;
        left -= in.left;
    }
    return Link::got;
}

Link hostfd(int link, int &fd) {
    fd = static_cast<int>(TEMP_FAILURE_RETRY(recv_fd(link)));
    if (fd != -1) {
        return Link::got;
    }
    switch (errno) {
    case ENXIO:
    case ECONNRESET:
        return Link::ended;
    case EBADMSG:
        return Link::plain;
    case EMFILE:
        return Link::lostfd;
    default:
        return Link::failed;
    }
}

Link hostdecode(Hostpart &part, Hostbytes &in, Hostitem &item) {
    while (in.left > 0) {
        const unsigned char byte = *in.at++;
        in.left--;
        if (part.have == sizeof part.record) { // a start, whose descriptor comes now or not at all
            memcpy(&item.record, part.record, sizeof item.record);
            item.fd = in.left == 0 ? std::exchange(in.fd, NOFD) : NOFD;
            part.have = 0;
            if (item.fd == NOFD) {
                part.record[part.have++] = byte;
            }
            return Link::got;
        }
        part.record[part.have++] = byte;
        if (in.left == 0 && !plainbytes(in)) {
            return Link::strayfd;
        }
        memcpy(&item.record, part.record, sizeof item.record);
        if (part.have == sizeof part.record && item.record.msgtyp != MSG_STARTED) {
            item.fd = NOFD;
            part.have = 0;
            return Link::got;
        }
    }
    return Link::more;
}

// Reads no further than an item can reach, so that nothing has to be kept but a part of one.
Link hostnext(int link, Hostpart &part, Hostitem &item) {
    Link got = Link::more;
    while (got == Link::more) {
        unsigned char room[sizeof part.record];
        Hostbytes in = {room, std::max<size_t>(sizeof room - part.have, 1), NOFD};
        got = receive(link, MSG_DONTWAIT, room, in);
        if (got == Link::failed && errno == EAGAIN) {
            return Link::more;
        }
        if (got != Link::got) {
            return got == Link::ended && part.have > 0 ? Link::cut : got;
        }
        got = hostdecode(part, in, item);
    }
    return got;
}

} // namespace plex
