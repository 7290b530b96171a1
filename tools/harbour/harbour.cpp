// harbour: a host that people can call. They come by telnet, choose a program from a menu and use
// it on a terminal of their own.

#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/harbour/demo.h"
#include "tools/harbour/menu.h"
#include "tools/harbour/texts.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <string>
#include <unistd.h>

namespace harbour {
namespace {

constexpr char usage[] =
    "usage: harbour [--demo]\n"
    "Serves callers by telnet as the configuration file and harbour.menu say;\n"
    "with --demo in a home of its own, at a free port. See harbour(1).\n";

constexpr char lockname[] = "harbour.pid";

[[noreturn]] void fail(const std::string &why) {
    fprintf(stderr, "harbour: %s\n", why.c_str());
    enddemo();
    exit(1);
}

// What is opened later must not become one of the standard descriptors.
void needstandardfds() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);
}

int serve(bool demo) {
    plex::bbshome();
    plex::bgnlog("harbour.log");
    const int lock = plex::maklck(lockname);
    if (lock < 0) {
        fail("another one runs in this home");
    }
    fcntl(lock, F_SETFD, FD_CLOEXEC);
    findtexts();
    std::string why = opentexts();
    Menu menu;
    if (why.empty() && !readmenu("harbour.menu", menu)) {
        why = std::string("harbour.menu: ") + strerror(errno);
    }
    for (const std::string &fault : menu.faults) {
        fprintf(stderr, "harbour: %s\n", fault.c_str());
    }
    if (why.empty() && menu.entries.empty()) {
        why = "harbour.menu has no program";
    }
    // As its daemon tells every end: one notice may stand for several that came together.
    setenv("BBSREAP", "all", 0);
    if (why.empty()) {
        why = openboard(demo);
    }
    if (!why.empty()) {
        plex::dellck(lock, lockname);
        fail(why);
    }
    if (demo) {
        telldemo(boardport());
    }
    runboard();
    plex::dellck(lock, lockname);
    return 0;
}

} // namespace
} // namespace harbour

int main(int argc, char **argv) {
    static const option longs[] = {{"demo", no_argument, nullptr, 'd'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    bool demo = false;
    for (int c = 0; (c = getopt_long(argc, argv, "h", longs, nullptr)) != -1;) {
        if (c == 'h') {
            fputs(harbour::usage, stdout);
            return 0;
        }
        if (c != 'd') {
            fputs(harbour::usage, stderr);
            return 2;
        }
        demo = true;
    }
    if (optind < argc) {
        fputs(harbour::usage, stderr);
        return 2;
    }
    harbour::needstandardfds();
    if (demo) {
        const std::string why = harbour::makedemo();
        if (!why.empty()) {
            harbour::fail(why);
        }
    }
    const int status = harbour::serve(demo);
    harbour::enddemo();
    return status;
}
