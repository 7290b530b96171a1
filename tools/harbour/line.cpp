// The descriptors are asked only for what can be dealt with: the program is not read while the
// caller has not taken what it wrote, the caller not while his program has not taken what he typed.
// What a handler finds lost it marks; the call is ended where nothing else is going on.

#include "tools/harbour/line.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace harbour {

int epoll = -1;
std::vector<Line> lines;
Rules rules;
Time rightnow;
Time due;
std::deque<plex::servermsg> asked;
std::deque<std::string> told;

namespace {

constexpr size_t typedatonce = 4096;  // bytes taken from a caller before his program takes them
constexpr size_t mostreplies = 16384; // bytes that wait for a caller who is still listened to
constexpr size_t recentbytes = 4096;
constexpr size_t viewedbytes = 1 << 17; // between two looks of the operator
constexpr ssize_t much = 1024; // bytes read of a program that has more to say, perhaps at once
constexpr int inarow = 16;     // such reads before the others have their turn

std::array<char, 65536> scratch;

bool temporary(ssize_t n) {
    return n == -1 && (errno == EAGAIN || errno == EINTR);
}

// Writes, and buffers the rest. False when the other side is gone.
bool pass(int fd, std::string &buffer, const char *bytes, size_t len) {
    const ssize_t n = fd != -1 && buffer.empty() ? write(fd, bytes, len) : 0;
    const auto put = static_cast<size_t>(std::max<ssize_t>(n, 0));
    buffer.append(bytes + put, len - put);
    return n != -1 || temporary(n);
}

// Writes what is buffered; as above. What is empty takes no memory.
bool drain(int fd, std::string &buffer) {
    const ssize_t n = write(fd, buffer.data(), buffer.size());
    const bool open = n != -1 || temporary(n);
    buffer.erase(0, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (buffer.empty()) {
        std::string().swap(buffer);
    }
    return open;
}

void tocaller(Line &line, const char *bytes, size_t len) {
    line.lost = line.lost || !pass(line.caller.fd, line.tocaller, bytes, len);
}

void toprogram(Line &line, const char *bytes, size_t len) {
    pass(line.master.fd, line.toprogram, bytes, len);
}

void typed(Line &line, const char *bytes, size_t len) {
    line.typed += len;
    for (; len > 0 && !line.busy(); len--) {
        keypressed(line, *bytes++);
    }
    if (len > 0) {
        toprogram(line, bytes, len);
    }
}

// Interrupts and their kind are keys of the program's terminal.
void command(Line &line, unsigned char code) {
    constexpr std::pair<unsigned char, size_t> keys[] = {
        {TELNET_IP, VINTR}, {TELNET_BREAK, VQUIT}, {TELNET_ABORT, VQUIT}, {TELNET_SUSP, VSUSP},
        {TELNET_EOF, VEOF}, {TELNET_EC, VERASE},   {TELNET_EL, VKILL}};
    struct termios settings = {};
    for (const auto &[name, at] : keys) {
        if (name == code && line.master.fd != -1 && tcgetattr(line.master.fd, &settings) == 0) {
            const char key = static_cast<char>(settings.c_cc[at]);
            toprogram(line, &key, 1);
        }
    }
    if (code == TELNET_AYT) {
        show(line, "[harbour]\r\n", 11);
    }
}

void resized(Line &line, const unsigned char *b, size_t len) {
    line.size = terminalsize;
    if (len == 4 && (b[0] | b[1]) != 0) {
        line.size.ws_col = static_cast<unsigned short>(b[0] << 8 | b[1]);
    }
    if (len == 4 && (b[2] | b[3]) != 0) {
        line.size.ws_row = static_cast<unsigned short>(b[2] << 8 | b[3]);
    }
    ioctl(line.master.fd, TIOCSWINSZ, &line.size);
}

// Kept only if it may stand in a command line.
std::string safename(const char *name) {
    constexpr size_t longest = 32;
    std::string lower(name, strnlen(name, longest));
    plex::strlwr(lower.data());
    const size_t odd = lower.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.");
    return odd == lower.npos && !lower.empty() ? lower : unnamed;
}

// What telnet finds in the caller's bytes, and has for him.
void heard(telnet_t * /*tracker*/, telnet_event_t *e, void *who) {
    Line &line = *static_cast<Line *>(who);
    if (e->type == TELNET_EV_SEND) {
        tocaller(line, e->data.buffer, e->data.size);
    } else if (e->type == TELNET_EV_DATA) {
        typed(line, e->data.buffer, e->data.size);
    } else if (e->type == TELNET_EV_IAC) {
        command(line, e->iac.cmd);
    } else if (e->type == TELNET_EV_TTYPE && e->ttype.cmd == TELNET_TTYPE_IS) {
        line.terminal = safename(e->ttype.name);
    } else if (e->type == TELNET_EV_SUBNEGOTIATION && e->sub.telopt == TELNET_TELOPT_NAWS) {
        resized(line, reinterpret_cast<const unsigned char *>(e->sub.buffer), e->sub.size);
    }
}

void callerready(int index, uint32_t events) {
    Line &line = lines[static_cast<size_t>(index)];
    if ((events & EPOLLOUT) != 0) {
        line.lost = !drain(line.caller.fd, line.tocaller);
    }
    if ((line.caller.asked & EPOLLIN) != 0 && (events & ~EPOLLOUT) != 0) {
        const ssize_t n = recv(line.caller.fd, scratch.data(), typedatonce, MSG_DONTWAIT);
        const bool open =
            n > 0 ? telnetread(line.telnet, scratch.data(), static_cast<size_t>(n)) : temporary(n);
        line.lost = line.lost || !open;
    } else if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
        line.lost = true; // whether or not anything is still to be read: nobody is there
    }
    settle(line);
}

void masterready(int index, uint32_t events) {
    Line &line = lines[static_cast<size_t>(index)];
    if ((events & EPOLLOUT) != 0 && !drain(line.master.fd, line.toprogram)) {
        line.toprogram.clear(); // nobody will read it
    }
    ssize_t n = (events & ~EPOLLOUT) != 0 ? much : 0;
    for (int i = 0; i < inarow && n >= much && line.tocaller.empty(); i++) {
        n = read(line.master.fd, scratch.data(), scratch.size());
        if (n > 0) {
            show(line, scratch.data(), static_cast<size_t>(n));
        } else if (!temporary(n)) {
            line.hungup = true;
            halfended(line);
        }
    }
    settle(line);
}

} // namespace

void watch(Watch &what, uint32_t events) {
    if (what.fd == -1 || events == what.asked) {
        return;
    }
    epoll_event event = {};
    event.events = events;
    event.data.ptr = &what;
    const int add = what.asked == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (epoll_ctl(epoll, events == 0 ? EPOLL_CTL_DEL : add, what.fd, &event) == 0) {
        what.asked = events;
    }
}

void tell(const std::string &what) {
    if (!told.empty() && told.back().ends_with("  " + what)) {
        return;
    }
    plex::inform("%s\n", what.c_str());
    told.push_back(std::string(" ") + plex::nctime(plex::now()) + "  " + what);
    if (told.size() > mosttold) {
        told.pop_front();
    }
}

void answer(Line &line, int caller, const std::string &from) {
    line.caller = {caller, callerready, line.index, 0};
    line.from = from;
    line.called = rightnow;
    tell(text(0, O_CALL, {line.number(), from}));
    line.menu = readmenu(tell);
    line.lost = !telnetopen(line.telnet, heard, &line);
    if (!line.lost) {
        greet(line);
    }
    settle(line);
}

void show(Line &line, const char *bytes, size_t len) {
    line.shown += len;
    if (rules.watched) {
        const size_t kept = line.index == rules.viewed ? viewedbytes : recentbytes;
        line.recent.append(bytes, len);
        if (line.recent.size() > 2 * kept) {
            line.recent.erase(0, line.recent.size() - kept);
        }
    }
    telnetwrite(line.telnet, bytes, len);
}

void openmaster(Line &line, int master) {
    line.master = {master, masterready, line.index, 0};
    fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK);
    ioctl(master, TIOCSWINSZ, &line.size);
    drain(master, line.toprogram);
}

void closemaster(Line &line) {
    watch(line.master, 0);
    if (line.master.fd != -1) {
        close(line.master.fd);
    }
    line.master.fd = -1;
    std::string().swap(line.toprogram);
}

void settle(Line &line) {
    if (line.lost) {
        stopprogram(line);
        tell(text(0, O_HANGUP, {line.number(), line.from}));
        watch(line.caller, 0);
        telnetclose(line.telnet);
        close(line.caller.fd);
        const int index = line.index;
        line = {};
        line.index = index;
        return;
    }
    if (line.state == State::leaving && line.tocaller.empty()) {
        shutdown(line.caller.fd, SHUT_WR);
    }
    const bool listen = line.toprogram.empty() && line.tocaller.size() < mostreplies;
    const bool taken = line.tocaller.empty();
    watch(line.caller, EPOLLRDHUP | (listen ? EPOLLIN : 0U) | (taken ? 0U : EPOLLOUT));
    watch(line.master,
          line.hungup ? 0U : (taken ? EPOLLIN : 0U) | (line.toprogram.empty() ? 0U : EPOLLOUT));
}

} // namespace harbour
