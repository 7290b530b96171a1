// plexrun: a host with one user, the person at this terminal. Runs a command through vosterd.

#include "libunix/host/cmdline.h"
#include "libunix/host/hostlink.h"
#include "libunix/runtime/process.h"
#include "tools/options.h"
#include "tools/owndaemon.h"
#include "tools/relay.h"
#include "tools/stub.h"
#include "tools/terminal.h"

#include <cerrno>
#include <csignal>
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
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace plex {
namespace {

constexpr const char *USAGE =
    "usage: plexrun [-v] [-u USRNUM] [-H HOME] [--] COMMAND [ARG...]\n"
    "       plexrun [-v] [-u USRNUM] [-H HOME] -c 'COMMAND LINE'\n"
    "Runs a command on a pseudo-terminal through vosterd: through one of its own,\n"
    "or through the one that runs in HOME. Exits as the command does; plexrun(1)\n"
    "has the statuses that are its own.\n"
    "  -c LINE    the command line as the daemon is to get it\n"
    "  -H HOME    the home of a running daemon\n"
    "  -u USRNUM  the user for whom it runs, 0 by default\n"
    "  -v         tell what the host sees\n";

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
constexpr int opening = 2000;  // and for a command to take its terminal

struct Options {
    int usrnum = 0;
    const char *home = nullptr; // of a running daemon
    const char *line = nullptr; // the command line as it is
    std::vector<std::string> args;
    bool verbose = false; // tell what the daemon tells
};

OwnDaemon own;
int signals = -1;
int stub = -1; // where the one before the command asks, if there is one

void cleanup() {
    restoreterminal();
    stopdaemon(own);
}

[[noreturn]] void endby(int signo) {
    cleanup();
    signal(signo, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    raise(signo);
    sigprocmask(SIG_SETMASK, &none, nullptr); // and here it takes effect
    exit(128 + signo);
}

int usernumber(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long long n = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || n < INT32_MIN || n > INT32_MAX) {
        wronguse("-u wants a number of 32 bits, not '%s'", text);
    }
    return static_cast<int>(n);
}

Options options(int argc, char **argv) {
    Options opts;
    for (int c = 0; (c = nextoption(argc, argv, "+u:H:c:v")) != -1;) {
        switch (c) {
        case 'u':
            opts.usrnum = usernumber(optarg);
            break;
        case 'H':
            opts.home = optarg;
            break;
        case 'c':
            opts.line = optarg;
            break;
        default:
            opts.verbose = true;
        }
    }
    opts.args.assign(argv + optind, argv + argc);
    if (opts.line != nullptr && !opts.args.empty()) {
        wronguse("-c has the whole command; '%s' is too much", opts.args[0].c_str());
    }
    if (opts.line == nullptr && opts.args.empty()) {
        wronguse("no command");
    }
    return opts;
}

// Signals come through a descriptor from here on. The ones that would end this process must not do
// so before the terminal is given back and the daemon gone. One that whoever started us had ignored
// stays ignored: a blocked signal would come through the descriptor all the same.
void watchsignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo :
         {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGVTALRM, SIGPROF, SIGUSR1, SIGUSR2, SIGPIPE,
          SIGIO, SIGXCPU, SIGXFSZ, SIGTSTP, SIGCONT, SIGWINCH}) {
        struct sigaction now = {};
        if (sigaction(signo, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) {
            sigaddset(&set, signo);
        }
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals == -1) {
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
std::string programpath(const Options &opts) {
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

void startown() {
    std::string why = startdaemon(own);
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
}

// With -H the running daemon's link; else that of a daemon made for this command alone.
std::string connectdaemon(const Options &opts) {
    const std::string path = opts.line == nullptr ? programpath(opts) : std::string();
    if (opts.home != nullptr) {
        std::string line = commandline(opts, path);
        own.link = hostopen(opts.home);
        if (own.link == -1) {
            fail(NODAEMON, "no daemon runs in %s (%s)", opts.home, strerror(errno));
        }
        return line;
    }
    const std::string why = makehome(own);
    if (!why.empty()) {
        fail(BROKEN, "%s", why.c_str());
    }
    const std::string link = opts.line == nullptr ? makestub(own, path) : std::string();
    if (opts.line == nullptr && link.empty()) {
        fail(BROKEN, "cannot make a link in %s: %s", own.home.c_str(), strerror(errno));
    }
    std::string line = commandline(opts, link);
    startown();
    if (opts.line == nullptr) {
        stub = awaitstub(own);
        if (stub == -1) {
            fail(BROKEN, "cannot make an endpoint in %s", own.home.c_str());
        }
    }
    return line;
}

// Sets the command's terminal up, and returns a descriptor of the slave: without one a command that
// has closed its terminal, or never got one for its standard descriptors, would have hung it up,
// and could open it again unheard. Before the command has it nobody must open it and close it, and
// an interrupt that is typed meets nobody. A stub has it and waits to be answered; others are on
// their way, and that they take over settings of ours is likely, not certain.
int setup(int master) {
    struct termios settings = {};
    const int eof = endoffile();
    if (eof != -1 && tcgetattr(master, &settings) == 0) {
        settings.c_cc[VEOF] = static_cast<cc_t>(eof);
        tcsetattr(master, TCSANOW, &settings);
    }
    followsize(master);
    bool asked = false;
    if (stub != -1) {
        while (!(asked = wait(stub, 100)) && !wait(own.link, 0)) {
        }
    } else {
        for (int ms = 0; ms < opening && tcgetpgrp(master) <= 0 && !wait(own.link, 1); ms++) {
        }
    }
    const int slave = ioctl(master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (asked) {
        answerstub(stub);
    }
    return slave;
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

// Asks for the command; its terminal's master.
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
    return master;
}

int session(const Options &opts) {
    const std::string line = connectdaemon(opts);
    const int master = start(opts, line);
    const int slave = setup(master);
    rawterminal();
    // What a stub took over is the command's alone. Its terminal is not part of that: what is
    // written there, errors and prompts, goes past an output that is none.
    const bool taken = stub != -1;
    const Ending ending = relay({
        .signals = signals,
        .link = own.link,
        .usrnum = opts.usrnum,
        .master = master,
        .slave = slave,
        .input = !taken || isatty(STDIN_FILENO) != 0 ? STDIN_FILENO : -1,
        .output = !taken || isatty(STDOUT_FILENO) != 0 ? STDOUT_FILENO : STDERR_FILENO,
    });
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
    plex::program = {"plexrun", plex::USAGE, plex::WRONGUSE, plex::cleanup};
    const plex::Options opts = plex::options(argc, argv);
    plex::watchsignals();
    return plex::session(opts);
}
