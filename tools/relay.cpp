// One loop around poll, a buffer each way, and nothing else that waits: a command that does not
// read, an output that is stopped and a signal must never keep each other from being served.
//
// Input that is at its end has its end typed, as a person would: the end-of-file character acts
// once, on the reader that it meets.

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

// What was left running in the background may hold the terminal open after the command's end. That
// it is told to hang up takes it this long at most; else it is let go.
constexpr std::chrono::milliseconds grace(300);
constexpr size_t leftover = 1 << 17; // more than a terminal holds: the command's own is out by then

struct Flow {
    Session session;
    int out;             // the output, of our own opening where that can be had
    bool outsocket;      // not so with a socket
    std::string typing;  // for the command
    std::string showing; // for the user
    bool inputended = false;
    bool hungup = false; // nobody has the command's terminal open any more
    bool ended = false;  // the command did, with this
    int status = 0;
    Clock::time_point letgo; // and this is when the rest is let go
    size_t since = 0;        // bytes shown since then
    bool unfinished = false; // the last line that was typed has no end
};

// Whether `fd` can be read now.
bool pending(int fd) {
    pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, 0) > 0;
}

// The output may be shared with others, who do not expect it to become non-blocking. A
// terminal or a pipe is opened once more for that; a file needs it not.
void openoutput(Flow &flow) {
    struct stat st = {};
    flow.out = flow.session.output;
    if (fstat(flow.out, &st) != 0) {
        return;
    }
    flow.outsocket = S_ISSOCK(st.st_mode);
    if (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode)) {
        const std::string name = "/proc/self/fd/" + std::to_string(flow.out);
        const int fd = open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        flow.out = fd != -1 ? fd : flow.out;
    }
}

// Behind an unfinished line the first character passes that on.
void typeend(Flow &flow) {
    struct termios settings = {};
    flow.inputended = true;
    if (tcgetattr(flow.session.master, &settings) == 0) {
        flow.typing.assign(flow.unfinished ? 2 : 1, static_cast<char>(settings.c_cc[VEOF]));
    }
}

void readinput(Flow &flow) {
    char bytes[2048];
    const ssize_t n = read(flow.session.input, bytes, sizeof bytes);
    if (n > 0) {
        flow.typing.assign(bytes, static_cast<size_t>(n));
        flow.unfinished = bytes[n - 1] != '\n';
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        typeend(flow);
    }
}

void type(Flow &flow) {
    const ssize_t n = write(flow.session.master, flow.typing.data(), flow.typing.size());
    if (n > 0) {
        flow.typing.erase(0, static_cast<size_t>(n));
    } else if (n == -1 && errno != EINTR && errno != EAGAIN) {
        flow.typing.clear(); // nobody will read it
    }
}

void readmaster(Flow &flow) {
    char bytes[16384];
    const ssize_t n = read(flow.session.master, bytes, sizeof bytes);
    if (n > 0) {
        flow.showing.assign(bytes, static_cast<size_t>(n));
        flow.since += flow.ended ? flow.showing.size() : 0;
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
    return n == -1 && errno != EINTR && errno != EAGAIN ? errno : 0;
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
        close(flow.session.slave);
    }
    return true;
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
    followsize(flow.session.master); // it may have changed while we stood still
    return 0;
}

int milliseconds(const Flow &flow) {
    if (!flow.ended) {
        return -1;
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(flow.letgo - Clock::now());
    return std::max(static_cast<int>(left.count()), 0);
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
        const bool typeable = flow.typing.empty() && !flow.inputended && !flow.hungup;
        const auto masterevents =
            static_cast<short>((canread ? POLLIN : 0) | (canwrite ? POLLOUT : 0));
        // An entry that asks for nothing would still report a hang-up, over and over.
        pollfd fds[] = {
            {flow.session.signals, POLLIN, 0},
            {flow.ended ? -1 : flow.session.link, POLLIN, 0},
            {masterevents != 0 ? flow.session.master : -1, masterevents, 0},
            {typeable ? flow.session.input : -1, POLLIN, 0},
            {flow.showing.empty() ? -1 : flow.out, POLLOUT, 0},
        };
        if (poll(fds, std::size(fds), milliseconds(flow)) <= 0) {
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
    fcntl(session.master, F_SETFL, O_RDWR | O_NONBLOCK);
    openoutput(flow);
    const Ending ending = run(flow);
    if (flow.out != session.output) {
        close(flow.out);
    }
    return ending;
}

} // namespace plex
