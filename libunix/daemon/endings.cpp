// Whatever ends: a command by itself, a command at the host's request, the daemon. All three drop
// records of the table. The main flow holds the handlers off while it does; clean-up holds reaping
// off and never goes back to a reaping that it interrupts.

#include "libunix/daemon/endings.h"

#include "libunix/daemon/child.h"
#include "libunix/daemon/state.h"
#include "libunix/daemon/wire.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace plex {
namespace {

void closeonce(int &fd) {
    if (fd != -1) {
        close(fd);
        fd = -1;
    }
}

void logending(int pid, int usrnum, int status) {
    const int low = status & 0xFF;
    const int high = (status >> 8) & 0xFF;
    inform("pid=%d usrnum=%d status=%x\n", pid, usrnum, static_cast<unsigned>(status));
    if (low == 0) {
        inform("Normal exit. Exit %d.\n", high);
    } else if (high == 0) {
        inform("Signal exit. Signal %d.\n", status & 0x7F);
    } else if (low == 0x7F) {
        inform("Child stopped. Signal %d.\n", high);
    }
}

// Whether one was there.
bool reapone() {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid == -1) {
        if (debug != 0) {
            inform("wait: %s", strerror(errno)); // deliberately no newline
        }
        return false;
    }
    const Child *child = find_child(pid);
    if (child == nullptr) {
        if (debug != 0) {
            inform("Could not find child (pid=%d)\n", pid);
        }
        return pid > 0;
    }
    const clientmsg notice = {child->usrnum, MSG_ENDED, status};
    if (debug != 0) {
        logending(pid, child->usrnum, status);
    }
    tellhost(&notice, sizeof notice);
    delete_child(pid);
    return true;
}

} // namespace

sigset_t block_signal(int signo) {
    sigset_t set;
    sigset_t old;
    sigemptyset(&set);
    sigaddset(&set, signo);
    sigprocmask(SIG_BLOCK, &set, &old);
    return old;
}

sigset_t block_endings() {
    const sigset_t old = block_signal(SIGTERM);
    block_signal(SIGINT);
    return old;
}

void unblock_signal(sigset_t oldmask) {
    sigprocmask(SIG_SETMASK, &oldmask, nullptr);
}

void process_signal(int signo) {
    const int saved = errno;
    if (signo == SIGCHLD) {
        if (debug != 0) {
            inform("Received SIGCHLD.\n");
        }
        while (reapone() && reapall != 0) {
        }
    } else if (signo == SIGPIPE) {
        fputs("SIGPIPE", stderr);
        cleanup(0);
        exit(0);
    }
    errno = saved;
}

void killcmd(int usrnum) {
    const sigset_t oldmask = block_signal(SIGCHLD);
    block_endings(); // a command that is in the table no more would not be ended with the others
    const Child *child = find_child_usrnum(usrnum);
    if (child != nullptr) {
        const int pid = child->pid;
        delete_child(pid);
        kill(pid, SIGTERM); // the process itself, not its group
    }
    unblock_signal(oldmask);
}

void cleanup(int signo) {
    block_endings();           // once is enough, and half-way is no place to start again
    usignal(SIGCHLD, SIG_IGN); // no notices from here on
    dellck(lockfd, LOCKNAME);
    unlink(ENDPOINT);
    for (const Child *child = children; child != nullptr; child = child->next) {
        kill(child->pid, SIGTERM);
    }
    free_children();
    closeonce(bbsfd);
    closeonce(ipcfd);
    if (signo != 0) {
        exit(signo + 100);
    }
}

void tellhost(const void *record, size_t len) {
    [[maybe_unused]] const ssize_t sent = send(bbsfd, record, len, MSG_NOSIGNAL);
}

} // namespace plex
