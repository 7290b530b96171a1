// The first process of the emulated PC: runs programs on its console, as a login shell would, and
// tells the serial line what each left behind. Commands, a line each, answered with "done":
//
//     set KEYBOARD DISPLAY   the console's modes, before a program
//     hide FILE              makes it a file without contents
//     run PROGRAM...         says "ended STATUS ..." when it ends: 128 + the signal, or its code
//     signal N               sends it a signal
//
// Run as a program it is one that uses the console in ways that conshow does not.

#include "libsrc/plex.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr int console = 0;
constexpr int serial = 1;

struct Settings {
    int keyboard = -1;
    int display = -1;
    termios term = {};
};

Settings look() {
    Settings s;
    ioctl(console, KDGKBMODE, &s.keyboard);
    ioctl(console, KDGETMODE, &s.display);
    tcgetattr(console, &s.term);
    return s;
}

int overflow(const volatile char *below) {
    const volatile char room[4096] = {};
    return below[0] == 0 ? overflow(room) + room[1] : 0;
}

int scenario(const char *name) {
    plex::opntrm(plex::DSP_SYSCON, name);
    if (strcmp(name, "overflow") == 0) {
        return overflow("");
    }
    if (fork() == 0) {
        exit(0); // a child, which must not give the keyboard back
    }
    wait(nullptr);
    printf("while a child ended %d\n", look().keyboard);
    fflush(stdout);
    return plex::getch() == 0x1B ? 5 : 6; // without closing
}

// Does what a line says; the process that runs then.
pid_t command(char *line, pid_t pid) {
    char *words[8] = {strtok(line, " ")};
    for (size_t i = 1; i < 7 && words[i - 1] != nullptr; i++) {
        words[i] = strtok(nullptr, " ");
    }
    bool good = true;
    if (strcmp(line, "set") == 0) {
        good = ioctl(console, KDSKBMODE, atoi(words[1])) == 0 &&
               ioctl(console, KDSETMODE, atoi(words[2])) == 0;
    } else if (strcmp(line, "hide") == 0) {
        good = mount("/empty", words[1], nullptr, MS_BIND, nullptr) == 0;
    } else if (strcmp(line, "signal") == 0) {
        kill(pid, atoi(words[1]));
    } else {
        dprintf(console, "\033[2J"); // what an earlier program showed
        pid = fork();
        if (pid == 0) {
            execv(words[1], words + 1);
            _exit(127);
        }
    }
    puts(good ? "done" : "failed");
    return pid;
}

void serve() {
    setsid();
    dup2(open("/dev/tty1", O_RDWR), console);
    dup2(open("/dev/ttyS0", O_RDWR | O_NOCTTY), serial);
    dup2(serial, STDERR_FILENO);
    termios raw = {};
    tcgetattr(serial, &raw);
    cfmakeraw(&raw);
    tcsetattr(serial, TCSANOW, &raw);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    setenv("BBSDISP", "unixcon", 1);
    setenv("BBSCONFIG", "/plexhost.cfg", 1);
    for (int i = 0; i < 60; i++) { // scrolled: the screen no longer begins where the memory does
        dprintf(console, "line %d\r\n", i);
    }
    puts("ready");
    char line[256];
    size_t have = 0;
    pid_t pid = -1;
    Settings before;
    for (;;) {
        int status = 0;
        if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) {
            const Settings after = look();
            const bool same = memcmp(&before.term, &after.term, sizeof before.term) == 0;
            printf("ended %d keyboard %d to %d display %d to %d %s\n",
                   WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
                   before.keyboard, after.keyboard, before.display, after.display,
                   same ? "same" : "changed");
            pid = -1;
        }
        pollfd pfd = {serial, POLLIN, 0};
        if (poll(&pfd, 1, 20) > 0 && read(serial, line + have, 1) == 1 && line[have++] == '\n') {
            line[have - 1] = '\0';
            have = 0;
            before = pid < 0 ? look() : before;
            pid = command(line, pid);
        }
        have %= sizeof line;
    }
}

} // namespace

int main(int argc, char **argv) {
    if (argc > 1) {
        return scenario(argv[1]);
    }
    mkdir("/dev", 0755);
    mount("dev", "/dev", "devtmpfs", 0, nullptr);
    if (fork() == 0) {
        serve();
    }
    for (;;) {
        wait(nullptr);
    }
}
