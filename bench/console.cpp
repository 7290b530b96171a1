// Playing 1 MiB of ANSI pictures on each console method: the null console, a window under Xvfb, the
// shared screen with plexview on a pseudo-terminal. Two times: until the program has printed all,
// and until the last picture is shown: the window's server has answered, the viewer has cleared the
// flags. What limits them: the window is redrawn every 20 ms at most, and its
// server draws on the same machine; the viewer looks at the screen every 20 ms. Then what the
// viewer costs while nothing happens, and how soon it shows a change.
//
// Of the machine's own console this measures our side, where the kernel lends the cells: a file in
// memory stands for its device, so nothing is drawn.

#include "libsrc/plex.h"
#include "libunix/console/condrv.h"
#include "libunix/console/vcsa.h"
#include "tools/play.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int rounds = 7;

struct Times {
    double printed = 1e9, shown = 1e9; // milliseconds
};

double since(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string mebibyte() {
    std::string picture;
    FILE *file = fopen(SOURCE_DIR "/tools/harbour.ans", "r");
    for (int c = 0; file != nullptr && (c = fgetc(file)) != EOF;) {
        picture += static_cast<char>(c);
    }
    std::string text;
    while (text.size() < 1U << 20U) {
        text += picture;
    }
    return text;
}

// Takes what the viewer writes; false when nothing comes in time.
bool drain(int terminal, int milliseconds) {
    char buf[65536];
    pollfd pfd = {terminal, POLLIN, 0};
    return poll(&pfd, 1, milliseconds) > 0 && read(terminal, buf, sizeof buf) > 0;
}

// Waits until the viewer has taken all flags, serving its terminal and the link meanwhile.
void settle(int terminal) {
    using namespace plex;
    while (std::any_of(updflg, updflg + UPD_ALL + 1, [](unsigned char f) { return f != 0; })) {
        drain(terminal, 1);
        kbhit();
    }
}

pid_t startviewer(int *terminal) {
    winsize size = {25, 80, 0, 0};
    const pid_t pid = forkpty(terminal, nullptr, nullptr, &size);
    if (pid == 0) {
        setenv("TERM", "xterm-256color", 1);
        execl(PLEXVIEW, "plexview", nullptr);
        _exit(127);
    }
    return pid;
}

void viewercosts(int terminal, pid_t viewer) {
    using namespace plex;
    while (drain(terminal, 4000)) { // its hint goes after three seconds
    }
    double worst = 0;
    for (int i = 0; i < 50; i++) {
        delay(7000); // out of step with the viewer's beat
        const auto start = Clock::now();
        unxprntf("\033[10;1H%d", i);
        drain(terminal, 1000);
        worst = std::max(worst, since(start));
    }
    printf("viewer: a change reaches its terminal within %.1f ms (worst of 50)\n", worst);
    const auto start = Clock::now();
    const std::string path = "/proc/" + std::to_string(viewer) + "/schedstat";
    const auto used = [&] {
        long long ns = 0;
        FILE *file = fopen(path.c_str(), "r");
        if (file == nullptr || fscanf(file, "%lld", &ns) != 1) {
            ns = 0;
        }
        if (file != nullptr) {
            fclose(file);
        }
        return static_cast<double>(ns) / 1e6;
    };
    const double cpu = used();
    delay(3000000);
    printf("viewer: %.2f %% of a core while nothing happens\n",
           100 * (used() - cpu) / since(start));
}

// A console of 128 by 48 cells, on which nobody types.
void lendcells() {
    static int slave = -1;
    static plex::condrv driver = plex::linuxcondrv;
    static plex::xqEventQueue silent = {};
    int master = -1;
    const winsize size = {48, 128, 0, 0};
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) {
        exit(1);
    }
    driver.conopen = [] { return slave; };
    driver.quemode = [](int32_t, plex::kd_quemode *mode) {
        if (mode != nullptr) {
            mode->qaddr = &silent;
        }
        return 0;
    };
    driver.ioports = [](int32_t, int32_t) { return 0; };
    driver.getscrnmap = [](int32_t, unsigned char *) { return 0; };
    driver.isconsole = [](int32_t) { return 0; };
    driver.mapvideo = [](int32_t tty) {
        const int device = memfd_create("vcsa", MFD_CLOEXEC);
        return ftruncate(device, 4 + 2 * 48 * 128) == 0 ? plex::vcsatake(device, tty) : nullptr;
    };
    plex::condriver = &driver;
}

// The best times of playing the text on a method, in a process of its own.
Times timed(int32_t method, const std::string &text) {
    int result[2];
    if (pipe(result) != 0) {
        exit(1);
    }
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        using namespace plex;
        int terminal = -1;
        Times best;
        opntrm(method, "bench");
        frzseg();
        ansion(1);
        const pid_t viewer = method == DSP_REMOTE ? startviewer(&terminal) : 0;
        for (int i = 0; i < rounds; i++) {
            if (method == DSP_REMOTE) {
                unfrez();
                settle(terminal);
            }
            const auto start = Clock::now();
            for (size_t at = 0; at < text.size(); at += 16384) {
                playtext(text.data() + at, std::min(text.size() - at, size_t{16384}));
                while (method == DSP_REMOTE && drain(terminal, 0)) {
                }
            }
            if (method == DSP_X11) {
                updtrm(1); // all rows: the picture is the same in each round
            }
            best.printed = std::min(best.printed, since(start));
            if (method == DSP_REMOTE) {
                settle(terminal);
            } else if (method == DSP_X11) {
                clstrm(); // waits for the server
            }
            best.shown = std::min(best.shown, since(start));
            if (method == DSP_X11) {
                opntrm(method, "bench");
            }
        }
        if (write(result[1], &best, sizeof best) < 0) {
            _exit(1);
        }
        if (method == DSP_REMOTE) {
            viewercosts(terminal, viewer);
            clstrm();
            waitpid(viewer, nullptr, 0);
        }
        fflush(stdout);
        _exit(0);
    }
    close(result[1]);
    Times best;
    if (read(result[0], &best, sizeof best) != sizeof best) {
        puts("that did not work");
    }
    close(result[0]);
    waitpid(child, nullptr, 0);
    return best;
}

void tell(const char *what, const Times &times, double null) {
    printf("%s: %7.1f ms printed, %.2f times null; %.1f ms shown, %.2f times\n", what,
           times.printed, times.printed / null, times.shown, times.shown / null);
}

} // namespace

int main() {
    char home[] = "/tmp/benchconsole.XXXXXX";
    if (mkdtemp(home) == nullptr || chdir(home) != 0) {
        return 1;
    }
    setenv("BBSCONFIG", "/dev/null", 1);
    setenv("BBSFONT", "fixed", 1);
    unsetenv("BBSLOG");
    const std::string text = mebibyte();
    const double null = timed(plex::DSP_NULL, text).printed;
    printf("null:   %7.1f ms for %.1f MiB\n", null, static_cast<double>(text.size()) / (1 << 20));
    int number[2];
    if (pipe(number) != 0) {
        return 1;
    }
    const pid_t server = fork();
    if (server == 0) {
        dup2(number[1], 1);
        dup2(open("/dev/null", O_WRONLY), 2);
        execlp("Xvfb", "Xvfb", "-displayfd", "1", "-nolisten", "tcp", "-noreset", "-screen", "0",
               "700x450x24", "-fp", "built-ins", nullptr);
        _exit(127);
    }
    close(number[1]);
    char display[16] = ":";
    const ssize_t n = read(number[0], display + 1, sizeof display - 2);
    if (n > 1) {
        display[n] = '\0'; // in place of the newline
        setenv("DISPLAY", display, 1);
        tell("window", timed(plex::DSP_X11, text), null);
        kill(server, SIGTERM);
    } else {
        puts("window: Xvfb did not start");
    }
    waitpid(server, nullptr, 0);
    tell("viewer", timed(plex::DSP_REMOTE, text), null);
    lendcells();
    tell("console's lent cells, undrawn", timed(plex::DSP_SYSCON, text), null);
    return chdir("/") == 0 && rmdir(home) == 0 ? 0 : 1;
}
