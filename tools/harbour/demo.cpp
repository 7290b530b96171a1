#include "tools/harbour/demo.h"

#include "tools/owndaemon.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace harbour {
namespace {

namespace fs = std::filesystem;

plex::OwnDaemon home;

// The directory that has the file: the program's own, or the one for shared data beside its.
std::string directoryof(const char *file) {
    std::error_code none;
    const fs::path own = fs::read_symlink("/proc/self/exe", none).parent_path();
    const fs::path shared = own.parent_path() / "share" / "plex";
    return (fs::exists(own / file, none) ? own : shared).string();
}

} // namespace

void findtexts() {
    if (access("harbour.mcv", R_OK) != 0) {
        setenv("MCVPATH", directoryof("harbour.mcv").c_str(), 0);
    }
}

std::string makedemo() {
    std::string why = plex::makehome(home);
    if (!why.empty()) {
        return why;
    }
    for (const char *file : {"harbour.menu", "pxhost.cfg"}) {
        std::error_code failed;
        const fs::path from = fs::path(directoryof(file)) / file;
        fs::copy_file(from, fs::path(home.home) / file, failed);
        if (failed) {
            return from.string() + ": " + failed.message();
        }
    }
    setenv("BBSCONFIG", (home.home + "/plexhost.cfg").c_str(), 1);
    setenv("BBSDISP", "viewer", 0);
    return "";
}

void telldemo(const std::string &at) {
    const size_t colon = at.rfind(':');
    printf("harbour: call it with       telnet %s %s\n"
           "         watch it with      plexview %s\n"
           "         end it with        Ctrl+C\n",
           at.substr(0, colon).c_str(), at.c_str() + colon + 1, home.home.c_str());
    fflush(stdout);
}

void enddemo() {
    plex::stopdaemon(home);
}

} // namespace harbour
