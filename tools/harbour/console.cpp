// A picture of the whole screen is drawn in memory on each beat and put up when it differs from the
// one before. A pop-up bursts open on top of it; only the bar with the clock goes on meanwhile.

#include "tools/harbour/console.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"
#include "tools/harbour/program.h"
#include "tools/harbour/view.h"
#include "tools/harbour/visit.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <deque>

namespace harbour {
namespace {

constexpr int lastcol = plex::scrcols - 1;
constexpr int lastrow = plex::scrrows - 1;
constexpr int listtop = 2;
constexpr int listrows = 16;
constexpr int eventtop = 19;
constexpr size_t eventrows = 5;
constexpr int longestmessage = 60;
constexpr int popupwidth = longestmessage + 4;
constexpr int popupleft = (plex::scrcols - popupwidth) / 2;
constexpr int popuptop = 9;

constexpr unsigned char PLAIN = 0x07;
constexpr unsigned char BAR = 0x1F;    // bright white on blue
constexpr unsigned char HEAD = 0x03;   // cyan
constexpr unsigned char CHOSEN = 0x70; // reverse
constexpr unsigned char BUSY = 0x0F;
constexpr unsigned char FREE = 0x08;
constexpr unsigned char EVENT = 0x0E;
constexpr unsigned char POPUP = 0x4F; // bright white on red, as fatal errors

constexpr int32_t UP = 0x4800;
constexpr int32_t DOWN = 0x5000;
constexpr int32_t PAGEUP = 0x4900;
constexpr int32_t PAGEDOWN = 0x5100;
constexpr int32_t ESCAPE = 27;
constexpr int32_t ENTER = 13;
constexpr int32_t BACKSPACE = 8;

enum class Asking { nothing, message, kill, drop, quit };

Picture drawn; // what is to be seen
Picture up;    // and what is
std::string address;
std::deque<std::string> events;
std::string lasttold;
int chosen;
int top; // the first line listed
bool viewing;
Asking asking = Asking::nothing;
std::string answered; // what has been typed for it
bool unseen = true;   // nothing has been put up yet

Line &current() {
    return lines[static_cast<size_t>(chosen)];
}

// A whole row, filled up or cut.
void row(int y, unsigned char attribute, std::string what) {
    what.resize(plex::scrcols, ' ');
    plex::setatr(attribute);
    plex::printfat(0, static_cast<uint16_t>(y), "%s", what.c_str());
}

std::string clock() {
    return std::string(plex::ncedat(plex::today())) + " " + plex::nctime(plex::now());
}

std::string amount(uint64_t bytes) {
    const char *unit = "";
    auto value = static_cast<double>(bytes);
    for (const char *next : {"K", "M", "G"}) {
        if (value >= 10000) {
            value /= 1024;
            unit = next;
        }
    }
    char shown[32];
    snprintf(shown, sizeof shown, "%.0f%s", value, unit);
    return shown;
}

void drawbar() {
    const auto busy = std::count_if(lines.begin(), lines.end(),
                                    [](const Line &l) { return l.state != State::none; });
    std::string bar = text(0, O_BAR, {address, std::to_string(busy), std::to_string(lines.size())});
    bar.resize(static_cast<size_t>(plex::scrcols) - 20, ' ');
    row(0, BAR, bar + clock());
}

void drawline(int y, const Line &line) {
    const bool free = line.state == State::none;
    const int state = O_NONE + static_cast<int>(line.state);
    char shown[128];
    if (free) {
        snprintf(shown, sizeof shown, " %4d  %s", line.index + 1, text(0, state).c_str());
    } else {
        const int seconds =
            static_cast<int>((Clock::now() - line.called) / std::chrono::seconds(1));
        snprintf(shown, sizeof shown, " %4d  %-9.9s %-21.21s %-20.20s %2d:%02d:%02d",
                 line.index + 1, text(0, state).c_str(), line.from.c_str(), line.program.c_str(),
                 seconds / 3600, seconds / 60 % 60, seconds % 60);
        snprintf(shown + strlen(shown), sizeof shown - strlen(shown), "%6s%6s",
                 amount(line.typed).c_str(), amount(line.shown).c_str());
    }
    row(y, line.index == chosen ? CHOSEN : free ? FREE : BUSY, shown);
}

void drawlist() {
    const int count = static_cast<int>(lines.size());
    top = std::clamp(top, chosen - listrows + 1, chosen);
    drawin(drawn);
    blank(drawn);
    drawbar();
    row(1, HEAD, text(0, O_HEAD));
    for (int i = top; i < std::min(top + listrows, count); i++) {
        drawline(listtop + i - top, lines[static_cast<size_t>(i)]);
    }
    row(eventtop - 1, HEAD, std::string(plex::scrcols, '\xC4'));
    for (size_t i = 0; i < events.size(); i++) {
        row(eventtop + static_cast<int>(i), EVENT, events[i]);
    }
    row(lastrow, BAR, text(0, O_KEYS));
    plex::rstwin();
}

void drawview() {
    drawn = viewpicture();
    drawin(drawn);
    row(lastrow, BAR, text(0, O_VIEWKEYS, {std::to_string(chosen + 1), current().program}));
    plex::rstwin();
}

// Puts rows up to `bottom` up. One step: what changes all the time must not burst open.
void putup(int bottom) {
    plex::explodem = 0;
    plex::nsexploto(drawn.data(), 0, 0, lastcol, bottom, 0, 0);
    plex::explodem = 1;
}

void refresh() {
    if (asking != Asking::nothing) {
        drawin(drawn);
        drawbar();
        plex::rstwin();
        putup(0);
        return;
    }
    if (viewing) {
        drawview();
    } else {
        drawlist();
    }
    if (unseen || drawn != up) {
        putup(lastrow);
        up = drawn;
        unseen = false;
    }
    plex::cursiz(viewing ? 1 : 0);
    plex::wrcurp(viewing ? viewcursor() : 0);
}

void view(bool on) {
    viewing = on && current().state != State::none;
    if (viewing) {
        openview(current());
    }
    unseen = true;
}

// The pop-up's inside is one line to answer in.
void showanswer() {
    plex::setatr(POPUP);
    plex::proff(popupleft, popuptop); // the bar that goes on has an origin of its own
    plex::prat(2, 3, "%-*s", longestmessage, answered.c_str());
    plex::locate(popupleft + 2 + static_cast<int>(answered.size()), popuptop + 3);
    plex::updtrm(1);
}

void popup(Asking what, int question, Words words) {
    const std::string inside(popupwidth - 2, ' ');
    const std::string edge(popupwidth - 2, '\xCD');
    Picture box;
    drawin(box);
    plex::setatr(POPUP);
    plex::printfat(0, 0, "\xC9%s\xBB", edge.c_str());
    for (uint16_t y = 1; y < 5; y++) {
        plex::printfat(0, y, "\xBA%s\xBA", inside.c_str());
    }
    plex::printfat(0, 5, "\xC8%s\xBC", edge.c_str());
    plex::printfat(2, 1, "%.*s", longestmessage, text(0, question, words).c_str());
    plex::rstwin();
    asking = what;
    answered.clear();
    plex::explodeto(box.data(), 0, 0, popupwidth - 1, 5, popupleft, popuptop);
    plex::cursiz(1);
    showanswer();
}

// The answer is there. False when it ends the board.
bool act() {
    const Asking what = asking;
    Line &line = current();
    const bool busy = line.state != State::none && line.state != State::leaving;
    const bool yes = !answered.empty() && tolower(answered[0]) == yeskey(0);
    asking = Asking::nothing;
    unseen = true;
    if (what == Asking::message && busy && !answered.empty()) {
        say(line, T_MESSAGE, {answered});
        settle(line);
    } else if (what == Asking::kill && yes && line.busy()) {
        endprogram(line, T_KILLED);
    } else if (what == Asking::drop && yes && busy) {
        endcall(line, T_DROPPED);
    }
    return what != Asking::quit || !yes;
}

bool answerkey(int32_t key) {
    if (key == ESCAPE) {
        asking = Asking::nothing;
        unseen = true;
    } else if (key == ENTER || (asking != Asking::message && key > ' ' && key < 0x100)) {
        answered += key == ENTER ? "" : std::string(1, static_cast<char>(key));
        return act();
    } else if (key == BACKSPACE && !answered.empty()) {
        answered.pop_back();
        showanswer();
    } else if (key >= ' ' && key < 0x100 && answered.size() + 1 < longestmessage) {
        answered += static_cast<char>(key);
        showanswer();
    }
    return true;
}

void ask(int32_t key) {
    const Line &line = current();
    const std::string number = line.number();
    const std::string yes(1, yeskey(0));
    if (key == 'q') {
        popup(Asking::quit, O_QUIT, {yes});
    } else if (line.state == State::none || line.state == State::leaving) {
        return;
    } else if (key == 'm') {
        popup(Asking::message, O_MESSAGE, {number});
    } else if (key == 'd') {
        popup(Asking::drop, O_DROP, {number, yes});
    } else if (key == 'k' && line.busy()) {
        popup(Asking::kill, O_KILL, {number, line.program, yes});
    }
}

void pressed(int32_t key) {
    constexpr struct {
        int32_t key;
        int by;
    } moves[] = {{UP, -1}, {DOWN, 1}, {PAGEUP, -listrows}, {PAGEDOWN, listrows}};
    for (const auto &m : moves) {
        if (key == m.key && !viewing) {
            chosen = std::clamp(chosen + m.by, 0, static_cast<int>(lines.size()) - 1);
        }
    }
    if (key == ESCAPE) {
        view(false);
    } else if (key == ENTER || key == 'v' || key == 'V') {
        view(!viewing);
    } else if (key > 0 && key < 0x80) {
        ask(tolower(key));
    }
}

} // namespace

void openconsole(const std::string &where) {
    address = where;
    const char *method = plex::getoption("BBSDISP");
    if (method == nullptr) {
        plex::opntrm(plex::DSP_NULL, "harbour");
    } else if (plex::sameas(method, "viewer") != 0) {
        plex::opntrm(plex::DSP_REMOTE, "harbour");
    } else {
        plex::opntrm(0, "harbour");
    }
    plex::frzseg();
    plex::ansion(0);
}

void closeconsole() {
    if (attended()) {
        plex::setwin(nullptr, 0, 0, lastcol, lastrow, 1);
        plex::setatr(PLAIN);
        plex::locate(0, 0);
        plex::supisc();
        plex::rdcurp();
        plex::compsi();
        plex::ffeed();
        plex::cursiz(1);
        plex::wrcurp(0);
        plex::updtrm(1);
    }
    plex::clstrm();
}

bool attended() {
    return plex::dsptyp != plex::DSP_NULL;
}

void tell(const std::string &what) {
    if (what == lasttold) {
        return;
    }
    lasttold = what;
    plex::inform("%s\n", what.c_str());
    events.push_back(std::string(" ") + plex::nctime(plex::now()) + "  " + what);
    if (events.size() > eventrows) {
        events.pop_front();
    }
}

void seen(const Line &line, const char *bytes, size_t len) {
    if (viewing && line.index == chosen) {
        feedview(line, bytes, len);
    }
}

bool serveconsole() {
    while (plex::kbhit() != 0) {
        const int32_t key = plex::getchc();
        if (asking == Asking::nothing) {
            pressed(key);
        } else if (!answerkey(key)) {
            return false;
        }
    }
    if (viewing && current().state == State::none) {
        view(false);
    }
    refresh();
    return true;
}

} // namespace harbour
