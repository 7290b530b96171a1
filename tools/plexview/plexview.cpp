// plexview: shows on a terminal the console of a program that keeps it in shared memory, and sends
// the terminal's keys to that program.
//
// The screen is looked at in a fixed beat: nothing tells when it changes. The program says nothing
// over the link either; a signal means that this viewer has to go.

#include "libsrc/plex.h"
#include "tools/options.h"
#include "tools/plexview/draw.h"
#include "tools/plexview/viewkeys.h"

#include <cerrno>
#include <csignal>
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

constexpr char usage[] =
    "usage: plexview [DIRECTORY]\n"
    "Shows the console of the program that shares its screen and runs in DIRECTORY,\n"
    "by default the current one, and sends it the terminal's keys. Ctrl+] leaves.\n";
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

// The segment outlives its programs, so having one says nothing; not having one says enough.
void checksegment() {
    void *image = tryshm(imagebytes, false);
    if (image == nullptr) {
        switch (errno) {
        case ENOENT:
            fail(1, "no program of this user shows a console");
        case EINVAL:
            fail(1, "this user's shared memory is too small for a screen");
        default:
            fail(1, "this user's shared memory: %s", strerror(errno));
        }
    }
    clscshm(image);
}

int connectlink(const char *directory) {
    // Without blocking: a program that never looks at its console does not accept anybody.
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    stzcpy(addr.sun_path, viewendpoint, sizeof addr.sun_path);
    if (fd == -1 || connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) < 0) {
        switch (errno) {
        case ENOENT:
        case ECONNREFUSED:
            fail(1, "no program shows its console in %s", directory);
        case EAGAIN:
            fail(1, "the program in %s does not answer", directory);
        default:
            fail(1, "%s/%s: %s", directory, viewendpoint, strerror(errno));
        }
    }
    return fd;
}

// False, with errno, when it cannot be sent: EAGAIN while the program takes no keys.
bool tell(int fd, viewword word) {
    return send(fd, &word, sizeof word, MSG_NOSIGNAL) >= 0;
}

// Sends the keys that have come, `waiting` first: a key for which there is no room yet, 0 for none.
// What comes behind that stays in the terminal. False when the user or the program is leaving.
bool passkeys(int fd, int32_t &waiting, bool &all) {
    for (;;) {
        const int32_t key = waiting != 0 ? waiting : nextviewkey();
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
        } else if (tell(fd, key)) {
            waiting = 0;
        } else {
            waiting = key;
            return errno == EAGAIN;
        }
    }
}

// Shows the console until a signal, the user or the program ends it.
void view(int fd, unsigned char *image) {
    bool all = true;
    int32_t waiting = 0;
    for (;;) {
        draw(image, all);
        all = false;
        pollfd fds[] = {{waiting == 0 ? STDIN_FILENO : -1, POLLIN, 0},
                        {fd, static_cast<short>(waiting == 0 ? POLLIN : POLLIN | POLLOUT), 0}};
        const int ready = poll(fds, 2, beat);
        if (dropped != 0 || killed != 0) {
            return;
        }
        // The terminal is looked at in each beat: its size changes without any input.
        if (!passkeys(fd, waiting, all) ||
            (ready > 0 && ((fds[1].revents & ~POLLOUT) != 0 || fds[0].revents > POLLIN))) {
            return;
        }
    }
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    using namespace plex;
    program = {.name = "plexview", .usage = usage, .cleanup = closeterminal};
    while (nextoption(argc, argv, "") != -1) {
    }
    if (argc - optind > 1) {
        wronguse("'%s' is one directory too much", argv[optind + 1]);
    }
    const char *directory = optind < argc ? argv[optind] : ".";
    if (chdir(directory) < 0) {
        fail(1, "%s: %s", directory, strerror(errno));
    }
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
        fail(1, "standard input and output must be a terminal");
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
        fail(1, "terminal type %s is not known", getenv("TERM") != nullptr ? getenv("TERM") : "");
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
        delay(beat * 1000);
    }
    if (dropped == 0) {
        fail(1, "the program has ended");
    }
    clscshm(image);
    return 0;
}
