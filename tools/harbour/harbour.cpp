// harbour: a host that people can call. They come by telnet, choose a program from a menu and use
// it on a terminal of their own.

#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/harbour/demo.h"
#include "tools/harbour/menu.h"
#include "tools/harbour/texts.h"
#include "tools/options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace harbour {
namespace {

constexpr char usage[] =
    "usage: harbour [--demo]\n"
    "Serves callers by telnet as the configuration file and harbour.menu say;\n"
    "with --demo in a home of its own, at a free port. See harbour(1).\n";

constexpr char lockname[] = "harbour.pid";

int serve(bool demo) {
    plex::bbshome();
    plex::bgnlog("harbour.log");
    const int lock = plex::maklck(lockname);
    if (lock < 0) {
        plex::fail(1, "another one runs in this home");
    }
    fcntl(lock, F_SETFD, FD_CLOEXEC);
    findtexts();
    std::string at;
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
        why = openboard(demo, at);
    }
    if (!why.empty()) {
        plex::dellck(lock, lockname);
        plex::fail(1, "%s", why.c_str());
    }
    if (demo) {
        telldemo(at);
    }
    runboard();
    plex::dellck(lock, lockname);
    return 0;
}

} // namespace
} // namespace harbour

int main(int argc, char **argv) {
    plex::program = {"harbour", harbour::usage, 2, harbour::enddemo};
    bool demo = false;
    while (plex::nextoption(argc, argv, "", "demo") != -1) {
        demo = true;
    }
    if (optind < argc) {
        plex::wronguse("unknown argument '%s'", argv[optind]);
    }
    plex::standardfds(); // what is opened later must not become one of them
    if (demo) {
        const std::string why = harbour::makedemo();
        if (!why.empty()) {
            plex::fail(1, "%s", why.c_str());
        }
    }
    const int status = harbour::serve(demo);
    harbour::enddemo();
    return status;
}
