// A record lock belongs to the process, so a forked command neither holds it nor drops it.

#include "libunix/runtime/lock.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace plex {
namespace {

int setlock(int fd, short type) {
    struct flock lock = {}; // from the file's begin to its end and beyond
    lock.l_type = type;
    const int result = fcntl(fd, F_SETLK, &lock);
    if (result < 0) {
        fprintf(stderr, "fcntl: %d (%s)\n", errno, strerror(errno));
    }
    return result;
}

} // namespace

int maklck(const char *filnam) {
    const int fd = open(filnam, O_RDWR | O_CREAT | O_CLOEXEC, 0700);
    if (fd == -1) {
        fprintf(stderr, "maklck:open: %d (%s)\n", errno, strerror(errno));
        return fd;
    }
    const int result = setlock(fd, F_WRLCK);
    if (result < 0) {
        return result; // the descriptor stays open: the callers exit
    }
    char id[10];
    const int len = snprintf(id, sizeof id, "%6d\n", getpid());
    // A full disk leaves the file without an id; the lock is held all the same.
    [[maybe_unused]] const ssize_t written = write(fd, id, static_cast<size_t>(len));
    return fd;
}

int dellck(int fd, const char *filnam) {
    const int result = setlock(fd, F_UNLCK);
    if (result < 0) {
        return result;
    }
    close(fd);
    unlink(filnam);
    return 1;
}

} // namespace plex
