#include "tools/terminal.h"

#include <csignal>
#include <initializer_list>
#include <termios.h>
#include <unistd.h>

namespace plex {
namespace {

struct termios saved;
bool known; // `saved` holds the user's settings
bool raw;   // and ours are in force

// A terminal that is not the controlling one has no jobs.
bool foreground() {
    const pid_t group = tcgetpgrp(STDIN_FILENO);
    return group < 0 || group == getpgrp();
}

} // namespace

void rawterminal() {
    if (isatty(STDIN_FILENO) == 0) {
        return;
    }
    if (!foreground()) {
        kill(0, SIGTTOU);
    }
    known = foreground() && tcgetattr(STDIN_FILENO, &saved) == 0;
    resumeterminal();
}

void restoreterminal() {
    if (raw && foreground()) {
        tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    }
    raw = false;
}

void resumeterminal() {
    if (!known || !foreground()) {
        return;
    }
    struct termios settings = saved;
    cfmakeraw(&settings);
    if (isatty(STDOUT_FILENO) == 0) {
        settings.c_oflag = saved.c_oflag; // whoever reads our output may write lines there
    }
    raw = tcsetattr(STDIN_FILENO, TCSANOW, &settings) == 0;
}

void suspend() {
    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTSTP);
    restoreterminal();
    raise(SIGTSTP); // pending until it is let through
    sigprocmask(SIG_UNBLOCK, &stop, &before);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    resumeterminal();
}

int endoffile() {
    struct termios settings = {};
    return tcgetattr(STDIN_FILENO, &settings) == 0 ? settings.c_cc[VEOF] : -1;
}

bool terminalsize(struct winsize &size) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (isatty(fd) != 0) {
            return ioctl(fd, TIOCGWINSZ, &size) == 0;
        }
    }
    return false;
}

void followsize(int master) {
    struct winsize size = {};
    if (terminalsize(size)) {
        ioctl(master, TIOCSWINSZ, &size);
    }
}

} // namespace plex
