// harbour: a host that people can call. They come by telnet, choose a program from a menu and use
// it on a terminal of their own.

#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/options.h"
#include "tools/owndaemon.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace harbour {
namespace {

namespace fs = std::filesystem;

constexpr char usage[] =
    "usage: harbour [--demo]\n"
    "Serves callers by telnet as the configuration file and harbour.menu say;\n"
    "with --demo in a home of its own, at a free port. See harbour(1).\n";

constexpr char lockname[] = "harbour.pid";
constexpr int descriptors = 64; // besides a socket and a terminal for each line

plex::OwnDaemon demohome;
int lock = -1;

// Gives everything back, at any time.
void cleanup() {
    closedaemon();
    if (lock != -1) {
        plex::dellck(lock, lockname);
    }
    plex::stopdaemon(demohome);
}

std::string setting(const char *name, const char *otherwise) {
    const char *value = plex::getcfg(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

double number(const char *name, const char *otherwise, int least, int most) {
    double value = 0;
    if (!readnumber(setting(name, otherwise), least, most, value)) {
        plex::fail(1, "%s is no number from %d to %d", name, least, most);
    }
    return value;
}

void readsettings() {
    rules.idle = minutes(number("IDLE", "5", 0, 10000));
    rules.call = minutes(number("MINUTES", "60", 0, 10000));
    lines.resize(static_cast<size_t>(number("LINES", "32", 1, 1000)));
    for (size_t i = 0; i < lines.size(); i++) {
        lines[i].index = static_cast<int>(i);
    }
    rlimit limit = {};
    const rlim_t wanted = 2 * lines.size() + descriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        plex::maxfil(static_cast<int>(wanted)); // where that is refused, callers will hear it
    }
}

// The directory that has the file: the program's own, or the one for shared data beside its.
fs::path directoryof(const char *file) {
    std::error_code none;
    const fs::path own = fs::read_symlink("/proc/self/exe", none).parent_path();
    return fs::exists(own / file, none) ? own : own.parent_path() / "share" / "plex";
}

// Makes a private home with the sample files and has the configuration name it.
void makedemo() {
    std::string why = plex::makehome(demohome);
    for (const char *file : {"harbour.menu", "pxhost.cfg"}) {
        std::error_code failed;
        const fs::path from = directoryof(file) / file;
        if (why.empty() && !fs::copy_file(from, fs::path(demohome.home) / file, failed)) {
            why = from.string() + ": " + failed.message();
        }
    }
    if (!why.empty()) {
        plex::fail(1, "%s", why.c_str());
    }
    setenv("BBSCONFIG", (demohome.home + "/plexhost.cfg").c_str(), 1);
    setenv("BBSDISP", "viewer", 0);
}

void serve(bool demo) {
    plex::bbshome();
    plex::bgnlog("harbour.log");
    lock = plex::maklck(lockname);
    if (lock == -1) {
        plex::fail(1, "another one runs in this home");
    }
    if (access("harbour.mcv", R_OK) != 0) {
        setenv("MCVPATH", directoryof("harbour.mcv").c_str(), 0);
    }
    opentexts();
    const auto fault = [](const std::string &what) {
        fprintf(stderr, "harbour: %s\n", what.c_str());
    };
    if (readmenu(fault).empty()) {
        plex::fail(1, "harbour.menu has no program");
    }
    readsettings();
    // As its daemon tells every end: one notice may stand for several that came together.
    setenv("BBSREAP", "all", 0);
    const std::string at = openboard(demo ? "127.0.0.1:0" : setting("LISTEN", "127.0.0.1:2323"));
    opendaemon(setting("IUTF8", "yes") != "no");
    if (demo) {
        const size_t colon = at.rfind(':');
        printf("harbour: call it with       telnet %s %s\n"
               "         watch it with      plexview %s\n"
               "         end it with        Ctrl+C\n",
               at.substr(0, colon).c_str(), at.c_str() + colon + 1, demohome.home.c_str());
        fflush(stdout);
    }
    runboard(at);
}

} // namespace
} // namespace harbour

int main(int argc, char **argv) {
    plex::program = {"harbour", harbour::usage, 2, harbour::cleanup};
    bool demo = false;
    while (plex::nextoption(argc, argv, "", "demo") != -1) {
        demo = true;
    }
    if (optind < argc) {
        plex::wronguse("unknown argument '%s'", argv[optind]);
    }
    plex::standardfds(); // what is opened later must not become one of them
    if (demo) {
        harbour::makedemo();
    }
    harbour::serve(demo);
    harbour::cleanup();
    return 0;
}
