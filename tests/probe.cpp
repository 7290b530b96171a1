// A command for the daemon's tests: tells what it was started with.
//   probe terminal    the settings and size of its terminal
//   probe process     descriptors, session, signals

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

void terminal() {
    termios t = {};
    winsize w = {};
    tcgetattr(0, &t);
    ioctl(0, TIOCGWINSZ, &w);
    printf("i=%x o=%x c=%x l=%x line=%d cc=", t.c_iflag, t.c_oflag, t.c_cflag, t.c_lflag, t.c_line);
    for (const cc_t c : t.c_cc) {
        printf("%02x", c);
    }
    printf(" speed=%u,%u size=%d,%d,%d,%d\n", static_cast<unsigned>(cfgetispeed(&t)),
           static_cast<unsigned>(cfgetospeed(&t)), w.ws_row, w.ws_col, w.ws_xpixel, w.ws_ypixel);
}

void process() {
    printf("fds=");
    for (int fd = 0; fd < getdtablesize(); fd++) {
        if (fcntl(fd, F_GETFD) >= 0) {
            printf("%d ", fd);
        }
    }
    printf("leader=%d terminal=%d foreground=%d blocked=", getsid(0) == getpid(),
           ttyname(0) != nullptr && strcmp(ttyname(0), ttyname(1)) == 0, tcgetpgrp(0) == getpgrp());
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (int signo = 1; signo < NSIG; signo++) {
        struct sigaction act = {};
        sigaction(signo, nullptr, &act);
        if (sigismember(&mask, signo) == 1 || act.sa_handler != SIG_DFL) {
            printf("%d ", signo);
        }
    }
    printf("\n");
}

} // namespace

int main(int argc, char **argv) {
    argc > 1 && strcmp(argv[1], "terminal") == 0 ? terminal() : process();
    return 0;
}
