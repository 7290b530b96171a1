// plexview: shows on a terminal the console of a program that keeps it in shared memory, and sends
// the terminal's keys to that program.
//
// The screen is looked at in a fixed beat: nothing tells when it changes. The program says nothing
// over the link either; a signal means that this viewer has to go.

#include "libsrc/plex.h"
#include "tools/plexview/draw.h"
#include "tools/plexview/viewkeys.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr char usage[] = "usage: plexview [DIRECTORY]\n";
constexpr int beat = 20;          // milliseconds between looks: what people see as at once
constexpr int farewellbeats = 25; // how long viewgo may come behind the end of the link

volatile sig_atomic_t dropped; // viewgo came
volatile sig_atomic_t killed;  // the number of a signal that ends programs

void ondropped(int /*signo*/) {
    dropped = 1;
}

void onkilled(int signo) {
    killed = signo;
}

[[noreturn]] void fail(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

void fail(const char *fmt, ...) {
    closeterminal();
    fputs("plexview: ", stderr);
    va_list args;
    va_start(args, fmt);
    vfprintf(stderr, fmt, args);
    va_end(args);
    fputc('\n', stderr);
    exit(1);
}

// The segment outlives its programs, so having one says nothing; not having one says enough.
void checksegment() {
    const int id = shmget(shmkey(), imagebytes, 0);
    void *image = id < 0 ? nullptr : shmat(id, nullptr, 0);
    if (id < 0 || image == reinterpret_cast<void *>(-1)) {
        switch (errno) {
        case ENOENT:
            fail("no program of this user shows a console");
        case EINVAL:
            fail("this user's shared memory is too small for a screen");
        default:
            fail("this user's shared memory: %s", strerror(errno));
        }
    }
    shmdt(image);
}

int connectlink(const char *directory) {
    // Without blocking: a program that never looks at its console does not accept anybody.
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    stzcpy(addr.sun_path, viewendpoint, sizeof addr.sun_path);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) < 0) {
        switch (errno) {
        case ENOENT:
        case ECONNREFUSED:
            fail("no program shows its console in %s", directory);
        case EAGAIN:
            fail("the program in %s does not answer", directory);
        default:
            fail("%s/%s: %s", directory, viewendpoint, strerror(errno));
        }
    }
    return fd;
}

// False when the link has ended. A program that takes no keys loses them, as any full keyboard
// does.
bool tell(int fd, viewword word) {
    return send(fd, &word, sizeof word, MSG_NOSIGNAL) >= 0 || errno == EAGAIN;
}

// Sends the keys that have come: false when the user or the program is leaving.
bool passkeys(int fd, bool &all) {
    for (;;) {
        const int32_t key = nextviewkey();
        if (key == 0) {
            return true;
        }
        if (key == QUITKEY) {
            // The program answers with the signal, which finds this process or nobody.
            tell(fd, viewleaving);
            dropped = 1;
            return false;
        }
        if (key == KEY_RESIZED) {
            all = true;
        } else if (!tell(fd, key)) {
            return false;
        }
    }
}

// Shows the console until a signal, the user or the program ends it.
void view(int fd, unsigned char *image) {
    bool all = true;
    for (;;) {
        draw(image, all);
        all = false;
        pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {fd, POLLIN, 0}};
        const int ready = poll(fds, 2, beat);
        if (dropped != 0 || killed != 0) {
            return;
        }
        // The terminal is looked at in each beat: its size changes without any input.
        if (!passkeys(fd, all) || (ready > 0 && (fds[1].revents != 0 || fds[0].revents > POLLIN))) {
            return;
        }
    }
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    using namespace plex;
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        const bool asked = argc == 2 && sameas(argv[1], "-h") != 0;
        fputs(usage, asked ? stdout : stderr);
        return asked ? 0 : 2;
    }
    const char *directory = argc == 2 ? argv[1] : ".";
    if (chdir(directory) < 0) {
        fail("%s: %s", directory, strerror(errno));
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        fail("standard input and output must be a terminal");
    }
    opntrm(DSP_NULL, "plexview"); // a catastrophe wants a screen of this process's own
    checksegment();
    usignal(viewgo, ondropped);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        usignal(signo, onkilled);
    }
    auto *image = static_cast<unsigned char *>(opncshm(imagebytes));
    // A connection sends the viewer before us away, and must be announced at once.
    if (!knowsterminal()) {
        fail("terminal type %s is not known", getenv("TERM") != nullptr ? getenv("TERM") : "");
    }
    const int fd = connectlink(directory);
    if (tell(fd, getpid()) && openterminal()) {
        definekeys();
        view(fd, image);
    }
    closeterminal();
    if (killed != 0) {
        tell(fd, viewleaving);
        return 128 + killed;
    }
    for (int i = 0; i < farewellbeats && dropped == 0; i++) {
        poll(nullptr, 0, beat);
    }
    if (dropped == 0) {
        fail("the program has ended");
    }
    clscshm(image);
    return 0;
}
