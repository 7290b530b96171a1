#include "tools/stub.h"

#include "tools/terminal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

namespace plex {
namespace {

constexpr const char *LINK = "PLEXRUN_LINK";       // the link, as this process is then called
constexpr const char *PROGRAM = "PLEXRUN_PROGRAM"; // what it stands for
constexpr const char *DIRECTORY = "PLEXRUN_DIRECTORY";
constexpr const char *WINDOW = "PLEXRUN_WINDOW"; // rows, columns, pixels across and down
constexpr const char *CONFIG = "PLEXRUN_CONFIG"; // the user's own BBSCONFIG

void clearwords() {
    for (const char *name : {LINK, PROGRAM, DIRECTORY, WINDOW, CONFIG}) {
        unsetenv(name);
    }
}

void setwindow(const char *text) {
    struct winsize size = {};
    if (text != nullptr && sscanf(text, "%hu %hu %hu %hu", &size.ws_row, &size.ws_col,
                                  &size.ws_xpixel, &size.ws_ypixel) == 4) {
        ioctl(STDIN_FILENO, TIOCSWINSZ, &size);
    }
}

} // namespace

std::string makestub(const OwnDaemon &own, const std::string &program) {
    char self[PATH_MAX];
    const ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len < 0) {
        return "";
    }
    self[len] = '\0';
    std::string link = own.home + "/command";
    if (symlink(self, link.c_str()) != 0) {
        return "";
    }
    clearwords();
    setenv(LINK, link.c_str(), 1);
    setenv(PROGRAM, program.c_str(), 1);
    char *cwd = getcwd(nullptr, 0);
    if (cwd != nullptr) {
        setenv(DIRECTORY, cwd, 1);
        free(cwd);
    }
    struct winsize size = {};
    if (terminalsize(size)) {
        char text[32];
        snprintf(text, sizeof text, "%u %u %u %u", size.ws_row, size.ws_col, size.ws_xpixel,
                 size.ws_ypixel);
        setenv(WINDOW, text, 1);
    }
    const char *config = getenv("BBSCONFIG");
    if (config != nullptr) {
        setenv(CONFIG, config, 1);
    }
    return link;
}

void runstub(char **argv) {
    const char *link = getenv(LINK);
    const char *name = getenv(PROGRAM);
    if (link == nullptr || name == nullptr || argv[0] == nullptr || strcmp(argv[0], link) != 0) {
        return;
    }
    const char *directory = getenv(DIRECTORY);
    if (directory != nullptr && chdir(directory) != 0) {
        fprintf(stderr, "plexrun: cannot enter %s: %s\n", directory, strerror(errno));
        exit(126);
    }
    setwindow(getenv(WINDOW));
    const std::string program = name; // the environment's own goes
    const char *config = getenv(CONFIG);
    if (config != nullptr) {
        setenv("BBSCONFIG", config, 1);
    } else {
        unsetenv("BBSCONFIG");
    }
    clearwords();
    argv[0] = const_cast<char *>(program.c_str());
    execv(argv[0], argv);
    const int cause = errno;
    fprintf(stderr, "plexrun: cannot execute %s: %s\n", argv[0], strerror(cause));
    exit(cause == ENOENT ? 127 : 126);
}

} // namespace plex
