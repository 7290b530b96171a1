// An endpoint is a stream socket bound to a name. The messages keep the names of the steps that
// hosts and their administrators know: "pipe" is the making of the stream, "creat" that of the
// name, "fattach" the joining of the two.

#include "libunix/plumbing/csfd.h"

#include "libsrc/base/text.h"
#include "libunix/runtime/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace plex {
namespace {

// False when the path does not fit in an address.
bool setaddress(sockaddr_un &addr, const char *path) {
    addr = {};
    addr.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof addr.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    stzcpy(addr.sun_path, path, sizeof addr.sun_path);
    return true;
}

const sockaddr *generic(const sockaddr_un &addr) {
    return reinterpret_cast<const sockaddr *>(&addr);
}

} // namespace

int lsnsoc(const char *filename) {
    unlink(filename);
    const mode_t mask = umask(0);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        perror("pipe");
        umask(mask);
        return -1;
    }
    sockaddr_un addr;
    // The node takes over the mode that the socket has when it is bound.
    if (!setaddress(addr, filename) || fchmod(fd, 0666) < 0 ||
        bind(fd, generic(addr), sizeof addr) < 0) {
        perror("creat");
        return -1; // with the mask at 0: deliberate, and the callers exit
    }
    umask(mask);
    // Openers that nobody ever accepts wait in the backlog; a full one would make them hang.
    if (listen(fd, SOMAXCONN) < 0) {
        perror("fattach");
        return -1;
    }
    return fd;
}

int acceptfd(int servfd) {
    const int fd = accept4(servfd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd == -1) {
        inform("I_RECVFD: %s (%d)\n", strerror(errno), errno);
    }
    return fd;
}

int consoc(const char *path) {
    sockaddr_un addr;
    const int fd = setaddress(addr, path) ? socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
    if (fd != -1 && connect(fd, generic(addr), sizeof addr) < 0) {
        const int cause = errno;
        close(fd);
        errno = cause;
        return -1;
    }
    return fd;
}

int fdserver(const char *path) {
    struct stat st = {};
    const bool endpoint = stat(path, &st) == 0 && S_ISSOCK(st.st_mode);
    const int fd = endpoint ? consoc(path) : open(path, O_RDWR | O_CLOEXEC);
    if (fd == -1) {
        inform("fdserver:open: %s", strerror(errno)); // deliberately no line end
    }
    return fd;
}

} // namespace plex
