#include "tools/stub.h"

#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/svr4fd.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

namespace plex {
namespace {

constexpr const char *LINK = "PLEXRUN_LINK";       // the link, as this process is then called
constexpr const char *PROGRAM = "PLEXRUN_PROGRAM"; // what it stands for
constexpr const char *DIRECTORY = "PLEXRUN_DIRECTORY";
constexpr const char *CONFIG = "PLEXRUN_CONFIG"; // the user's own BBSCONFIG

constexpr const char *ASKING = "stub"; // the endpoint, in the daemon's home

constexpr std::array standard = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

void clearwords() {
    for (const char *name : {LINK, PROGRAM, DIRECTORY, CONFIG}) {
        unsetenv(name);
    }
}

// What cannot be is told on the command's terminal, or where its errors go.
[[noreturn]] void giveup(const char *what, const char *name, int status) {
    fprintf(stderr, "plexrun: cannot %s %s: %s\n", what, name, strerror(errno));
    exit(status);
}

// Asks for the descriptors, and takes them in place of the terminal: those that are given, in their
// order, and a terminal where there is none to give.
void takedescriptors() {
    const int link = fdserver(ASKING); // commands start in the daemon's home
    for (const int fd : standard) {
        const int given = link != -1 ? recv_fd(link) : -1;
        if (given == -1) {
            giveup("get", "its descriptors", 125);
        }
        if (isatty(given) == 0) {
            dup2(given, fd);
        }
        close(given);
    }
    close(link);
}

} // namespace

std::string makestub(const OwnDaemon &own, const std::string &program) {
    char self[PATH_MAX];
    const ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
    if (len == -1) {
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
    const char *config = getenv("BBSCONFIG");
    if (config != nullptr) {
        setenv(CONFIG, config, 1);
    }
    return link;
}

int awaitstub(const OwnDaemon &own) {
    // Through the open directory: the address of a socket has room for a hundred bytes of path.
    const int dir = open(own.home.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int endpoint = lsnsoc(("/proc/self/fd/" + std::to_string(dir) + "/" + ASKING).c_str());
    close(dir);
    return endpoint;
}

bool answerstub(int endpoint) {
    const int link = acceptfd(endpoint);
    bool done = link != -1;
    for (const int fd : standard) {
        done = done && send_fd(link, fd) == 0;
    }
    close(link);
    return done;
}

void runstub(char **argv) {
    const char *link = getenv(LINK);
    const char *name = getenv(PROGRAM);
    if (link == nullptr || name == nullptr || argv[0] == nullptr || strcmp(argv[0], link) != 0) {
        return;
    }
    takedescriptors();
    const char *directory = getenv(DIRECTORY);
    if (directory != nullptr && chdir(directory) != 0) {
        giveup("enter", directory, 126);
    }
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
    giveup("execute", argv[0], errno == ENOENT ? 127 : 126);
}

} // namespace plex
