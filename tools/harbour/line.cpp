// The descriptors are asked only for what can be dealt with: the program is not read while the
// caller has not taken what it wrote, the caller not while his program has not taken what he typed.
// What a handler finds lost it marks; the call is ended where nothing else is going on.

#include "tools/harbour/line.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"
#include "tools/harbour/poller.h"
#include "tools/harbour/service.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <libtelnet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace harbour {

std::vector<Line> lines;
Rules rules;
Time rightnow;
Time due = Time::max();

namespace {

constexpr size_t typedatonce = 4096;  // bytes taken from a caller before his program takes them
constexpr size_t mostreplies = 16384; // bytes that wait for a caller who is still listened to
constexpr size_t recentbytes = 4096;
constexpr ssize_t much = 1024; // bytes read of a program that has more to say, perhaps at once
constexpr int inarow = 16;     // such reads before the others have their turn

std::array<char, 65536> scratch;
bool taking; // bytes are being taken from a caller: his call must not end under them

bool temporary(ssize_t n) {
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

// Takes what `put` has taken off the buffer; false when the other side is gone. What is empty takes
// no memory.
bool drained(std::string &buffer, ssize_t put) {
    if (put < 0 && !temporary(put)) {
        return false;
    }
    buffer.erase(0, static_cast<size_t>(std::max<ssize_t>(put, 0)));
    if (buffer.empty()) {
        std::string().swap(buffer);
    }
    return true;
}

ssize_t sendto(const Line &line, const char *bytes, size_t len) {
    return send(line.caller, bytes, len, MSG_NOSIGNAL | MSG_DONTWAIT);
}

void tocaller(void *who, const char *bytes, size_t len) {
    Line &line = *static_cast<Line *>(who);
    ssize_t sent = 0;
    if (line.tocaller.empty() && !line.lost) {
        sent = sendto(line, bytes, len);
        line.lost = sent < 0 && !temporary(sent);
        sent = std::max<ssize_t>(sent, 0);
    }
    if (!line.lost) {
        line.tocaller.append(bytes + sent, len - static_cast<size_t>(sent));
    }
}

void toprogram(Line &line, const char *bytes, size_t len) {
    ssize_t sent = 0;
    if (line.toprogram.empty() && line.master >= 0) {
        sent = std::max<ssize_t>(write(line.master, bytes, len), 0);
    }
    line.toprogram.append(bytes + sent, len - static_cast<size_t>(sent));
}

void typed(void *who, const char *bytes, size_t len) {
    Line &line = *static_cast<Line *>(who);
    line.typed += len;
    for (; len > 0 && !line.busy(); len--) {
        rules.pressed(line, *bytes++);
    }
    if (len > 0) {
        toprogram(line, bytes, len);
    }
}

// Interrupts and their kind are keys of the program's terminal.
void command(void *who, unsigned char code) {
    Line &line = *static_cast<Line *>(who);
    if (code == TELNET_AYT) {
        show(line, "[harbour]\r\n", 11);
    }
    struct keyof {
        unsigned char code;
        size_t key;
    };
    constexpr std::array keys = {keyof{TELNET_IP, VINTR},    keyof{TELNET_BREAK, VQUIT},
                                 keyof{TELNET_ABORT, VQUIT}, keyof{TELNET_SUSP, VSUSP},
                                 keyof{TELNET_EOF, VEOF},    keyof{TELNET_EC, VERASE},
                                 keyof{TELNET_EL, VKILL}};
    struct termios settings = {};
    for (const keyof &k : keys) {
        if (k.code == code && line.master >= 0 && tcgetattr(line.master, &settings) == 0) {
            const char key = static_cast<char>(settings.c_cc[k.key]);
            toprogram(line, &key, 1);
        }
    }
}

void setsize(const Line &line) {
    winsize size = {};
    size.ws_col = static_cast<unsigned short>(line.columns);
    size.ws_row = static_cast<unsigned short>(line.rows);
    ioctl(line.master, TIOCSWINSZ, &size);
}

void size(void *who, int columns, int rows) {
    Line &line = *static_cast<Line *>(who);
    line.columns = columns > 0 ? columns : 80;
    line.rows = rows > 0 ? rows : 24;
    if (line.master >= 0) {
        setsize(line);
    }
}

// Kept only if it may stand in a command line.
void terminal(void *who, const char *name) {
    constexpr size_t longest = 32;
    std::string lower(name, strnlen(name, longest));
    plex::strlwr(lower.data());
    const bool safe =
        lower.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == lower.npos;
    static_cast<Line *>(who)->terminal = safe ? lower : "";
}

constexpr TelnetUser user = {typed, command, size, terminal, tocaller};

} // namespace

void hurry(Time when) {
    due = std::min(due, when);
}

void enter(Line &line, State state) {
    line.state = state;
    line.began = line.active = rightnow;
    line.warned = false;
    line.until = Time::max();
    hurry(rightnow);
}

void openline(Line &line, int caller, const std::string &from) {
    const int index = line.index;
    line = {};
    line.index = index;
    line.caller = caller;
    line.from = from;
    line.called = rightnow;
    line.lost = !telnetopen(line.telnet, user, &line);
}

void show(Line &line, const char *bytes, size_t len) {
    line.shown += len;
    if (rules.watched) {
        line.recent.append(bytes, len);
        if (line.recent.size() > 2 * recentbytes) {
            line.recent.erase(0, line.recent.size() - recentbytes);
        }
        rules.seen(line, bytes, len);
    }
    telnetwrite(line.telnet, bytes, len);
}

void say(Line &line, int number, Words words) {
    const std::string said = text(line.language, number, words);
    const std::string sent = line.utf8 ? toutf8(said) : said;
    show(line, sent.data(), sent.size());
}

void callerready(Line &line, uint32_t events) {
    if ((events & EPOLLOUT) != 0 && !line.tocaller.empty()) {
        line.lost =
            !drained(line.tocaller, sendto(line, line.tocaller.data(), line.tocaller.size()));
    }
    if ((line.callerevents & EPOLLIN) != 0 && (events & ~static_cast<uint32_t>(EPOLLOUT)) != 0) {
        const ssize_t n = recv(line.caller, scratch.data(), typedatonce, MSG_DONTWAIT);
        if (n > 0) {
            taking = true;
            line.lost =
                !telnetread(line.telnet, scratch.data(), static_cast<size_t>(n)) || line.lost;
            taking = false;
        } else if (!temporary(n)) {
            line.lost = true;
        }
    } else if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
        line.lost = true; // whether or not anything is still to be read: nobody is there
    }
    settle(line);
}

void masterready(Line &line, uint32_t events) {
    if ((events & EPOLLOUT) != 0 && !line.toprogram.empty() &&
        !drained(line.toprogram,
                 write(line.master, line.toprogram.data(), line.toprogram.size()))) {
        line.toprogram.clear(); // nobody will read it
    }
    const bool readable = (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
    ssize_t n = much;
    for (int i = 0; readable && i < inarow && n >= much && line.tocaller.empty(); i++) {
        n = read(line.master, scratch.data(), scratch.size());
        if (n > 0) {
            line.since += line.ended ? static_cast<size_t>(n) : 0;
            show(line, scratch.data(), static_cast<size_t>(n));
        } else if (!temporary(n)) {
            line.hungup = true;
            rules.hungup(line);
        }
    }
    settle(line);
}

void openmaster(Line &line, int master) {
    line.master = master;
    line.masterevents = 0;
    fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK);
    setsize(line);
    const std::string ahead = std::move(line.toprogram);
    line.toprogram.clear();
    if (!ahead.empty()) {
        toprogram(line, ahead.data(), ahead.size());
    }
}

void closemaster(Line &line) {
    if (line.master >= 0) {
        pollfor(line.master, 0, line.masterevents, Source::command, line.index);
        close(line.master);
        line.master = -1;
    }
    std::string().swap(line.toprogram);
}

void stopprogram(Line &line) {
    if (line.busy()) {
        killprogram(line.usrnum);
        closemaster(line);
    }
    line.program.clear();
}

void settle(Line &line) {
    if (taking || line.caller < 0) {
        return;
    }
    if (line.lost) {
        hangup(line);
        return;
    }
    if (line.state == State::leaving && line.tocaller.empty()) {
        shutdown(line.caller, SHUT_WR);
    }
    const bool listen = line.toprogram.empty() && line.tocaller.size() < mostreplies;
    const uint32_t caller = EPOLLRDHUP | (listen ? EPOLLIN : 0U) |
                            (line.tocaller.empty() ? 0U : static_cast<uint32_t>(EPOLLOUT));
    pollfor(line.caller, caller, line.callerevents, Source::caller, line.index);
    const uint32_t master = line.hungup ? 0U
                                        : (line.tocaller.empty() ? EPOLLIN : 0U) |
                                              (line.toprogram.empty() ? 0U : EPOLLOUT);
    pollfor(line.master, master, line.masterevents, Source::command, line.index);
}

void hangup(Line &line) {
    stopprogram(line);
    rules.tell(text(0, O_HANGUP, {line.number(), line.from}));
    pollfor(line.caller, 0, line.callerevents, Source::caller, line.index);
    telnetclose(line.telnet);
    close(line.caller);
    const int index = line.index;
    line = {};
    line.index = index;
}

} // namespace harbour
