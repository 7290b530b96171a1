// One loop around poll, a buffer each way, and nothing else that waits: a command that does not
// read, an output that is stopped and a signal must never keep each other from being served.
//
// Input from a file or a pipe ends, and a terminal has no end: it has an end-of-file character,
// which acts once, on the reader that it meets. A file stays at its end, whoever reads. So after
// the input's end the character is typed whenever the command's terminal has nothing left to be
// read; what throws typed-ahead input away, or is run by the one that got the first, meets the
// next.

#include "tools/relay.h"

#include "libunix/host/hostlink.h"
#include "tools/terminal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace plex {
namespace {

using Clock = std::chrono::steady_clock;

// A line that is edited holds 4095 bytes; the kernel throws away what goes beyond.
constexpr size_t maxline = 4000;
constexpr int firsttick = 5; // milliseconds between looks at what the command has left to read
constexpr int lasttick = 200;
// What was left running in the background may hold the terminal open after the command's end. That
// it is told to hang up takes it this long at most; else it is let go.
constexpr std::chrono::milliseconds grace(300);
constexpr size_t leftover = 1 << 17; // more than a terminal holds: the command's own is out by then

struct Flow {
    Session session;
    int out;             // standard output, of our own opening where that can be had
    bool outsocket;      // not so with a socket
    std::string typing;  // for the command
    std::string showing; // for the user
    bool inputended = false;
    bool hungup = false; // nobody has the command's terminal open any more
    bool ended = false;  // the command did, with this
    int status = 0;
    Clock::time_point letgo; // and this is when the rest is let go
    size_t since = 0;        // bytes shown since then
    size_t line = 0;         // bytes of the unfinished line that were typed
    bool unfinished = false; // the input's last line has no end
    int tick = firsttick;
};

// Whether `fd` can be read now.
bool pending(int fd) {
    pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, 0) > 0;
}

// Standard output may be shared with others, who do not expect it to become non-blocking. A
// terminal or a pipe is opened once more for that; a file needs it not.
void openoutput(Flow &flow) {
    struct stat st = {};
    flow.out = STDOUT_FILENO;
    if (fstat(STDOUT_FILENO, &st) != 0) {
        return;
    }
    flow.outsocket = S_ISSOCK(st.st_mode);
    if (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode)) {
        const int fd = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        flow.out = fd >= 0 ? fd : STDOUT_FILENO;
    }
}

// Takes what was read from the input. What no terminal gave may have lines that no terminal can
// hold: an end-of-file character within a line passes on what there is of it.
void take(Flow &flow, const char *bytes, size_t len) {
    struct termios settings = {};
    const bool edited =
        tcgetattr(flow.session.master, &settings) == 0 && (settings.c_lflag & ICANON) != 0;
    for (size_t i = 0; i < len; i++) {
        flow.typing += bytes[i];
        flow.line = bytes[i] == '\n' ? 0 : flow.line + 1;
        if (flow.line == maxline) {
            flow.line = 0;
            if (edited && isatty(STDIN_FILENO) == 0) {
                flow.typing += static_cast<char>(settings.c_cc[VEOF]);
            }
        }
    }
    flow.unfinished = bytes[len - 1] != '\n';
}

void readinput(Flow &flow) {
    char bytes[2048];
    const ssize_t n = read(STDIN_FILENO, bytes, sizeof bytes);
    if (n > 0) {
        take(flow, bytes, static_cast<size_t>(n));
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        flow.inputended = true;
    }
}

// The input is at its end and all of it is typed: types the end, unless what is typed waits still.
void typeend(Flow &flow) {
    // Before the command has its terminal ours would be the only look at it, and the end of that
    // look a hang-up.
    if (tcgetsid(flow.session.master) < 0) {
        return;
    }
    const int slave = ioctl(flow.session.master, TIOCGPTPEER, O_RDONLY | O_NOCTTY | O_CLOEXEC);
    const bool unread = slave >= 0 && pending(slave);
    if (slave >= 0) {
        close(slave);
    }
    struct termios settings = {};
    flow.tick = std::min(flow.tick * 2, lasttick);
    if (unread || tcgetattr(flow.session.master, &settings) != 0) {
        return;
    }
    // Line editors of their own know the character too, on an empty line alone.
    if ((settings.c_lflag & ICANON) == 0 && flow.unfinished) {
        flow.typing += '\n';
        flow.unfinished = false;
    }
    flow.typing += static_cast<char>(settings.c_cc[VEOF]);
}

void type(Flow &flow) {
    const ssize_t n = write(flow.session.master, flow.typing.data(), flow.typing.size());
    if (n > 0) {
        flow.typing.erase(0, static_cast<size_t>(n));
    } else if (n < 0 && errno != EINTR && errno != EAGAIN) {
        flow.typing.clear(); // nobody will read it
    }
}

void readmaster(Flow &flow) {
    char bytes[16384];
    const ssize_t n = read(flow.session.master, bytes, sizeof bytes);
    if (n > 0) {
        flow.showing.assign(bytes, static_cast<size_t>(n));
        flow.since += flow.ended ? flow.showing.size() : 0;
        flow.tick = firsttick;
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        flow.hungup = true;
    }
}

// 0, or the reason why it cannot be written.
int show(Flow &flow) {
    const ssize_t n = flow.outsocket
                          ? send(flow.out, flow.showing.data(), flow.showing.size(), MSG_DONTWAIT)
                          : write(flow.out, flow.showing.data(), flow.showing.size());
    if (n > 0) {
        flow.showing.erase(0, static_cast<size_t>(n));
    }
    return n < 0 && errno != EINTR && errno != EAGAIN ? errno : 0;
}

// False when the daemon is gone.
bool readlink(Flow &flow) {
    clientmsg record = {};
    if (hostread(flow.session.link, record) != Link::got) {
        return false;
    }
    if (record.msgtyp == MSG_ENDED && record.usrnum == flow.session.usrnum &&
        !WIFSTOPPED(record.message)) {
        flow.ended = true;
        flow.status = record.message;
        flow.letgo = Clock::now() + grace;
    }
    return true;
}

void followsize(const Flow &flow) {
    struct winsize size = {};
    if (terminalsize(size)) {
        ioctl(flow.session.master, TIOCSWINSZ, &size);
    }
}

// The signal that ends the session, or 0.
int readsignal(Flow &flow) {
    signalfd_siginfo info = {};
    if (read(flow.session.signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
        return 0;
    }
    switch (info.ssi_signo) {
    case SIGTSTP:
        suspend();
        break;
    case SIGCONT:
        resumeterminal();
        break;
    case SIGWINCH:
        break;
    default:
        return static_cast<int>(info.ssi_signo);
    }
    followsize(flow); // it may have changed while we stood still
    return 0;
}

int milliseconds(const Flow &flow) {
    if (flow.ended) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(flow.letgo - Clock::now());
        return std::max(static_cast<int>(left.count()), 0);
    }
    return flow.inputended && flow.typing.empty() && !flow.hungup ? flow.tick : -1;
}

// Whether the terminal has given all it will.
bool drained(const Flow &flow) {
    return flow.hungup ||
           (Clock::now() >= flow.letgo && (flow.since > leftover || !pending(flow.session.master)));
}

Ending run(Flow &flow) {
    for (;;) {
        if (flow.ended && flow.showing.empty() && drained(flow)) {
            return {Ending::command, flow.status};
        }
        const bool canread = flow.showing.empty() && !flow.hungup;
        const bool canwrite = !flow.typing.empty() && !flow.hungup;
        const auto masterevents =
            static_cast<short>((canread ? POLLIN : 0) | (canwrite ? POLLOUT : 0));
        // An entry that asks for nothing would still report a hang-up, over and over.
        pollfd fds[] = {
            {flow.session.signals, POLLIN, 0},
            {flow.ended ? -1 : flow.session.link, POLLIN, 0},
            {masterevents != 0 ? flow.session.master : -1, masterevents, 0},
            {!flow.inputended && flow.typing.empty() && !flow.hungup ? STDIN_FILENO : -1, POLLIN,
             0},
            {flow.showing.empty() ? -1 : flow.out, POLLOUT, 0},
        };
        const int n = poll(fds, std::size(fds), milliseconds(flow));
        if (n == 0 && !flow.ended) {
            typeend(flow);
        }
        if (n <= 0) {
            continue;
        }
        const int signo = fds[0].revents != 0 ? readsignal(flow) : 0;
        if (signo != 0) {
            return {Ending::signalled, signo};
        }
        if (fds[4].revents != 0) {
            const int cause = show(flow);
            if (cause == EPIPE && readsignal(flow) == SIGPIPE) {
                return {Ending::signalled, SIGPIPE};
            }
            if (cause != 0) {
                return {Ending::failed, cause};
            }
        }
        if (fds[2].revents != 0 && canread) {
            readmaster(flow);
        }
        if ((fds[2].revents & (POLLOUT | POLLHUP)) != 0 && canwrite) {
            type(flow);
        }
        if (fds[3].revents != 0) {
            readinput(flow);
        }
        if (fds[1].revents != 0 && !readlink(flow)) {
            return {Ending::lost, 0};
        }
    }
}

} // namespace

Ending relay(const Session &session) {
    Flow flow = {};
    flow.session = session;
    flow.tick = firsttick;
    fcntl(session.master, F_SETFL, O_RDWR | O_NONBLOCK);
    openoutput(flow);
    followsize(flow);
    const Ending ending = run(flow);
    if (flow.out != STDOUT_FILENO) {
        close(flow.out);
    }
    return ending;
}

} // namespace plex
