// Reading ordinary bytes past a passed descriptor would close it unseen, and taking plain bytes
// here would lose them. So the receiver looks before it takes. A look at one byte would not do: the
// kernel announces a descriptor also when a plain byte stands before it. A look at two bytes stops
// short behind a byte with a descriptor, and only then.

#include "libunix/plumbing/svr4fd.h"

#include "libunix/runtime/log.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace plex {
namespace {

union control { // for one descriptor, aligned as a header has to be
    cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
};

// Looks at what comes next, without control space, so that nothing is installed: 0 when it is a
// byte with a descriptor, else an error number.
int lookahead(int fd) {
    char peek[2];
    iovec iov = {peek, sizeof peek};
    msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    const ssize_t n = recvmsg(fd, &msg, MSG_PEEK);
    // A peer that closed with bytes of ours unread resets the stream: its end all the same.
    if (n == 0 || (n == -1 && errno == ECONNRESET)) {
        return ENXIO;
    }
    if (n == -1) {
        return errno;
    }
    return n == 1 && (msg.msg_flags & MSG_CTRUNC) != 0 ? 0 : EBADMSG;
}

} // namespace

int send_fd(int clifd, int fd) {
    char byte = 0;
    iovec iov = {&byte, 1};
    control room = {};
    msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = &room;
    msg.msg_controllen = CMSG_LEN(sizeof fd);
    cmsghdr *header = CMSG_FIRSTHDR(&msg);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(header), &fd, sizeof fd);
    if (sendmsg(clifd, &msg, MSG_NOSIGNAL) < 0) {
        inform("I_SENDFD: %s (%d)\n", strerror(errno), errno);
        return -1;
    }
    return 0;
}

ssize_t recv_bytes(int servfd, void *buf, size_t len, int flags, int *fd) {
    iovec iov = {buf, len};
    control room = {};
    msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = &room;
    msg.msg_controllen = CMSG_LEN(sizeof *fd); // not CMSG_SPACE: its padding would admit a second
    const ssize_t n = recvmsg(servfd, &msg, flags | MSG_CMSG_CLOEXEC);
    *fd = n != -1 && (msg.msg_flags & MSG_CTRUNC) != 0 ? LOSTFD : NOFD;
    const cmsghdr *header = n == -1 ? nullptr : CMSG_FIRSTHDR(&msg);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
        memcpy(fd, CMSG_DATA(header), sizeof *fd);
    }
    return n;
}

int recv_fd(int servfd) {
    int fd = NOFD;
    char byte = 0;
    const int cause = lookahead(servfd);
    if (cause != 0) {
        errno = cause;
    } else if (recv_bytes(servfd, &byte, 1, 0, &fd) >= 0 && fd < 0) {
        errno = EMFILE;
    }
    if (fd < 0) {
        fd = -1;
        inform("I_RECVFD: %s (%d)\n", strerror(errno), errno);
    }
    return fd;
}

} // namespace plex
