// The floor of the launch bench: what a launch costs without a broker. One process opens a pair,
// forks, gives the child a session, the terminal, the settings and its three descriptors, which
// executes the program, and reaps it. As lean as can be: static, the C library alone, no system
// call that the work does not need.
//
// floor PROGRAM COUNT: prints the launches per second.

#include "libunix/daemon/template.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void child(int master, char *program, const struct termios &settings,
                        const struct winsize &size) {
    char *argv[] = {program, nullptr};
    setsid();
    const int slave = open(ptsname(master), O_RDWR);
    if (slave >= 0 && tcsetattr(slave, TCSANOW, &settings) == 0 &&
        ioctl(slave, TIOCSWINSZ, &size) == 0 && dup2(slave, 0) == 0 && dup2(slave, 1) == 1 &&
        dup2(slave, 2) == 2) {
        close_range(3, ~0U, 0);
        execv(program, argv);
    }
    _exit(127);
}

// False when the program did not run.
bool launch(char *program, const struct termios &settings, const struct winsize &size) {
    const int master = open("/dev/ptmx", O_RDWR);
    if (master < 0 || unlockpt(master) != 0) {
        return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        child(master, program, settings, size);
    }
    int status = -1;
    const bool reaped = waitpid(pid, &status, 0) == pid;
    close(master);
    return reaped && status == 0;
}

double now() {
    timespec t = {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

} // namespace

int main(int argc, char **argv) {
    const int count = argc == 3 ? atoi(argv[2]) : 0;
    if (count <= 0) {
        fputs("usage: floor PROGRAM COUNT\n", stderr);
        return 2;
    }
    struct termios settings = {};
    struct winsize size = {};
    plex::set_termios(&settings);
    cfsetispeed(&settings, B9600);
    cfsetospeed(&settings, B9600);
    plex::set_winsize(&size);
    const double before = now();
    for (int i = 0; i < count; i++) {
        if (!launch(argv[1], settings, size)) {
            perror("floor");
            return 1;
        }
    }
    printf("%.1f\n", count / (now() - before));
    return 0;
}
