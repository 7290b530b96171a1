// A call as the caller knows it: language, menu, who is on, the program, time, goodbye. Each state
// has its keys (keypressed) and its limit (limitof). A program's end has two halves: the daemon's
// notice, and the hang-up of the terminal behind the last output.

#include "libsrc/plex.h"
#include "tools/harbour/line.h"
#include "tools/harbour/messages.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harbour {
namespace {

constexpr milliseconds goodbye(2000); // for the caller to read it
constexpr milliseconds longestwarning(60000);
constexpr milliseconds grace(300);   // for what a program left behind, to give the terminal up
constexpr milliseconds notice(1000); // from the hang-up to the notice of the end
constexpr size_t leftover = 1 << 17; // more than a terminal holds: the program's own is out by then
constexpr int mostlanguages = 9;     // as many as there are digits to choose by

int languages() {
    return std::min(plex::nlingo, mostlanguages);
}

std::string padded(const std::string &text, size_t columns) {
    return text + std::string(columns - std::min(text.size(), columns), ' ');
}

std::string hoursminutes(Clock::duration time) {
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(time).count();
    const auto rest = std::to_string(minutes % 60);
    return std::to_string(minutes / 60) + (rest.size() < 2 ? ":0" : ":") + rest;
}

Time plus(Time from, milliseconds time) {
    return time.count() > 0 ? from + time : Time::max();
}

void enter(Line &line, State state, Time until = Time::max()) {
    line.state = state;
    line.active = rightnow;
    line.until = until;
    due = rightnow;
}

void showmenu(Line &line) {
    enter(line, State::menu);
    say(line, T_MENUTOP, {padded(line.number(), 4)});
    for (const Entry &entry : line.menu) {
        char minutes[16] = "      ";
        if (entry.minutes > 0) {
            snprintf(minutes, sizeof minutes, "%6.4g", entry.minutes);
        }
        say(line, T_MENULINE, {std::string(1, entry.key), padded(entry.title, 40), minutes});
    }
    const Time end = plus(line.called, rules.call);
    const std::string left = end == Time::max()
                                 ? text(line.language, T_ENDLESS)
                                 : hoursminutes(end - rightnow + std::chrono::seconds(59));
    say(line, T_MENUBOTTOM, {padded(hoursminutes(rightnow - line.called), 6), padded(left, 6)});
}

void askcharset(Line &line) {
    line.utf8 = !plainlanguage(line.language);
    if (!line.utf8) {
        showmenu(line);
        return;
    }
    enter(line, State::charset);
    say(line, T_CHARSETONE);
    line.utf8 = false;
    say(line, T_CHARSETTWO);
}

void asklanguage(Line &line) {
    line.language = 0;
    if (languages() < 2) {
        askcharset(line);
        return;
    }
    enter(line, State::language);
    line.utf8 = true;
    say(line, T_LANGUAGETOP);
    for (int i = 0; i < languages(); i++) {
        say(line, T_LANGUAGELINE, {std::to_string(i + 1), plex::languages[i]->desc});
    }
    say(line, T_LANGUAGEASK);
}

void showwho(Line &line) {
    say(line, T_WHOTOP);
    for (const Line &other : lines) {
        if (other.state != State::none) {
            const std::string what =
                other.program.empty() ? text(line.language, T_ATMENU) : other.program;
            const std::string time = hoursminutes(rightnow - other.called);
            say(line, T_WHOLINE, {padded(other.number(), 4), padded(what, 40), time});
        }
    }
    say(line, T_PROMPT);
}

void ask(const Line &line, int32_t what, const std::string &command = "") {
    plex::servermsg request = {line.usrnum, what, {}};
    memcpy(request.cmdstg, command.data(), std::min(command.size(), sizeof request.cmdstg));
    asked.push_back(request);
}

void startprogram(Line &line, const Entry &entry) {
    static int serial = 0;
    std::string command = entry.command;
    for (size_t at = 0; (at = command.find("%t", at)) != command.npos;) {
        command.replace(at, 2, line.terminal);
    }
    const auto count = static_cast<int>(lines.size());
    serial = (serial + 1) % (INT_MAX / count);
    line.usrnum = serial * count + line.index;
    line.program = entry.title;
    line.hungup = line.ended = false;
    say(line, T_STARTING, {entry.title});
    enter(line, State::starting, plus(rightnow, minutes(entry.minutes)));
    tell(text(0, O_RUNS, {line.number(), entry.title, command}));
    ask(line, plex::MSG_RUN, command);
}

void menukey(Line &line, char key) {
    const Entry *entry = findentry(line.menu, key);
    if (entry != nullptr) {
        startprogram(line, *entry);
    } else if (key == '\r' || key == AGAIN) {
        showmenu(line);
    } else if (key == WHO) {
        showwho(line);
    } else if (key == LANGUAGE) {
        asklanguage(line);
    } else if (key == GOODBYE) {
        endcall(line, T_GOODBYE, {hoursminutes(rightnow - line.called)});
    }
}

// A text as one line, without colours.
std::string plain(const std::string &text) {
    std::string out;
    bool escape = false;
    for (const char c : text) {
        escape = escape || c == '\033';
        out.append(escape || static_cast<unsigned char>(c) < ' ' ? 0 : 1, c);
        escape = escape && c != 'm';
    }
    return out;
}

// The program is over: the caller and the operator are told, and the caller is back.
void over(Line &line, int number, Words words) {
    closemaster(line);
    if (!plainlanguage(line.language)) {
        show(line, "\033[0m", 4);
    }
    say(line, number, words);
    tell(text(0, O_LINE, {line.number(), plain(text(0, number, words))}));
    line.program.clear();
    showmenu(line);
}

void tellend(Line &line) {
    if (WIFSIGNALED(line.status)) {
        const int signo = WTERMSIG(line.status);
        over(line, T_SIGNALLED, {line.program, std::to_string(signo), strsignal(signo)});
    } else {
        const int code = WEXITSTATUS(line.status);
        over(line, code == 0 ? T_ENDED : T_EXITED, {line.program, std::to_string(code)});
    }
}

// The other half of a program's end did not come in time.
void giveup(Line &line) {
    pollfd terminal = {line.master.fd, POLLIN, 0};
    const bool unread = !line.tocaller.empty() || poll(&terminal, 1, 0) > 0;
    if (!line.ended) {
        ask(line, plex::MSG_KILL); // that the daemon drops its record
        over(line, T_NOBODYKNOWS, {line.program});
    } else if (unread && line.shown - line.before < leftover) {
        line.until = rightnow + grace;
    } else {
        tellend(line);
    }
}

// The end of what a line is doing, and the text that warns of it: after three quarters of the
// whole, but no earlier than is of use. 0: nobody is warned.
struct Limit {
    Time end;
    Clock::duration whole;
    int warning;
};

Limit limitof(const Line &line) {
    const Time call = plus(line.called, rules.call);
    const Time idle = plus(line.active, rules.idle);
    if (line.state == State::leaving || (line.busy() && (line.hungup || line.ended))) {
        return {line.until, {}, 0};
    }
    if (line.busy()) {
        const Time end = std::min(line.until, call);
        return {end, end - line.active, T_TIMEWARNING};
    }
    return idle < call ? Limit{idle, rules.idle, T_IDLEWARNING}
                       : Limit{call, rules.call, T_TIMEWARNING};
}

void timeover(Line &line, const Limit &limit) {
    if (line.state == State::leaving) {
        line.lost = true;
    } else if (!line.busy()) {
        endcall(line, limit.warning == T_IDLEWARNING ? T_IDLEOVER : T_CALLOVER);
    } else if (limit.warning == 0) {
        giveup(line);
    } else {
        endprogram(line, T_TIMEOVER);
    }
}

} // namespace

void say(Line &line, int number, Words words) {
    const std::string said = text(line.language, number, words);
    const std::string sent = line.utf8 ? plex::toutf8(said) : said;
    show(line, sent.data(), sent.size());
}

void greet(Line &line) {
    say(line, T_WELCOME, {line.number(), plex::ncedat(plex::today()), plex::nctime(plex::now())});
    asklanguage(line);
}

void keypressed(Line &line, char key) {
    const int chosen = key == '\r' ? 0 : key - '1';
    line.active = rightnow;
    if (line.state == State::language && chosen >= 0 && chosen < languages()) {
        line.language = chosen;
        say(line, T_CHOSEN, {plex::languages[chosen]->desc});
        askcharset(line);
    } else if (line.state == State::charset && (chosen == 0 || chosen == 1)) {
        line.utf8 = chosen == 0;
        showmenu(line);
    } else if (line.state == State::menu) {
        menukey(line, static_cast<char>(toupper(static_cast<unsigned char>(key))));
    }
}

void daemonsays(int usrnum, int32_t what, int value) {
    Line &line = lines[static_cast<unsigned>(usrnum) % lines.size()];
    if (line.usrnum != usrnum || !line.busy()) {
        if (what == plex::MSG_STARTED && value >= 0) {
            close(value); // he has gone meanwhile, and his program was killed
        }
        return;
    }
    if (what == plex::MSG_FAILED) {
        over(line, T_REFUSED, {line.program});
    } else if (what == plex::MSG_STARTED && value < 0) {
        ask(line, plex::MSG_KILL);
        over(line, T_TRYLATER, {line.program});
    } else if (what == plex::MSG_STARTED) {
        openmaster(line, value);
        line.state = State::running;
    } else if (!WIFSTOPPED(value)) {
        line.ended = true;
        line.status = value;
        line.before = line.shown;
        halfended(line);
    }
    settle(line);
}

void daemonlost(Line &line) {
    if (line.busy()) {
        over(line, T_SERVICELOST, {line.program});
        settle(line);
    }
}

void halfended(Line &line) {
    if (line.hungup && line.ended) {
        tellend(line);
    } else {
        line.until = rightnow + (line.ended ? grace : notice);
        due = rightnow;
    }
}

void stopprogram(Line &line) {
    if (line.busy()) {
        ask(line, plex::MSG_KILL);
    }
    closemaster(line);
    line.program.clear();
}

void endprogram(Line &line, int number) {
    const std::string program = line.program;
    stopprogram(line);
    over(line, number, {program});
}

void endcall(Line &line, int number, Words words) {
    if (line.here()) {
        stopprogram(line);
        say(line, number, words);
        enter(line, State::leaving, rightnow + goodbye);
    }
}

void look() {
    due = Time::max();
    for (Line &line : lines) {
        if (line.state == State::none) {
            continue;
        }
        const Limit limit = limitof(line);
        const Time soon = limit.end - std::min<Clock::duration>(limit.whole / 4, longestwarning);
        const bool warns = limit.warning != 0 && line.warned != limit.end;
        if (rightnow >= limit.end) {
            timeover(line, limit);
            due = rightnow; // to look at what comes after that
        } else if (warns && rightnow >= soon) {
            line.warned = limit.end;
            const auto left = std::chrono::ceil<std::chrono::seconds>(limit.end - rightnow);
            say(line, limit.warning, {std::to_string(left.count())});
        }
        due = std::min(due, line.warned == limit.end || limit.warning == 0 ? limit.end : soon);
        settle(line);
    }
}

} // namespace harbour
