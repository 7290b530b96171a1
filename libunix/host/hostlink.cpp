// The stream carries two kinds of items, records and descriptors, and nothing but their order tells
// which is next. So both reads check that the kernel agrees: a descriptor read as plain bytes would
// be closed unseen, and plain bytes taken for a descriptor's would be lost.

#include "libunix/host/hostlink.h"

#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/svr4fd.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

// A daemon that starts refuses for the moment between making its endpoint and listening on it; one
// that left its endpoint behind refuses for good.
constexpr int starting = 50; // milliseconds

bool issocket(int fd) {
    struct stat st = {};
    return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

} // namespace

const char *linktext(Link link) {
    switch (link) {
    case Link::got:
        return "all is well";
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
    if (dir < 0) {
        return -1;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(dir) + "/" + ENDPOINT;
    int link = -1;
    int cause = 0;
    for (int ms = 0; ms < starting; ms++) {
        link = fdserver(path.c_str());
        cause = errno;
        if (link >= 0 || cause != ECONNREFUSED) {
            break;
        }
        poll(nullptr, 0, 1);
    }
    if (link >= 0 && !issocket(link)) {
        close(link);
        link = -1;
        cause = ENOTSOCK;
    }
    close(dir);
    if (link >= 0) {
        fcntl(link, F_SETFD, FD_CLOEXEC);
    }
    errno = cause;
    return link;
}

int hostsend(int link, const servermsg &request) {
    ssize_t sent = 0;
    do {
        sent = send(link, &request, sizeof request, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
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
    auto *at = reinterpret_cast<char *>(&record);
    size_t left = sizeof record;
    while (left > 0) {
        iovec iov = {at, left};
        msghdr msg = {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        const ssize_t n = recvmsg(link, &msg, 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != ECONNRESET) { // reset: it left with requests unread
            return Link::failed;
        }
        if (n <= 0) {
            return left == sizeof record ? Link::ended : Link::cut;
        }
        if ((msg.msg_flags & MSG_CTRUNC) != 0) {
            return Link::strayfd;
        }
        at += n;
        left -= static_cast<size_t>(n);
    }
    return Link::got;
}

Link hostfd(int link, int &fd) {
    do {
        fd = recv_fd(link);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
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

} // namespace plex
