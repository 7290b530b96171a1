// Privilege is raised around the device operations alone: on systems where the slave has to be
// given to its user they need it, and a daemon installed set-user-id root has it to give.
//
// The parent hands the master away, to a host that may write to it or change its size at once. If
// the child alone set the terminal up, early input would be read under the driver's settings and a
// new size be overwritten. A master reaches its slave's settings, so they are made before the fork;
// where that is refused the child makes them, and tells of a failure by its exit status.

#include "libunix/plumbing/pty.h"

#include "libsrc/base/text.h"
#include "libunix/runtime/process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace plex {

void (*atfork)(AtFork where);

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

// A fork that leaves out what the C library does for programs with threads: its own locks' handlers
// write to pages that parent and child then have to copy. There is one thread here, so no lock can
// be held. Launches go from 0.93 to 0.95 of the floor (cmake --build build --target bench-launch).
pid_t forkchild() {
#ifdef PLEX_HAVE_FORK
    return _Fork();
#else
    return fork();
#endif
}

void tell(AtFork where) {
    if (atfork != nullptr) {
        const int saved = errno;
        atfork(where);
        errno = saved;
    }
}

// Gives the slave to the user who runs us, whom its command will run as: the kernel gives it to the
// effective user who opened the master, and what grantpt would do about that it does not do here.
int giveslave(int fdm) {
    if (getuid() == geteuid()) {
        return 0;
    }
    const char *slave = ptsname(fdm);
    return slave == nullptr ? -1 : chown(slave, getuid(), static_cast<gid_t>(-1));
}

// The child's part: a session, the slave, and the slave as descriptors 0, 1 and 2.
void takeslave(int fdm, const char *pts_name, const struct termios *slave_termios,
               const struct winsize *slave_winsize) {
    // The slave before all else that may end it: a master whose slave was never opened does not
    // hang up. And quietly: the caller may hold signals back until then.
    const bool leads = setsid() != -1;
    int fds = -1;
    if (leads) {
        raisepriv();
        fds = ptys_open(fdm, pts_name);
    }
    const int cause = errno;
    droppriv();
    tell(AtFork::child);
    errno = cause;
    if (!leads) {
        giveup("pty_fork:setsid()", -1, {});
    }
    getpriv(); // for the log
    if (fds < 0) {
        errno = cause;
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
    if (dup2(fds, STDIN_FILENO) != STDIN_FILENO) {
        giveup("pty_fork:dup2(STDIN_FILENO)", -6, {fds});
    }
    if (dup2(fds, STDOUT_FILENO) != STDOUT_FILENO) {
        giveup("pty_fork:dup2(STDOUT_FILENO)", -7, {fds, 0, 1});
    }
    if (dup2(fds, STDERR_FILENO) != STDERR_FILENO) {
        giveup("pty_fork:dup2(STDERR_FILENO)", -8, {fds, 0, 1, 2});
    }
    if (fds <= STDERR_FILENO) { // one of the three was closed: dup2 to itself changed nothing
        fcntl(fds, F_SETFD, 0);
    }
}

} // namespace

int ptym_open(char *pts_name) {
    stzcpy(pts_name, "/dev/ptmx", PTYNAME);
    const int fdm = open(pts_name, O_RDWR | O_CLOEXEC);
    const char *failed = nullptr;
    int code = 0;
    const char *slave = nullptr;
    if (fdm == -1) {
        failed = "ptym_open:open";
        code = -1;
    } else if (grantpt(fdm) < 0 || giveslave(fdm) < 0) {
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
        const int cause = errno; // the caller reports it too
        perror(failed);
        if (fdm != -1) {
            close(fdm);
        }
        errno = cause;
        return code;
    }
    stzcpy(pts_name, slave, PTYNAME);
    return fdm;
}

int ptys_open(int fdm, const char *pts_name) {
    const int fds = open(pts_name, O_RDWR | O_CLOEXEC);
    if (fds == -1) {
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
    if (slave_termios != nullptr && tcsetattr(fdm, TCSANOW, slave_termios) == 0 &&
        ioctl(fdm, TIOCSWINSZ, slave_winsize) == 0) {
        slave_termios = nullptr; // nothing is left to the child
    }
    tell(AtFork::before);
    const pid_t pid = forkchild();
    if (pid == -1) {
        tell(AtFork::failed);
        perror("pty_fork:fork()");
        return -2; // deliberately no clean-up: the master is not reported and stays open
    }
    if (pid > 0) {
        *ptrfdm = fdm;
        return pid;
    }
    takeslave(fdm, pts_name, slave_termios, slave_winsize);
    return 0;
}

} // namespace plex
