// Arbitrary bytes on the host link, served by the whole daemon: only what would leave the process
// (terminals with their commands, kills, the endpoint, the exit) is played here. What the bytes ask
// for is worked out beside it, and compared with whom it killed and what its host was told.

#include "fuzz/entry.h"
#include "libunix/daemon/state.h"
#include "libunix/host/hostlink.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/pty.h"

#include <algorithm>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

int vosterd_main(int argc, char **argv); // the daemon's main

namespace {

using fuzz::require;

constexpr size_t most = 16 * sizeof(plex::servermsg); // the link's buffer holds all answers
constexpr int firstpid = 1 << 24;                     // beyond any process that there is

struct command {
    int usrnum, pid;
};

int ends[2]; // of the link: the daemon's, ours
bool serving;
jmp_buf over;
int status;
int launches;
std::vector<int> killed;

// Some commands get no terminal.
bool refused(int launch) {
    return launch % 4 == 1;
}

void check(const unsigned char *data, size_t size) {
    std::vector<command> running; // the most recent first
    std::vector<int> kills;
    launches = 0;
    for (; size >= sizeof(plex::servermsg); size -= sizeof(plex::servermsg)) {
        plex::servermsg m;
        memcpy(&m, data, sizeof m);
        data += sizeof m;
        const auto users = [&](const command &c) { return c.usrnum == m.usrnum; };
        const auto c = std::find_if(running.begin(), running.end(), users);
        if (m.msgtyp == plex::MSG_KILL && c != running.end()) {
            kills.push_back(c->pid);
            running.erase(c);
        } else if (m.msgtyp == plex::MSG_RUN) {
            plex::clientmsg reply;
            require(plex::hostread(ends[1], reply) == plex::Link::got);
            const bool none = refused(launches++);
            require(reply.msgtyp == (none ? plex::MSG_FAILED : plex::MSG_STARTED));
            if (!none) {
                int fd = -1;
                require(reply.usrnum == m.usrnum && reply.message == 0);
                require(plex::hostfd(ends[1], fd) == plex::Link::got);
                close(fd);
                running.insert(running.begin(), {m.usrnum, firstpid + launches});
            }
        }
    }
    for (const command &c : running) {
        kills.push_back(c.pid);
    }
    plex::clientmsg none;
    require(plex::hostread(ends[1], none) == plex::Link::ended);
    require(kills == killed);
    require(status == (size == 0 ? 0 : 150)); // a part of a record is an error without a number
}

} // namespace

namespace plex {

int lsnsoc(const char * /*filename*/) {
    return open("/dev/null", O_RDWR);
}

int acceptfd(int /*servfd*/) {
    return ends[0];
}

// The host's library wants it; nobody calls it here.
int consoc(const char * /*path*/) {
    return -1;
}

void (*atfork)(AtFork where);

int pty_fork(int *ptrfdm, char *slave_name, const struct termios * /*slave_termios*/,
             const struct winsize * /*slave_winsize*/) {
    strcpy(slave_name, "/dev/pts/fuzz");
    atfork(AtFork::before);
    if (refused(launches++)) {
        atfork(AtFork::failed);
        return -2;
    }
    *ptrfdm = open("/dev/null", O_RDWR);
    return firstpid + launches;
}

} // namespace plex

extern "C" int kill(pid_t pid, int signo) noexcept {
    require(signo == SIGTERM);
    killed.push_back(pid);
    return 0;
}

extern "C" [[noreturn]] void __real_exit(int code);

// Wrapped by the linker. The signals that end the daemon are meant for the fuzzing run.
extern "C" [[noreturn]] void __wrap_exit(int code) {
    if (!serving || code == 100 + SIGINT || code == 100 + SIGTERM) {
        __real_exit(code);
    }
    status = code;
    longjmp(over, 1);
}

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::home(plex::LOCKNAME);
    setenv("BBSCONFIG", "/dev/null", 1);
    setenv("BBSLOG", "stdout", 1); // which libFuzzer discards
    return 0;
}

extern "C" size_t LLVMFuzzerMutate(unsigned char *data, size_t size, size_t room);

// Chance hardly ever makes a record: every other time one is added, of a few users.
extern "C" size_t LLVMFuzzerCustomMutator(unsigned char *data, size_t size, size_t room,
                                          unsigned seed) {
    plex::servermsg m = {};
    if (seed % 2 == 0 || size + sizeof m > room) {
        return LLVMFuzzerMutate(data, size, room);
    }
    m.usrnum = static_cast<int32_t>(seed / 2 % 4);
    m.msgtyp = static_cast<int32_t>(seed / 8 % 4);
    unsigned char *at = data + size / sizeof m * sizeof m;
    memmove(at + sizeof m, at, size % sizeof m);
    memcpy(at, &m, sizeof m);
    return size + sizeof m;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    size = std::min(size, most);
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    require(send(ends[1], data, size, 0) == static_cast<ssize_t>(size));
    shutdown(ends[1], SHUT_WR);
    killed.clear();
    launches = 0;
    char name[] = "vosterd";
    char debugging[] = "-d";
    char *argv[] = {name, debugging, nullptr};
    serving = true;
    if (setjmp(over) == 0) {
        vosterd_main(2, argv);
    }
    serving = false;
    sigset_t none; // a refused command leaves SIGCHLD blocked
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    check(data, size);
    close(ends[1]);
    return 0;
}
