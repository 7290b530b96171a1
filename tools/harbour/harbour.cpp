// harbour: a host that people can call. They come by telnet, choose a program from a menu and use
// it on a terminal of their own.

#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/options.h"
#include "tools/owndaemon.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
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

std::string setting(const char *name, const char *otherwise) {
    const char *value = plex::getcfg(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

// What is wrong with the settings, or an empty string.
std::string readsettings() {
    struct {
        const char *name;
        const char *otherwise;
        int least;
        int most;
        double value;
    } numbers[] = {
        {"LINES", "32", 1, 1000, 0}, {"IDLE", "5", 0, 10000, 0}, {"MINUTES", "60", 0, 10000, 0}};
    for (auto &n : numbers) {
        if (!readnumber(setting(n.name, n.otherwise), n.least, n.most, n.value)) {
            return std::string(n.name) + " is no number from " + std::to_string(n.least) + " to " +
                   std::to_string(n.most);
        }
    }
    lines.resize(static_cast<size_t>(numbers[0].value));
    for (size_t i = 0; i < lines.size(); i++) {
        lines[i].index = static_cast<int>(i);
    }
    rules.idle = milliseconds(static_cast<int64_t>(numbers[1].value * 60000));
    rules.call = milliseconds(static_cast<int64_t>(numbers[2].value * 60000));
    rlimit limit = {};
    const rlim_t wanted = 2 * lines.size() + descriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        plex::maxfil(static_cast<int>(wanted)); // where that is refused, callers will hear it
    }
    return "";
}

// The directory that has the file: the program's own, or the one for shared data beside its.
fs::path directoryof(const char *file) {
    std::error_code none;
    const fs::path own = fs::read_symlink("/proc/self/exe", none).parent_path();
    return fs::exists(own / file, none) ? own : own.parent_path() / "share" / "plex";
}

// Makes a private home with the sample files and has the configuration name it. Returns an empty
// string, or what went wrong.
std::string makedemo() {
    std::string why = plex::makehome(demohome);
    for (const char *file : {"harbour.menu", "pxhost.cfg"}) {
        std::error_code failed;
        const fs::path from = directoryof(file) / file;
        if (why.empty() && !fs::copy_file(from, fs::path(demohome.home) / file, failed)) {
            why = from.string() + ": " + failed.message();
        }
    }
    setenv("BBSCONFIG", (demohome.home + "/plexhost.cfg").c_str(), 1);
    setenv("BBSDISP", "viewer", 0);
    return why;
}

void enddemo() {
    plex::stopdaemon(demohome);
}

void telldemo(const std::string &at) {
    const size_t colon = at.rfind(':');
    printf("harbour: call it with       telnet %s %s\n"
           "         watch it with      plexview %s\n"
           "         end it with        Ctrl+C\n",
           at.substr(0, colon).c_str(), at.c_str() + colon + 1, demohome.home.c_str());
    fflush(stdout);
}

// Opens everything that the board needs. Returns an empty string, or what is wrong.
std::string openall(const std::string &where, std::string &at) {
    if (access("harbour.mcv", R_OK) != 0) {
        setenv("MCVPATH", directoryof("harbour.mcv").c_str(), 0);
    }
    std::string why = opentexts();
    Menu menu;
    if (why.empty() && !readmenu(menu)) {
        return menu.faults.back();
    }
    for (const std::string &fault : menu.faults) {
        fprintf(stderr, "harbour: %s\n", fault.c_str());
    }
    if (why.empty() && menu.entries.empty()) {
        why = "harbour.menu has no program";
    }
    if (why.empty()) {
        why = readsettings();
    }
    // As its daemon tells every end: one notice may stand for several that came together.
    setenv("BBSREAP", "all", 0);
    if (why.empty()) {
        why = openboard(where, at);
    }
    return why.empty() ? opendaemon(setting("IUTF8", "yes") != "no") : why;
}

void serve(bool demo) {
    plex::bbshome();
    plex::bgnlog("harbour.log");
    const int lock = plex::maklck(lockname);
    if (lock < 0) {
        plex::fail(1, "another one runs in this home");
    }
    fcntl(lock, F_SETFD, FD_CLOEXEC);
    std::string at;
    const std::string why = openall(demo ? "127.0.0.1:0" : setting("LISTEN", "127.0.0.1:2323"), at);
    if (!why.empty()) {
        closedaemon();
        plex::dellck(lock, lockname);
        plex::fail(1, "%s", why.c_str());
    }
    if (demo) {
        telldemo(at);
    }
    runboard(at);
    plex::dellck(lock, lockname);
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
    const std::string why = demo ? harbour::makedemo() : "";
    if (!why.empty()) {
        plex::fail(1, "%s", why.c_str());
    }
    harbour::serve(demo);
    harbour::enddemo();
    return 0;
}
