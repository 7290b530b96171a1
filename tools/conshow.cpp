// conshow: shows ANSI pictures on a console and the codes of the keys that come from it. It tries a
// console method out; the setting BBSDISP chooses which.

#include "libsrc/plex.h"
#include "tools/options.h"
#include "tools/play.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr unsigned keypause = 10000; // microseconds between two looks at the keyboard

constexpr char usage[] =
    "usage: conshow [-n NAME] [FILE.ans...]\n"
    "Shows ANSI pictures on a console, and the codes of the keys that come from it.\n"
    "  -n NAME  the name of the program; \"plexhost\" shares the screen, for plexview\n"
    "BBSDISP chooses the console: nullcon, xwindow or unixcon.\n";

constexpr char welcome[] =
    "\033[2;5H\033[1;36mconshow\033[0m tries a console out."
    "\033[4;5HGive it files with ANSI pictures to see them here. Each key that you press"
    "\033[5;5Hshows its code in the last row: the character's code, or the scan code of"
    "\033[6;5Han extended key over a zero byte."
    "\033[8;5H\033[30;40m\333\333\333\033[34m\333\333\333\033[32m\333\333\333\033[36m\333\333\333"
    "\033[31m\333\333\333\033[35m\333\333\333\033[33m\333\333\333\033[37m\333\333\333"
    "\033[9;5H\033[1;30m\333\333\333\033[34m\333\333\333\033[32m\333\333\333\033[36m\333\333\333"
    "\033[31m\333\333\333\033[35m\333\333\333\033[33m\333\333\333\033[37m\333\333\333\033[0m"
    "\033[11;5H";

volatile sig_atomic_t stopped; // by a signal

void stop(int /*signo*/) {
    stopped = 1;
}

// Found before the console opens: afterwards there is nowhere good to say it. A pipe can be read
// only once, so nothing is.
void checkfile(const char *path) {
    struct stat st = {};
    if (access(path, R_OK) != 0 || stat(path, &st) != 0) {
        fail(1, "%s: %s", path, strerror(errno));
    }
    if (S_ISDIR(st.st_mode)) {
        fail(1, "%s: %s", path, strerror(EISDIR));
    }
}

// What a console that does not open has to say goes to the log, and there is none by default.
void checkdisplay() {
    const char *name = getoption("BBSDISP");
    const auto is = [&](const char *other) { return sameas(name, other) != 0; };
    if (name != nullptr && !is("nullcon") && !is("xwindow") && !is("unixcon")) {
        fail(1, "BBSDISP=%s is no console: nullcon, xwindow or unixcon", name);
    }
    // Where the system console shows, standard error is the screen.
    const bool elsewhere = name == nullptr || !is("unixcon");
    if (elsewhere && getoption("BBSLOG") == nullptr) {
        setenv("BBSLOG", "stderr", 1);
    }
}

// Shared memory that cannot be had would be a catastrophe before there is a screen to show it on.
void checksegment() {
    if ((dsptyp & DSP_REMOTE) == 0) {
        return;
    }
    void *image = tryshm(imagebytes, true);
    if (image != nullptr) {
        clscshm(image);
        return;
    }
    const int cause = errno;
    const key_t key = shmkey();
    clstrm();
    if (cause == EINVAL) {
        fail(1,
             "the shared memory with the key %d is too small for a screen; "
             "remove it with: ipcrm -M %d",
             static_cast<int>(key), static_cast<int>(key));
    }
    fail(1, "the shared memory with the key %d: %s", static_cast<int>(key), strerror(cause));
}

// Tells in the last row what key came. The picture's own attribute, cursor and open sequence stay.
void showkey(bool any, int32_t key) {
    char text[scrcols + 1];
    int n = 0;
    if (any) {
        n = snprintf(text, sizeof text, " Key 0x%04X", static_cast<unsigned>(key));
        if (key > ' ' && key < 0x7F) {
            n += snprintf(text + n, sizeof text - static_cast<size_t>(n), " \"%c\"", key);
        }
        if (lascan() == 0) {
            n += snprintf(text + n, sizeof text - static_cast<size_t>(n), " by its number");
        }
    }
    snprintf(text + n, sizeof text - static_cast<size_t>(n), "%*s", scrcols - n,
             "Enter: next picture   F10: a catastrophe   Esc: end ");
    ansion(0);
    setwin(nullptr, 0, scrrows - 1, scrcols - 1, scrrows - 1, 0);
    locate(0, scrrows - 1);
    setatr(0x70);
    unxprntf("%s", text);
    rstwin();
    rstloc();
    ansion(1);
}

// The next key, or Esc when a signal asked to end.
int32_t nextkey() {
    while (stopped == 0) {
        if (kbhit() != 0) {
            return getchc();
        }
        delay(keypause); // getchc would wait in a busy loop
    }
    return CODE_ESC;
}

// Shows keys until one goes on to the next picture: false when it ends the program instead.
bool showkeys() {
    showkey(false, 0);
    for (;;) {
        const int32_t key = nextkey();
        if (stopped != 0 || key == CODE_ESC) {
            return false;
        }
        showkey(true, key);
        if (key == CODE_ENTER) {
            return true;
        }
        if (key == CODE_F10) {
            nocore = 1; // this one has no cause to look for
            catastro("This is what a catastrophe looks like.");
        }
    }
}

void show(int nfiles, char **files) {
    int at = 0;
    do {
        ansion(1);
        unxprntf("\033[0m\033[2J");
        if (nfiles == 0) {
            unxprntf("%s", welcome);
        } else if (!playfile(files[at])) {
            unxprntf("%s: %s\r\n", files[at], strerror(errno));
        }
        at = at + 1 < nfiles ? at + 1 : 0;
    } while (dsptyp == DSP_NULL ? at != 0 : showkeys()); // no key ever comes from the null console
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    const char *name = "conshow";
    plex::program = {"conshow", plex::usage};
    while (plex::nextoption(argc, argv, "+n:") != -1) {
        name = optarg;
    }
    for (int i = optind; i < argc; i++) {
        plex::checkfile(argv[i]);
    }
    plex::checkdisplay();
    plex::bgnlog("conshow.log");
    plex::opntrm(0, name);
    plex::checksegment();
    plex::frzseg();
    for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
        plex::usignal(signo, plex::stop);
    }
    if ((plex::dsptyp & plex::DSP_REMOTE) != 0) {
        puts("conshow: plexview in this directory shows this console.");
        fflush(stdout);
    }
    plex::show(argc - optind, argv + optind);
    plex::clstrm();
    return 0;
}
