// Privilege is raised around the device operations alone: on systems where the slave has to be
// given to its user they need it, and a daemon installed set-user-id root has it to give.
//
// The child sets its terminal up, and the parent hands the other end of it away: to a host that may
// write to it or change its size at once. So the parent waits until the settings are in place; else
// early input would be read under the driver's settings, and a new size would be overwritten.

#include "libunix/plumbing/pty.h"

#include "libsrc/common/text.h"
#include "libunix/runtime/process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace plex {
namespace {

// Ends a child whose terminal could not be set up. The statuses are negative by convention; the
// parent sees them modulo 256.
[[noreturn]] void giveup(const char *what, int status, std::initializer_list<int> fds) {
    perror(what);
    for (const int fd : fds) {
        close(fd);
    }
    exit(status);
}

// A pipe whose write end the child closes, or loses by its end: -1 where none could be had, and
// then the parent does not wait.
struct Ready {
    int fds[2] = {-1, -1};

    void shut(int end) {
        if (fds[end] >= 0) {
            close(fds[end]);
            fds[end] = -1;
        }
    }
    void wait() {
        shut(1);
        char none;
        while (fds[0] >= 0 && read(fds[0], &none, 1) < 0 && errno == EINTR) {
        }
        shut(0);
    }
};

// A fork that leaves out what the C library does for programs with threads: its own locks' handlers
// write to pages that parent and child then have to copy, a tenth of what a launch costs. There is
// one thread here, so no lock can be held.
pid_t forkchild() {
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
    return _Fork();
#else
    return fork();
#endif
}

// The child's part: a session, the slave, and the slave as descriptors 0, 1 and 2.
void takeslave(int fdm, const char *pts_name, const struct termios *slave_termios,
               const struct winsize *slave_winsize, Ready &ready) {
    if (setsid() < 0) {
        giveup("pty_fork:setsid()", -1, {});
    }
    getpriv();
    const int fds = ptys_open(fdm, pts_name);
    if (fds < 0) {
        perror("pty_fork:ptys_open");
        relpriv();
        exit(-2);
    }
    relpriv();
    if (slave_termios != nullptr) {
        if (tcsetattr(fds, TCSANOW, slave_termios) < 0) {
            giveup("pty_fork:tcsetattr", -4, {fds});
        }
        // Under the settings' condition, not its own: deliberate, a size alone sets nothing.
        if (ioctl(fds, TIOCSWINSZ, slave_winsize) < 0) {
            giveup("pty_fork:ioctl(TIOCSWINSZ)", -5, {fds});
        }
    }
    ready.shut(0);
    ready.shut(1);
    if (dup2(fds, STDIN_FILENO) != STDIN_FILENO) {
        giveup("pty_fork:dup2(STDIN_FILENO)", -6, {fds});
    }
    if (dup2(fds, STDOUT_FILENO) != STDOUT_FILENO) {
        giveup("pty_fork:dup2(STDOUT_FILENO)", -7, {fds, 0, 1});
    }
    if (dup2(fds, STDERR_FILENO) != STDERR_FILENO) {
        giveup("pty_fork:dup2(STDERR_FILENO)", -8, {fds, 0, 1, 2});
    }
}

} // namespace

int ptym_open(char *pts_name) {
    stzcpy(pts_name, "/dev/ptmx", PTYNAME);
    const int fdm = open(pts_name, O_RDWR);
    if (fdm < 0) {
        perror("ptym_open:open");
        return -1;
    }
    const char *failed = nullptr;
    int code = 0;
    const char *slave = nullptr;
    if (grantpt(fdm) < 0) {
        failed = "ptym_open:grantpt";
        code = -2;
    } else if (unlockpt(fdm) < 0) {
        failed = "ptym_open:unlockpt";
        code = -3;
    } else if ((slave = ptsname(fdm)) == nullptr) {
        failed = "ptym_open:ptsname";
        code = -4;
    }
    if (failed != nullptr) {
        perror(failed);
        close(fdm);
        return code;
    }
    stzcpy(pts_name, slave, PTYNAME);
    return fdm;
}

int ptys_open(int fdm, const char *pts_name) {
    const int fds = open(pts_name, O_RDWR);
    if (fds < 0) {
        close(fdm);
        return -5;
    }
    return fds;
}

int pty_fork(int *ptrfdm, char *slave_name, const struct termios *slave_termios,
             const struct winsize *slave_winsize) {
    char pts_name[PTYNAME];
    getpriv();
    const int fdm = ptym_open(pts_name);
    if (fdm < 0) {
        perror("pty_fork:ptym_open");
        relpriv();
        return -1;
    }
    relpriv();
    if (slave_name != nullptr) {
        stzcpy(slave_name, pts_name, PTYNAME);
    }
    Ready ready;
    if (pipe2(ready.fds, O_CLOEXEC) < 0) {
        ready = {};
    }
    const pid_t pid = forkchild();
    if (pid < 0) {
        perror("pty_fork:fork()");
        ready.shut(0);
        ready.shut(1);
        return -2; // deliberately no clean-up: the master is not reported and stays open
    }
    if (pid > 0) {
        ready.wait();
        *ptrfdm = fdm;
        return pid;
    }
    takeslave(fdm, pts_name, slave_termios, slave_winsize, ready);
    return 0;
}

} // namespace plex
