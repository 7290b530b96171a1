// The file is shared with the host and short; it is opened, read and closed by every look-up, so
// that a change is seen at once and nothing is held.

#include "libunix/runtime/config.h"

#include "libsrc/base/text.h"
#include "libunix/runtime/log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace plex {
namespace {

constexpr int maxname = 64;
constexpr int keysize = maxname + 2; // name, "=" and the terminator
constexpr int linesize = 1024;
constexpr int readsize = linesize - 1; // a read takes at most 1022 characters

char line[linesize]; // outlives getcfg: its result points into it

[[noreturn]] void unreadable() {
    // Names the default file even when BBSCONFIG chose another: hosts look for this text.
    fputs("Unable to open plexhost.cfg!\n", stderr);
    exit(1);
}

} // namespace

const char *getcfg(const char *option) {
    const char *path = getenv("BBSCONFIG");
    FILE *cfg = fopen(path != nullptr ? path : "/etc/plexhost.cfg", "re");
    if (cfg == nullptr) {
        unreadable();
    }
    if (strlen(option) > maxname) {
        inform("getcfg: option %s longer than max %d bytes\n", option, maxname);
        fclose(cfg);
        return nullptr;
    }
    char key[keysize];
    snprintf(key, sizeof key, "%s=", option);
    const char *value = nullptr;
    while (fgets(line, readsize, cfg) != nullptr) {
        if (sameto(key, line) == 0) {
            continue;
        }
        // The last character goes whatever it is, so a last line without a newline loses one of
        // its own. Deliberate: existing files end their lines. "X=" alone is left with no "=".
        line[strlen(line) - 1] = '\0';
        const char *equals = strchr(line, '=');
        value = equals != nullptr ? equals + 1 : line + strlen(line);
        break;
    }
    const bool failed = ferror(cfg) != 0; // a directory opens, but cannot be read
    fclose(cfg);
    if (failed) {
        unreadable();
    }
    return value;
}

const char *getoption(const char *option) {
    const char *value = getenv(option);
    return value != nullptr ? value : getcfg(option);
}

void bbshome() {
    const char *home = getcfg("HOME");
    if (home != nullptr && chdir(home) != 0) {
        fprintf(stderr, "Unable to change to BBS home directory: %s (%s)\n", home, strerror(errno));
        exit(1);
    }
}

} // namespace plex
