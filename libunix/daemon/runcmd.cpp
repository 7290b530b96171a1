// SIGCHLD is blocked from before the fork until the record, the reply and the descriptor are out:
// the end of a command can neither be missed nor be told before its start.
//
// SIGTERM and SIGINT are held back from right before the fork until the record is in the table.
// Their handler takes the daemon down, and the new process has it too until it is given the
// defaults, as soon as it has its terminal: a kill request that follows at once would make the
// child remove the daemon's files and end its neighbours' commands. Meanwhile nothing is told: a
// host, a log or a standard error that nobody reads can take for ever, and the daemon must be able
// to end.

#include "libunix/daemon/runcmd.h"

#include "libunix/daemon/child.h"
#include "libunix/daemon/endings.h"
#include "libunix/daemon/state.h"
#include "libunix/daemon/wire.h"
#include "libunix/plumbing/prsstr.h"
#include "libunix/plumbing/pty.h"
#include "libunix/plumbing/svr4fd.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"

#include <csignal>
#include <cstdlib>
#include <unistd.h>

namespace plex {

namespace {

sigset_t launchmask; // what was held back before the fork

void holdendings(AtFork where) {
    if (where == AtFork::before) {
        launchmask = block_endings();
        return;
    }
    if (where == AtFork::child) {
        usignal(SIGTERM, SIG_DFL);
        usignal(SIGINT, SIG_DFL);
    }
    unblock_signal(launchmask); // SIGCHLD stays blocked
}

[[noreturn]] void becomecommand(char *cmdstg, sigset_t oldmask) {
    usignal(SIGPIPE, sigpipe);
    unblock_signal(oldmask);
    // The masters in the table, the links, the lock, the log and our end of this very terminal: a
    // command that kept its own master open would never see a hang-up. In one call, and the table
    // is left as it is: to write to it would cost copies of its memory, and to walk it a call for
    // each command.
    closeabove(STDERR_FILENO);
    exit(dospawn(cmdstg));
}

} // namespace

int runcmd(int usrnum, char *cmdstg) {
    int ptymfd = -1;
    char pty_name[PTYNAME];
    const sigset_t oldmask = block_signal(SIGCHLD);
    atfork = holdendings;
    const int pid = pty_fork(&ptymfd, pty_name, &mytermios, &mywinsize);
    if (pid == 0) {
        becomecommand(cmdstg, oldmask);
    }
    clientmsg message = {};
    if (pid < 0) {
        // Deliberately SIGCHLD stays blocked for good, and no later end is told; unless the host
        // has asked to hear of all.
        if (reapall != 0) {
            unblock_signal(oldmask);
        }
        if (debug != 0) {
            inform("COMMAND FAILED!\n");
        }
        message.msgtyp = MSG_FAILED;
        tellhost(&message, sizeof message);
        return 1;
    }
    add_child(usrnum, pid, ptymfd);
    unblock_signal(launchmask);
    if (debug != 0) {
        inform("Adding Child: pid=%d usrnum=%d [%s]\n", pid, usrnum, pty_name);
    }
    message = {usrnum, MSG_STARTED, 0};
    tellhost(&message, sizeof message);
    send_fd(bbsfd, ptymfd);
    unblock_signal(oldmask);
    if (debug != 0) {
        inform("COMMAND SUCCESSFUL: ptymfd=%d\n", ptymfd);
    }
    return 0;
}

} // namespace plex
