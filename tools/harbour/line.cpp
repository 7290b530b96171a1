// A line's state says who gets the caller's keys. Its descriptors are asked only for what can be
// dealt with: the program is not read while the caller has not taken what it wrote, the caller not
// while his program has not taken what he typed. What a handler finds lost it marks; the call is
// ended where nothing else is going on.

#include "tools/harbour/line.h"

#include "harbour_texts.h"
#include "libsrc/plex.h"
#include "tools/harbour/poller.h"
#include "tools/harbour/service.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libtelnet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace harbour {

std::vector<Line> lines;
Rules rules;
Time rightnow;
Time due = Time::max();

namespace {

using std::chrono::milliseconds;

constexpr size_t typedatonce = 4096;  // bytes taken from a caller before his program takes them
constexpr size_t mostreplies = 16384; // bytes that wait for a caller who is still listened to
constexpr size_t recentbytes = 4096;
constexpr milliseconds grace(300);    // for what a program left behind, to give the terminal up
constexpr milliseconds notice(1000);  // from the hang-up to the notice of the end
constexpr milliseconds goodbye(2000); // for the caller to read it
constexpr size_t leftover = 1 << 17; // more than a terminal holds: the program's own is out by then
constexpr int maxrunning = 4096;     // usrnums are of the form n * maxrunning + index

std::array<char, 65536> scratch;
bool taking; // bytes are being taken from a caller: his call must not end under them

Time plus(Time from, milliseconds time) {
    return time.count() > 0 ? from + time : Time::max();
}

// The latest time for a warning; long enough ahead to be of use, short beside the whole.
Time warning(Time end, milliseconds whole) {
    return end == Time::max() ? end : end - std::min<milliseconds>(whole / 4, milliseconds(60000));
}

void hurry(Time when) {
    due = std::min(due, when);
}

bool temporary(ssize_t n) {
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

// Sends what there is of a buffer, by `put`; false when the other side is gone. What is empty takes
// no memory.
template <class Put> bool drain(std::string &buffer, Put put) {
    const ssize_t n = put(buffer.data(), buffer.size());
    if (n < 0 && !temporary(n)) {
        return false;
    }
    if (n == static_cast<ssize_t>(buffer.size())) {
        std::string().swap(buffer);
    } else {
        buffer.erase(0, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    return true;
}

void tocaller(void *who, const char *bytes, size_t len) {
    Line &line = *static_cast<Line *>(who);
    size_t sent = 0;
    if (line.lost) {
        return;
    }
    if (line.tocaller.empty()) {
        const ssize_t n = send(line.caller, bytes, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        line.lost = n < 0 && !temporary(n);
        sent = static_cast<size_t>(std::max<ssize_t>(n, 0));
    }
    if (sent < len && !line.lost) {
        line.tocaller.append(bytes + sent, len - sent);
    }
}

void toprogram(Line &line, const char *bytes, size_t len) {
    size_t sent = 0;
    if (line.toprogram.empty() && line.master >= 0) {
        sent = static_cast<size_t>(std::max<ssize_t>(write(line.master, bytes, len), 0));
    }
    line.toprogram.append(bytes + sent, len - sent);
}

// What the caller is to see.
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

std::string number(const Line &line) {
    return std::to_string(line.index + 1);
}

std::string padded(std::string text, size_t columns) {
    text.resize(std::max(text.size(), columns), ' ');
    return text;
}

// What is left of the call.
std::string timeleft(const Line &line) {
    const Time end = plus(line.called, rules.call);
    return end == Time::max() ? text(line.language, T_ENDLESS)
                              : hoursminutes(end - rightnow + std::chrono::seconds(59));
}

void enter(Line &line, State state) {
    line.state = state;
    line.began = line.active = rightnow;
    line.warned = false;
    line.until = Time::max();
    due = rightnow; // it has times of its own
}

void asklanguage(Line &line);

void showmenu(Line &line) {
    enter(line, State::menu);
    say(line, T_MENUTOP, {padded(number(line), 4)});
    for (const Entry &entry : line.menu.entries) {
        char minutes[16];
        snprintf(minutes, sizeof minutes, "%6.4g", entry.minutes);
        say(line, T_MENULINE,
            {std::string(1, entry.key), padded(entry.title, 40),
             entry.minutes > 0 ? minutes : std::string(6, ' ')});
    }
    say(line, T_MENUBOTTOM,
        {padded(hoursminutes(rightnow - line.called), 6), padded(timeleft(line), 6)});
}

void showwho(Line &line) {
    say(line, T_WHOTOP);
    for (const Line &other : lines) {
        if (other.state != State::none) {
            say(line, T_WHOLINE,
                {padded(number(other), 4), padded(other.program, 40),
                 hoursminutes(rightnow - other.called)});
        }
    }
    say(line, T_PROMPT);
}

void askcharset(Line &line) {
    if (plainlanguage(line.language)) {
        line.utf8 = false;
        showmenu(line);
        return;
    }
    enter(line, State::charset);
    line.utf8 = true;
    say(line, T_CHARSETONE);
    line.utf8 = false;
    say(line, T_CHARSETTWO);
}

void asklanguage(Line &line) {
    line.language = 0;
    if (plex::nlingo < 2) {
        askcharset(line);
        return;
    }
    enter(line, State::language);
    line.utf8 = true;
    say(line, T_LANGUAGETOP);
    for (int i = 0; i < std::min(plex::nlingo, 9); i++) {
        say(line, T_LANGUAGELINE, {std::to_string(i + 1), plex::languages[i]->desc});
    }
    say(line, T_LANGUAGEASK);
}

// A terminal's name that may stand in a command line.
std::string safename(const Line &line) {
    return line.terminal.empty() ? "ansi" : line.terminal;
}

void startprogram(Line &line, const Entry &entry) {
    static int serial = 0;
    std::string command = entry.command;
    for (size_t at = 0; (at = command.find("%t", at)) != command.npos;) {
        command.replace(at, 2, safename(line));
    }
    serial = (serial + 1) % (INT32_MAX / maxrunning);
    line.usrnum = serial * maxrunning + line.index;
    line.program = entry.title;
    line.hungup = line.ended = false;
    line.since = 0;
    say(line, T_STARTING, {entry.title});
    enter(line, State::starting);
    if (entry.minutes > 0) {
        line.until = rightnow + milliseconds(static_cast<int64_t>(entry.minutes * 60000));
    }
    plex::inform("line %d runs %s\n", line.index + 1, command.c_str());
    runprogram(line.usrnum, command);
}

void menukey(Line &line, char key) {
    const Entry *entry = findentry(line.menu, key);
    if (entry != nullptr) {
        startprogram(line, *entry);
    } else if (key == '\r' || key == '?') {
        showmenu(line);
    } else if (toupper(key) == WHO) {
        showwho(line);
    } else if (toupper(key) == LANGUAGE) {
        asklanguage(line);
    } else if (toupper(key) == GOODBYE) {
        endcall(line, T_GOODBYE, {hoursminutes(rightnow - line.called)});
    }
}

void pressed(Line &line, char key) {
    line.active = rightnow;
    line.warned = false;
    if (line.state == State::language) {
        const int chosen = key == '\r' ? 0 : key - '1';
        if (chosen >= 0 && chosen < std::min(plex::nlingo, 9)) {
            line.language = chosen;
            say(line, T_CHOSEN, {plex::languages[chosen]->desc});
            askcharset(line);
        }
    } else if (line.state == State::charset) {
        if (key == '\r' || key == '1' || key == '2') {
            line.utf8 = key != '2';
            showmenu(line);
        }
    } else if (line.state == State::menu) {
        menukey(line, key);
    }
}

void typed(void *who, const char *bytes, size_t len) {
    Line &line = *static_cast<Line *>(who);
    line.typed += len;
    while (len > 0 && line.state != State::starting && line.state != State::running) {
        pressed(line, *bytes++);
        len--;
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

void terminal(void *who, const char *name) {
    Line &line = *static_cast<Line *>(who);
    line.terminal.clear();
    for (; *name != '\0' && line.terminal.size() < 32; name++) {
        const auto c = static_cast<char>(tolower(static_cast<unsigned char>(*name)));
        if (isalnum(static_cast<unsigned char>(c)) == 0 && strchr("+-.", c) == nullptr) {
            line.terminal.clear();
            return;
        }
        line.terminal += c;
    }
}

constexpr TelnetUser user = {typed, command, size, terminal, tocaller};

// Asks the descriptors for what can be dealt with now; ends a call that is lost.
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

void closemaster(Line &line) {
    if (line.master >= 0) {
        pollfor(line.master, 0, line.masterevents, Source::command, line.index);
        close(line.master);
        line.master = -1;
    }
    std::string().swap(line.toprogram);
}

// Ends the program where it runs still.
void stopprogram(Line &line) {
    if (line.state == State::starting || line.state == State::running) {
        killprogram(line.usrnum);
        closemaster(line);
    }
    line.program.clear();
}

// The program is over: back to the menu.
void over(Line &line, int number, Words words) {
    closemaster(line);
    if (!plainlanguage(line.language)) {
        show(line, "\033[0m", 4);
    }
    say(line, number, words);
    line.program.clear();
    showmenu(line);
}

void tellend(Line &line) {
    if (WIFSIGNALED(line.status)) {
        over(line, T_SIGNALLED,
             {line.program, std::to_string(WTERMSIG(line.status)),
              strsignal(WTERMSIG(line.status))});
    } else {
        over(line, WEXITSTATUS(line.status) == 0 ? T_ENDED : T_EXITED,
             {line.program, std::to_string(WEXITSTATUS(line.status))});
    }
}

// Whether both the end and the last output are known; else how long to wait for the other one.
void checkend(Line &line) {
    if (line.hungup && line.ended) {
        tellend(line);
    } else if (line.hungup || line.ended) {
        line.began = rightnow;
        line.until = rightnow + (line.ended ? grace : notice);
        hurry(line.until);
    }
}

// The wait for the other half of the end is over.
void letgo(Line &line) {
    if (line.ended) {
        pollfd terminal = {line.master, POLLIN, 0};
        const bool unread = !line.tocaller.empty() || poll(&terminal, 1, 0) > 0;
        if (unread && line.since < leftover) {
            line.until = rightnow + grace;
            hurry(line.until);
            return;
        }
        tellend(line);
    } else {
        killprogram(line.usrnum); // that the daemon drops its record
        over(line, T_NOBODYKNOWS, {line.program});
    }
}

// Warns at `soon`, ends at `end`: true when it is over. Else the line is due at the next of them.
bool timeover(Line &line, bool &warned, Time soon, Time end, int number) {
    if (rightnow >= end) {
        return true;
    }
    if (!warned && rightnow >= soon) {
        warned = true;
        const auto left = std::chrono::ceil<std::chrono::seconds>(end - rightnow).count();
        say(line, number, {std::to_string(left)});
    }
    hurry(warned ? end : soon);
    return false;
}

void lookat(Line &line) {
    const Time callend = plus(line.called, rules.call);
    switch (line.state) {
    case State::none:
        return;
    case State::leaving:
        if (rightnow >= line.until) {
            line.lost = true;
        }
        hurry(line.until);
        return;
    case State::starting:
    case State::running:
        if (line.hungup || line.ended) {
            hurry(line.until);
            if (rightnow >= line.until) {
                letgo(line);
            }
        } else {
            const Time end = std::min(line.until, callend);
            const auto whole = std::chrono::duration_cast<milliseconds>(end - line.began);
            if (timeover(line, line.warned, warning(end, whole), end, T_TIMEWARNING)) {
                endprogram(line, T_TIMEOVER);
            }
        }
        return;
    default: {
        const Time idleend = plus(line.active, rules.idle);
        if (timeover(line, line.warned, warning(idleend, rules.idle), idleend, T_IDLEWARNING)) {
            endcall(line, T_IDLEOVER);
        } else if (timeover(line, line.callwarned, warning(callend, rules.call), callend,
                            T_TIMEWARNING)) {
            endcall(line, T_CALLOVER);
        }
    }
    }
}

} // namespace

std::string hoursminutes(Clock::duration time) {
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(time).count();
    char text[32];
    snprintf(text, sizeof text, "%d:%02d", static_cast<int>(minutes / 60),
             static_cast<int>(minutes % 60));
    return text;
}

void say(Line &line, int number, Words words) {
    const std::string said = text(line.language, number, words);
    const std::string sent = line.utf8 ? toutf8(said) : said;
    show(line, sent.data(), sent.size());
}

void answer(Line &line, int caller, const std::string &from) {
    const int index = line.index;
    line = {};
    line.index = index;
    line.caller = caller;
    line.from = from;
    line.called = rightnow;
    if (!telnetopen(line.telnet, user, &line)) {
        line.lost = true;
    }
    if (!line.lost && !readmenu("harbour.menu", line.menu)) {
        rules.tell(std::string("harbour.menu: ") + strerror(errno));
    }
    for (const std::string &fault : line.menu.faults) {
        rules.tell(fault);
    }
    if (!line.lost) {
        say(line, T_WELCOME,
            {number(line), plex::ncedat(plex::today()), plex::nctime(plex::now())});
        asklanguage(line);
    }
    settle(line);
}

void callerready(Line &line, uint32_t events) {
    if ((events & EPOLLOUT) != 0 && !line.tocaller.empty()) {
        line.lost = !drain(line.tocaller, [&](const char *bytes, size_t len) {
            return send(line.caller, bytes, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        });
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
        !drain(line.toprogram,
               [&](const char *bytes, size_t len) { return write(line.master, bytes, len); })) {
        line.toprogram.clear(); // nobody will read it
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && line.tocaller.empty()) {
        const ssize_t n = read(line.master, scratch.data(), scratch.size());
        if (n > 0) {
            line.since += line.ended ? static_cast<size_t>(n) : 0;
            show(line, scratch.data(), static_cast<size_t>(n));
        } else if (!temporary(n)) {
            line.hungup = true;
            checkend(line);
        }
    }
    settle(line);
}

void started(Line &line, int master) {
    if (master < 0) {
        killprogram(line.usrnum);
        over(line, T_TRYLATER, {line.program});
        settle(line);
        return;
    }
    line.master = master;
    line.masterevents = 0;
    fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK);
    setsize(line);
    line.state = State::running;
    const std::string ahead = std::move(line.toprogram); // typed while it was being started
    line.toprogram.clear();
    if (!ahead.empty()) {
        toprogram(line, ahead.data(), ahead.size());
    }
    settle(line);
}

void refused(Line &line) {
    over(line, T_REFUSED, {line.program});
    settle(line);
}

void ended(Line &line, int status) {
    line.ended = true;
    line.status = status;
    checkend(line);
    settle(line);
}

void servicelost(Line &line) {
    if (line.state == State::starting || line.state == State::running) {
        over(line, T_SERVICELOST, {line.program});
        settle(line);
    }
}

Line *lineof(int usrnum) {
    const auto index = static_cast<size_t>(usrnum % maxrunning);
    if (usrnum < 0 || index >= lines.size()) {
        return nullptr;
    }
    Line &line = lines[index];
    const bool its =
        line.usrnum == usrnum && (line.state == State::starting || line.state == State::running);
    return its ? &line : nullptr;
}

void look() {
    due = Time::max();
    for (Line &line : lines) {
        if (line.state != State::none) {
            lookat(line);
            settle(line);
        }
    }
}

void endprogram(Line &line, int number) {
    const std::string program = line.program;
    stopprogram(line);
    over(line, number, {program});
    settle(line);
}

void endcall(Line &line, int number, Words words) {
    if (line.state == State::leaving) {
        return;
    }
    stopprogram(line);
    say(line, number, words);
    enter(line, State::leaving);
    line.until = rightnow + goodbye;
    settle(line);
}

void hangup(Line &line) {
    stopprogram(line);
    plex::inform("line %d ends\n", line.index + 1);
    pollfor(line.caller, 0, line.callerevents, Source::caller, line.index);
    telnetclose(line.telnet);
    close(line.caller);
    const int index = line.index;
    line = {};
    line.index = index;
}

} // namespace harbour
