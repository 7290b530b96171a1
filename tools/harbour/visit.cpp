#include "tools/harbour/visit.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"
#include "tools/harbour/program.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace harbour {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds goodbye(2000); // for the caller to read it
constexpr milliseconds longestwarning(60000);
constexpr int mostlanguages = 9; // as many as there are digits to choose by

int languages() {
    return std::min(plex::nlingo, mostlanguages);
}

std::string padded(const std::string &text, size_t columns) {
    return text + std::string(columns - std::min(text.size(), columns), ' ');
}

std::string hoursminutes(Clock::duration time) {
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(time).count();
    char text[32];
    snprintf(text, sizeof text, "%d:%02d", static_cast<int>(minutes / 60),
             static_cast<int>(minutes % 60));
    return text;
}

Time plus(Time from, milliseconds time) {
    return time.count() > 0 ? from + time : Time::max();
}

// What is left of the call.
std::string timeleft(const Line &line) {
    const Time end = plus(line.called, rules.call);
    return end == Time::max() ? text(line.language, T_ENDLESS)
                              : hoursminutes(end - rightnow + std::chrono::seconds(59));
}

void showwho(Line &line) {
    say(line, T_WHOTOP);
    for (const Line &other : lines) {
        if (other.state != State::none) {
            const std::string what =
                other.program.empty() ? text(line.language, T_ATMENU) : other.program;
            say(line, T_WHOLINE,
                {padded(other.number(), 4), padded(what, 40),
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

// Warns before `end`, of `whole` milliseconds: long enough ahead to be of use, short beside the
// whole. True when it is over; else the line is due at the next of the two.
bool timeover(Line &line, bool &warned, Time end, milliseconds whole, int number) {
    if (end == Time::max()) {
        return false;
    }
    const Time soon = end - std::min<milliseconds>(whole / 4, longestwarning);
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
    if (line.state == State::leaving) {
        line.lost = line.lost || rightnow >= line.until;
        hurry(line.until);
    } else if (line.busy() && (line.hungup || line.ended)) {
        lookatend(line);
    } else if (line.busy()) {
        const Time end = std::min(line.until, callend);
        const auto whole = std::chrono::duration_cast<milliseconds>(end - line.began);
        if (timeover(line, line.warned, end, whole, T_TIMEWARNING)) {
            endprogram(line, T_TIMEOVER);
        }
    } else if (timeover(line, line.warned, plus(line.active, rules.idle), rules.idle,
                        T_IDLEWARNING)) {
        endcall(line, T_IDLEOVER);
    } else if (timeover(line, line.callwarned, callend, rules.call, T_TIMEWARNING)) {
        endcall(line, T_CALLOVER);
    }
}

} // namespace

void answer(Line &line, int caller, const std::string &from) {
    openline(line, caller, from);
    rules.tell(text(0, O_CALL, {line.number(), from}));
    if (!readmenu("harbour.menu", line.menu)) {
        rules.tell(std::string("harbour.menu: ") + strerror(errno));
    }
    for (const std::string &fault : line.menu.faults) {
        rules.tell(fault);
    }
    if (!line.lost) {
        say(line, T_WELCOME,
            {line.number(), plex::ncedat(plex::today()), plex::nctime(plex::now())});
        asklanguage(line);
    }
    settle(line);
}

void keypressed(Line &line, char key) {
    line.active = rightnow;
    line.warned = false;
    if (line.state == State::language) {
        const int chosen = key == '\r' ? 0 : key - '1';
        if (chosen >= 0 && chosen < languages()) {
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

void showmenu(Line &line) {
    enter(line, State::menu);
    say(line, T_MENUTOP, {padded(line.number(), 4)});
    for (const Entry &entry : line.menu.entries) {
        char minutes[16];
        snprintf(minutes, sizeof minutes, "%6.4g", entry.minutes);
        say(line, T_MENULINE,
            {std::string(1, entry.key), padded(entry.title, 40),
             entry.minutes > 0 ? minutes : padded("", 6)});
    }
    say(line, T_MENUBOTTOM,
        {padded(hoursminutes(rightnow - line.called), 6), padded(timeleft(line), 6)});
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

} // namespace harbour
