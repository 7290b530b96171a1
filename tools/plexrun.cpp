// plexrun: a host with one user, the person at this terminal. Runs a command through vosterd.

#include "libunix/host/cmdline.h"
#include "libunix/host/hostlink.h"
#include "libunix/runtime/process.h"
#include "tools/owndaemon.h"
#include "tools/relay.h"
#include "tools/stub.h"
#include "tools/terminal.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <initializer_list>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace plex {
namespace {

constexpr const char *USAGE =
    "usage: plexrun [-v] [-u USRNUM] [-H HOME] [--] COMMAND [ARG...]\n"
    "       plexrun [-v] [-u USRNUM] [-H HOME] -c 'COMMAND LINE'\n"
    "Runs a command on a pseudo-terminal through vosterd: through one of its own,\n"
    "or through the one that runs in HOME. Exits as the command does; plexrun(1)\n"
    "has the statuses that are its own.\n";

// What plexrun itself has to say. The rest are the command's: its exit code, or 128 + the signal.
enum : int {
    WRONGUSE = 120,      // the command line of plexrun itself
    INEXPRESSIBLE = 121, // no command line of the daemon can say this
    NODAEMON = 122,      // none runs there, or none could be started, or it does not answer
    REFUSED = 123,       // the daemon could not start the command
    LOST = 124,          // the daemon ended before the command did
    BROKEN = 125,        // the system refused something else
    NOTEXECUTABLE = 126,
    NOTFOUND = 127
};

constexpr int patience = 5000; // milliseconds for a daemon to start, and to answer
constexpr int setup = 2000;    // and for a command to take its terminal

struct Options {
    int usrnum = 0;
    const char *home = nullptr; // of a running daemon
    const char *line = nullptr; // the command line as it is
    std::vector<std::string> args;
    bool verbose = false; // tell what the daemon tells
};

OwnDaemon own;
int signals = -1;

[[noreturn, gnu::format(printf, 2, 3)]] void fail(int status, const char *fmt, ...) {
    restoreterminal();
    stopdaemon(own);
    va_list args;
    va_start(args, fmt);
    fputs("plexrun: ", stderr);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
    exit(status);
}

[[noreturn]] void endby(int signo) {
    restoreterminal();
    stopdaemon(own);
    signal(signo, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    raise(signo);
    sigprocmask(SIG_SETMASK, &none, nullptr); // and here it takes effect
    exit(128 + signo);
}

Options options(int argc, char **argv) {
    static const option longs[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};
    Options opts;
    opterr = 0;
    for (int c = 0; (c = getopt_long(argc, argv, "+:u:H:c:vh", longs, nullptr)) != -1;) {
        switch (c) {
        case 'u': {
            char *end = nullptr;
            errno = 0;
            const long long n = strtoll(optarg, &end, 10);
            if (end == optarg || *end != '\0' || errno != 0 || n < INT32_MIN || n > INT32_MAX) {
                fail(WRONGUSE, "-u wants a number of 32 bits, not '%s'", optarg);
            }
            opts.usrnum = static_cast<int>(n);
            break;
        }
        case 'H':
            opts.home = optarg;
            break;
        case 'c':
            opts.line = optarg;
            break;
        case 'v':
            opts.verbose = true;
            break;
        case 'h':
            fputs(USAGE, stdout);
            exit(0);
        case ':':
            fail(WRONGUSE, "-%c wants an argument (see plexrun --help)", optopt);
        default:
            fail(WRONGUSE, "unknown option '%s' (see plexrun --help)", argv[optind - 1]);
        }
    }
    opts.args.assign(argv + optind, argv + argc);
    if (opts.line != nullptr && !opts.args.empty()) {
        fail(WRONGUSE, "-c has the whole command; '%s' is too much", opts.args[0].c_str());
    }
    if (opts.line == nullptr && opts.args.empty()) {
        fail(WRONGUSE, "no command (see plexrun --help)");
    }
    return opts;
}

// Signals come through a descriptor from here on. The ones that would end this process must not do
// so before the terminal is given back and the daemon gone; one that whoever started us had ignored
// stays ignored.
void watchsignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo :
         {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGVTALRM, SIGPROF, SIGUSR1, SIGUSR2, SIGPIPE,
          SIGIO, SIGXCPU, SIGXFSZ, SIGTSTP, SIGCONT, SIGWINCH}) {
        sigaddset(&set, signo);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals < 0) {
        fail(BROKEN, "signalfd: %s", strerror(errno));
    }
}

// Waits a while for `fd` (none: -1), but not once a signal says to end. Whether it can be read.
bool wait(int fd, int milliseconds) {
    pollfd fds[] = {{signals, POLLIN, 0}, {fd, POLLIN, 0}};
    if (poll(fds, 2, milliseconds) > 0 && fds[0].revents != 0) {
        signalfd_siginfo info = {};
        if (read(signals, &info, sizeof info) > 0) {
            switch (info.ssi_signo) {
            case SIGWINCH:
            case SIGCONT:
                break;
            case SIGTSTP:
                suspend();
                break;
            default:
                endby(static_cast<int>(info.ssi_signo));
            }
        }
    }
    return fds[1].revents != 0;
}

// The path that `opts`' command is to be executed by.
std::string program(const Options &opts) {
    const std::string &name = opts.args[0];
    // Whether a path is good is for a running daemon to find out, with its own eyes.
    if (opts.home != nullptr && name.find('/') != std::string::npos) {
        return absolute(name);
    }
    std::string path = findprogram(name);
    if (path.empty()) {
        const int cause = errno;
        fail(cause == EACCES ? NOTEXECUTABLE : NOTFOUND, "%s: %s", name.c_str(),
             cause == ENOENT ? "command not found" : strerror(cause));
    }
    return path;
}

std::string commandline(const Options &opts, const std::string &path) {
    if (opts.line != nullptr) {
        return opts.line;
    }
    std::vector<std::string> words = opts.args;
    words[0] = path;
    std::string line;
    const std::string why = makeline(words, line);
    if (!why.empty()) {
        fail(INEXPRESSIBLE, "%s", why.c_str());
    }
    return line;
}

// With -H the running daemon's link; else that of a daemon made for this command alone.
std::string connectdaemon(const Options &opts) {
    if (opts.home != nullptr) {
        std::string line = commandline(opts, opts.line == nullptr ? program(opts) : std::string());
        own.link = hostopen(opts.home);
        if (own.link < 0) {
            fail(NODAEMON, "no daemon runs in %s (%s)", opts.home, strerror(errno));
        }
        return line;
    }
    const std::string path = opts.line == nullptr ? program(opts) : std::string();
    std::string why = makehome(own);
    if (!why.empty()) {
        fail(BROKEN, "%s", why.c_str());
    }
    std::string link;
    if (opts.line == nullptr) {
        link = makestub(own, path);
        if (link.empty()) {
            fail(BROKEN, "cannot make a link in %s: %s", own.home.c_str(), strerror(errno));
        }
    }
    std::string line = commandline(opts, link);
    why = startdaemon(own);
    if (!why.empty()) {
        fail(NODAEMON, "%s", why.c_str());
    }
    int joined = 0;
    for (int ms = 0; ms < patience && joined == 0; ms++) {
        joined = joindaemon(own);
        if (joined == 0) {
            wait(-1, 1);
        }
    }
    if (joined <= 0) {
        fail(NODAEMON, joined < 0 ? "vosterd ended at once" : "vosterd does not start");
    }
    return line;
}

// The descriptor comes before the command has opened its terminal. Until then an interrupt that is
// typed meets nobody, and a look at what is unread, which opens the terminal too, would hang it up.
void waitforsetup(int master) {
    for (int ms = 0; ms < setup && tcgetpgrp(master) <= 0 && !wait(own.link, 1); ms++) {
    }
}

void tell(const char *what, const clientmsg &record) {
    fprintf(stderr, "%s: usrnum %d, msgtyp %d, message 0x%04X", what, record.usrnum, record.msgtyp,
            static_cast<unsigned>(record.message));
}

void tellend(int usrnum, int status) {
    tell("notice", {usrnum, MSG_ENDED, status});
    if (WIFSIGNALED(status)) {
        fprintf(stderr, " (killed by signal %d, %s)\n", WTERMSIG(status),
                strsignal(WTERMSIG(status)));
    } else {
        fprintf(stderr, " (exit code %d)\n", WEXITSTATUS(status));
    }
}

// Asks for the command; the terminal's master.
int start(const Options &opts, const std::string &line) {
    if (hostrun(own.link, opts.usrnum, line) != 0) {
        if (errno == E2BIG) {
            fail(INEXPRESSIBLE, "longer than %d bytes", CMDSIZE);
        }
        fail(LOST, "cannot reach the daemon: %s", strerror(errno));
    }
    bool answered = false;
    for (int ms = 0; ms < patience && !answered; ms += 100) {
        answered = wait(own.link, 100);
    }
    if (!answered) {
        fail(NODAEMON, "the daemon does not answer; perhaps it has a host already");
    }
    clientmsg reply = {};
    Link link = hostread(own.link, reply);
    if (opts.verbose && link == Link::got) {
        tell("reply", reply);
        fputc('\n', stderr);
    }
    if (link == Link::got && reply.msgtyp == MSG_FAILED) {
        fail(REFUSED, "the daemon could not start the command");
    }
    int master = -1;
    if (link == Link::got) {
        link = hostfd(own.link, master);
    }
    if (link != Link::got) {
        fail(LOST, "%s", linktext(link));
    }
    if (opts.verbose) {
        fprintf(stderr, "descriptor: the master of %s\n", ptsname(master));
    }
    waitforsetup(master);
    return master;
}

int session(const Options &opts) {
    const std::string line = connectdaemon(opts);
    const int master = start(opts, line);
    rawterminal();
    const Ending ending = relay({signals, own.link, opts.usrnum, master});
    switch (ending.how) {
    case Ending::signalled:
        endby(ending.value);
    case Ending::lost:
        fail(LOST, "the daemon ended before the command did");
    case Ending::failed:
        fail(BROKEN, "cannot write the output: %s", strerror(ending.value));
    case Ending::command:
        break;
    }
    restoreterminal();
    if (opts.verbose) {
        tellend(opts.usrnum, ending.value);
    }
    stopdaemon(own);
    return WIFSIGNALED(ending.value) ? 128 + WTERMSIG(ending.value) : WEXITSTATUS(ending.value);
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    plex::runstub(argv);
    plex::standardfds();
    const plex::Options opts = plex::options(argc, argv);
    plex::watchsignals();
    return plex::session(opts);
}
