// vosterd: runs commands for the users of one host, each on a pseudo-terminal of its own.
//
// One thread. The main flow sits in read() on the host connection and serves one record at a time;
// everything else happens in signal handlers, which interrupt that read. The daemon never relays a
// command's data: the host gets the terminal's master and talks to the command itself.

#include "libsrc/base/text.h"
#include "libunix/console/trm.h"
#include "libunix/daemon/endings.h"
#include "libunix/daemon/runcmd.h"
#include "libunix/daemon/state.h"
#include "libunix/daemon/template.h"
#include "libunix/daemon/wire.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace plex {
namespace {

// The request being served. A command line may fill its field without a terminator; the zero behind
// the record ends it then.
struct {
    servermsg msg;
    char zero;
} srvmsg;

[[noreturn]] void refuse(const char *why, int status) {
    fputs(why, stderr);
    exit(status);
}

void readargs(int argc, char **argv) {
    if (argc > 1 && sameas(argv[1], "-d") != 0) {
        debug = 1;
    }
    if (argc > 2) {
        debug = atoi(argv[2]); // the level counts whatever the first argument was
    }
    if (debug < 0) {
        debug = 1;
    }
}

void maketemplate() {
    if (getoption("BBSSTDIN") != nullptr) {
        if (tcgetattr(STDIN_FILENO, &mytermios) < 0) {
            perror("tcgetattr");
        }
        if (ioctl(STDIN_FILENO, TIOCGWINSZ, &mywinsize) < 0) {
            perror("ioctl(TIOCGWINSZ)");
        }
        return;
    }
    set_termios(&mytermios);
    cfsetispeed(&mytermios, B9600);
    cfsetospeed(&mytermios, B9600);
    set_winsize(&mywinsize);
}

void handle(int signo, sighandler func, const char *failure, int status) {
    if (usignal(signo, func) == SIG_ERR) {
        refuse(failure, status);
    }
}

// The user who may be the host besides root, when BBSHOST names one; else -1. From the file itself:
// what else could know users is not linked in.
int64_t hostuser() {
    const char *name = getoption("BBSHOST");
    if (name == nullptr) {
        return -1;
    }
    FILE *users = fopen("/etc/passwd", "re");
    const passwd *user = nullptr;
    while (users != nullptr && (user = fgetpwent(users)) != nullptr &&
           strcmp(user->pw_name, name) != 0) {
    }
    if (user == nullptr) {
        refuse("BBSHOST names no user.\n", 1);
    }
    fclose(users);
    return user->pw_uid;
}

// Waits for the host. Whoever may not be it is let go at once, and does not take its place.
int accepthost(int64_t user) {
    for (;;) {
        const int fd = acceptfd(ipcfd);
        ucred peer = {};
        socklen_t len = sizeof peer;
        if (fd == -1 || user == -1 ||
            (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0 &&
             (peer.uid == 0 || peer.uid == user))) {
            return fd;
        }
        close(fd);
    }
}

void start(int argc, char **argv) {
    // Without them the lock, the endpoint or the link would be a command's input or output, and
    // what is said on standard error would go to the host.
    standardfds();
    sigpipe =
        usignal(SIGPIPE, SIG_IGN); // nobody may be reading our log and standard error any more
    relpriv();
    bbshome();
    opntrm(DSP_NULL, "vosterd");
    bgnlog("vosterd.log");
    lockfd = maklck(LOCKNAME);
    if (lockfd == -1) {
        refuse("halvrond is already running.\n", 1); // the sibling's name: deliberate, keep it
    }
    readargs(argc, argv);
    maketemplate();
    const char *reap = getoption("BBSREAP");
    reapall = reap != nullptr ? sameas(reap, "all") : 0;
    const int64_t user = hostuser();
    handle(SIGCHLD, process_signal, "Unable to install SIGCHLD handler.\n", 3);
    handle(SIGTERM, cleanup, "Unable to install SIGTERM handler.\n", 4);
    handle(SIGINT, cleanup, "Unable to install SIGINT handler.\n", 5);
    ipcfd = lsnsoc(ENDPOINT);
    if (ipcfd == -1) {
        refuse("Unable to create listen socket.\n", 1);
    }
    bbsfd = accepthost(user);
    if (bbsfd == -1) {
        refuse("Unable to accept connection from client.\n", 2);
    }
}

void dispatch(servermsg &request) {
    const int usrnum = request.usrnum;
    auto *cmdstg = reinterpret_cast<char *>(request.cmdstg);
    switch (request.msgtyp) {
    case MSG_RUN:
        if (debug != 0) {
            inform("Running [%s] for %d\n", cmdstg, usrnum);
        }
        runcmd(usrnum, cmdstg);
        break;
    case MSG_KILL:
        if (debug != 0) {
            inform("BBS request to kill %d\n", usrnum);
        }
        killcmd(usrnum);
        break;
    default:
        if (debug != 0) {
            inform("Unknown message type: %d\n", request.msgtyp);
        }
    }
}

[[noreturn]] void serve() {
    for (;;) {
        errno =
            0; // a short record is judged by errno: what is told must not be an old interruption
        const ssize_t n = read(bbsfd, &srvmsg.msg, sizeof srvmsg.msg);
        if (n == static_cast<ssize_t>(sizeof srvmsg.msg)) {
            dispatch(srvmsg.msg);
            continue;
        }
        // A host that closes with answers unread resets the connection: it is gone all the same.
        if (n == 0 || (n == -1 && errno == ECONNRESET)) {
            cleanup(0);
            exit(0);
        }
        if (errno == EINTR) {
            continue; // a command ended
        }
        cleanup(errno + 50);
    }
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    plex::start(argc, argv);
    plex::serve();
}
