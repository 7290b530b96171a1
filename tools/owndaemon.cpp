#include "tools/owndaemon.h"

#include "libunix/host/cmdline.h"
#include "libunix/host/hostlink.h"
#include "libunix/runtime/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr int patience = 5000; // milliseconds for a start, and for an end, which take one or two

std::string because(const std::string &what) {
    return what + ": " + strerror(errno);
}

// A directory that configuration and command lines can name as it is: no line end, no backslash,
// and short.
std::string tempdir() {
    const char *dir = getenv("TMPDIR");
    const std::string path = dir != nullptr ? dir : "";
    const bool usable =
        path.starts_with('/') && path.size() < 256 && path.find_first_of("\n\\") == path.npos;
    return usable ? path : "/tmp";
}

std::string finddaemon() {
    std::error_code none;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", none);
    const std::string beside = self.parent_path().string() + "/vosterd";
    return executable(beside) ? beside : findprogram("vosterd");
}

[[noreturn]] void becomedaemon(const OwnDaemon &own, const std::string &program, pid_t parent) {
    setsid(); // what the terminal's keys send is for the command, not for its daemon
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
        _exit(1);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (!own.kept) {
        setenv("BBSCONFIG", (own.home + "/plexhost.cfg").c_str(), 1);
    }
    if (own.input != -1) {
        dup2(own.input, STDIN_FILENO);
        setenv("BBSSTDIN", "1", 1);
    }
    execl(program.c_str(), "vosterd", static_cast<char *>(nullptr));
    perror(program.c_str());
    _exit(127);
}

} // namespace

std::string makehome(OwnDaemon &own) {
    std::string path = tempdir() + "/plexrun.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        return because("cannot make a directory in " + tempdir());
    }
    own.home = path;
    const std::string name = path + "/plexhost.cfg";
    FILE *cfg = fopen(name.c_str(), "we");
    if (cfg == nullptr || fprintf(cfg, "HOME=%s\n", path.c_str()) < 0 || fclose(cfg) != 0) {
        return because("cannot write " + name);
    }
    return "";
}

std::string startdaemon(OwnDaemon &own, std::string program) {
    if (program.empty()) {
        program = finddaemon();
    }
    if (program.empty()) {
        return because("cannot find vosterd");
    }
    const pid_t parent = getpid();
    own.pid = fork();
    if (own.pid == 0) {
        becomedaemon(own, program, parent);
    }
    return own.pid == -1 ? because("cannot start vosterd") : "";
}

int joindaemon(OwnDaemon &own) {
    own.link = hostopen(own.home.c_str());
    if (own.link != -1) {
        return 1;
    }
    if (waitpid(own.pid, nullptr, WNOHANG) == 0) {
        return 0;
    }
    own.pid = -1;
    return -1;
}

std::string awaitdaemon(OwnDaemon &own) {
    for (int ms = 0; ms < patience; ms++) {
        const int joined = joindaemon(own);
        if (joined != 0) {
            return joined > 0 ? "" : "vosterd ended at once";
        }
        delay(1000); // microseconds
    }
    return "vosterd does not start";
}

void stopdaemon(OwnDaemon &own) {
    if (own.link != -1) {
        close(own.link);
    }
    if (own.pid > 0) {
        if (own.link == -1) {
            kill(own.pid, SIGTERM); // it waits for a host that will not come
        }
        for (int ms = 0; waitpid(own.pid, nullptr, WNOHANG) == 0; ms++) {
            if (ms == patience) {
                kill(own.pid, SIGKILL);
            }
            delay(1000); // microseconds
        }
        // One that was killed leaves it behind, and a command that has not begun yet has a copy:
        // who comes before the next daemon would be let in, and thrown out.
        unlink((own.home + "/" + ENDPOINT).c_str());
    }
    if (!own.home.empty() && !own.kept) {
        std::error_code ignored;
        std::filesystem::remove_all(own.home, ignored);
    }
    own = {};
}

} // namespace plex
