// Handlers are installed without the restart flag, and everything that waits relies on it: a read
// that SIGCHLD interrupts comes back with EINTR and is repeated by its caller.

#include "libunix/runtime/process.h"

#include "libunix/runtime/config.h"
#include "libunix/runtime/log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace plex {
namespace {

// An ordinary user has nothing to switch; the caller's next step shows what is missing. Four
// switches come with every launch, so none that changes nothing is made, nor an item for no log.
void seteffective(uid_t uid) {
    if (geteuid() != uid) {
        [[maybe_unused]] const int result = seteuid(uid);
    }
}

void tell(const char *name) {
    if (logging()) {
        inform("%s: uid=%d euid=%d\n", name, static_cast<int>(getuid()),
               static_cast<int>(geteuid()));
    }
}

} // namespace

void raisepriv() {
    seteffective(0);
}

void droppriv() {
    seteffective(getuid());
}

void getpriv() {
    raisepriv();
    tell("getpriv");
}

void relpriv() {
    droppriv();
    tell("relpriv");
}

sighandler usignal(int signo, sighandler func) {
    struct sigaction act = {};
    struct sigaction old = {};
    act.sa_handler = func;
    sigemptyset(&act.sa_mask);
    return sigaction(signo, &act, &old) < 0 ? SIG_ERR : old.sa_handler;
}

void standardfds() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR); // to be kept by an exec, as the others are
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

void ignore_sigpipe() {
    usignal(SIGPIPE, SIG_IGN);
}

void daemon_init() {
    const pid_t pid = fork();
    if (pid == -1) {
        fprintf(stderr, "Fork failed: %s\n", strerror(errno));
        exit(1);
    }
    if (pid > 0) {
        exit(0);
    }
    close(0);
    close(1);
    setsid();
    umask(0);
}

void daemon_wait() {
    if (getoption("BBSDEBUG") != nullptr) {
        return;
    }
    const pid_t pid = fork();
    if (pid == -1) {
        exit(-1);
    }
    if (pid == 0) {
        setsid();
        return;
    }
    int status = 0;
    const auto ended = TEMP_FAILURE_RETRY(waitpid(pid, &status, WUNTRACED));
    if (ended == pid && WIFEXITED(status)) {
        exit(WEXITSTATUS(status));
    }
    if (ended == pid && WIFSIGNALED(status)) {
        exit(100 + (WCOREDUMP(status) ? 0 : WTERMSIG(status)));
    }
    if (ended == pid && WIFSTOPPED(status)) {
        exit(150 + WSTOPSIG(status));
    }
    exit(150);
}

void delay(unsigned usecs) {
    timeval timeout = {};
    timeout.tv_sec = static_cast<time_t>(usecs / 1000000);
    timeout.tv_usec = static_cast<suseconds_t>(usecs % 1000000);
    select(0, nullptr, nullptr, nullptr, &timeout);
}

void closeabove(int fd) {
#ifdef PLEX_HAVE_CLOSE_RANGE
    if (close_range(static_cast<unsigned>(fd) + 1, ~0U, 0) == 0) {
        return;
    }
#endif
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (rlim_t above = static_cast<rlim_t>(fd) + 1; above < limit.rlim_cur; above++) {
        close(static_cast<int>(above));
    }
}

int maxfil(int nofile) {
    rlimit limit = {};
    if (nofile < 0 || getrlimit(RLIMIT_NOFILE, &limit) < 0 ||
        limit.rlim_max < static_cast<rlim_t>(nofile)) {
        return -1;
    }
    limit.rlim_cur = static_cast<rlim_t>(nofile);
    if (setrlimit(RLIMIT_NOFILE, &limit) < 0) {
        return -1;
    }
    inform("maxfil: Maximum open files = %d\n", nofile);
    return 0;
}

} // namespace plex
