// A picture of the whole screen is drawn in memory on each beat and put up when it differs from the
// one before. A pop-up bursts open on top of it; only the bar with the clock goes on meanwhile.
//
// What a caller sees is drawn by the same engine, into a picture of its own. His output is
// interpreted, the console's is not, and the engine keeps an attribute and an open sequence for
// that apart. Only the cursor is common.

#include "tools/harbour/console.h"

#include "libsrc/plex.h"
#include "tools/harbour/line.h"
#include "tools/harbour/messages.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace harbour {
namespace {

using Picture = std::array<unsigned char, plex::cellbytes>;

constexpr int lastcol = plex::scrcols - 1;
constexpr int lastrow = plex::scrrows - 1;
constexpr int listtop = 2;
constexpr int listrows = 16;
constexpr int eventtop = 19;
constexpr size_t longestanswer = 60;
constexpr int popupwidth = longestanswer + 4;
constexpr int popupheight = 6;
constexpr int popupleft = (plex::scrcols - popupwidth) / 2;
constexpr int popuptop = 9;

constexpr unsigned char BAR = 0x1F;    // bright white on blue
constexpr unsigned char HEAD = 0x03;   // cyan
constexpr unsigned char CHOSEN = 0x70; // reverse
constexpr unsigned char BUSY = 0x0F;
constexpr unsigned char FREE = 0x08;
constexpr unsigned char EVENT = 0x0E;
constexpr unsigned char POPUP = 0x4F; // bright white on red, as fatal errors

// What a key asks before it does anything, if the line is of a kind that it can be done with. The
// texts' words are the line's number, its program and the letter for yes.
struct Question {
    char key;
    int text;
    bool (*may)(const Line &);
    void (*act)(Line &);
};

std::string answered; // what has been typed
bool quitting;

constexpr Question questions[] = {
    {'m', O_MESSAGE, [](const Line &l) { return l.here(); },
     [](Line &l) { say(l, T_MESSAGE, {answered}); }},
    {'k', O_KILL, [](const Line &l) { return l.busy(); }, [](Line &l) { endprogram(l, T_KILLED); }},
    {'d', O_DROP, [](const Line &l) { return l.here(); }, [](Line &l) { endcall(l, T_DROPPED); }},
    {'q', O_QUIT, [](const Line &) { return true; }, [](Line &) { quitting = true; }},
};

const Question *asking;
std::string address;
Picture drawn; // what is to be seen
Picture up;    // and what is; zeros when that is unknown
int chosen;
int top;      // the first line listed
Picture view; // what the caller sees
uint16_t viewcursor;
uint64_t fed; // how much of what he was shown is in it
plex::Utf8part part;

Line &current() {
    return lines[static_cast<size_t>(chosen)];
}

bool viewing() {
    return rules.viewed != -1;
}

char yes() {
    const char letter = plex::languages[0]->yes[0];
    return static_cast<char>(letter != '\0' ? tolower(static_cast<unsigned char>(letter)) : 'y');
}

// A whole row of the picture, filled up or cut.
void row(int y, unsigned char attribute, const std::string &what) {
    plex::setwin(drawn.data(), 0, 0, lastcol, lastrow, 0);
    plex::setatr(attribute);
    plex::printfat(0, static_cast<uint16_t>(y), "%-80.80s", what.c_str());
    plex::rstwin();
}

std::string amount(uint64_t bytes) {
    constexpr const char *units[] = {"", "K", "M", "G", "T", "P", "E"};
    size_t unit = 0;
    for (; bytes >= 10000; bytes /= 1024) {
        unit++;
    }
    return std::to_string(bytes) + units[unit];
}

std::string described(const Line &line) {
    const std::string state = text(0, O_NONE + static_cast<int>(line.state));
    const auto seconds = static_cast<int>((rightnow - line.called) / std::chrono::seconds(1));
    char shown[128];
    snprintf(shown, sizeof shown, " %4d  %-9.9s %-21.21s %-20.20s %2d:%02d:%02d%6s%6s",
             line.index + 1, state.c_str(), line.from.c_str(), line.program.c_str(), seconds / 3600,
             seconds / 60 % 60, seconds % 60, amount(line.typed).c_str(),
             amount(line.shown).c_str());
    return std::string(shown).substr(0, line.state == State::none ? 16 : std::string::npos);
}

void drawlist() {
    const auto busy = std::count_if(lines.begin(), lines.end(),
                                    [](const Line &l) { return l.state != State::none; });
    std::string bar = text(0, O_BAR, {address, std::to_string(busy), std::to_string(lines.size())});
    bar.resize(plex::scrcols - 20, ' ');
    row(0, BAR, bar + plex::ncedat(plex::today()) + " " + plex::nctime(plex::now()));
    row(1, HEAD, text(0, O_HEAD));
    top = std::clamp(top, chosen - listrows + 1, chosen);
    for (int i = 0; i < listrows; i++) {
        const int at = top + i;
        const bool listed = at < static_cast<int>(lines.size());
        const Line &line = lines[static_cast<size_t>(listed ? at : 0)];
        const unsigned char colour = listed && line.state != State::none ? BUSY : FREE;
        row(listtop + i, at == chosen ? CHOSEN : colour, listed ? described(line) : "");
    }
    row(eventtop - 1, HEAD, std::string(plex::scrcols, '\xC4'));
    for (size_t i = 0; i < mosttold; i++) {
        row(eventtop + static_cast<int>(i), EVENT, i < told.size() ? told[i] : "");
    }
    row(lastrow, BAR, text(0, O_KEYS));
}

// Draws what the caller was sent in the view, where the last row is the console's.
void feed(const std::string &sent) {
    std::string bytes = current().utf8 ? plex::fromutf8(sent, part) : sent;
    std::erase_if(bytes, [](char c) { return memchr("\a\016\017", c, 4) != nullptr; });
    plex::setwin(view.data(), 0, 0, lastcol, lastrow - 1, 1);
    plex::ansion(1);
    plex::wrcurp(viewcursor);
    plex::bgnout();
    plex::outbuf(reinterpret_cast<const unsigned char *>(bytes.data()), bytes.size());
    viewcursor = plex::dx;
    plex::ansion(0);
    plex::rstwin();
}

void drawview() {
    const Line &line = current();
    const size_t news = std::min<uint64_t>(line.shown - fed, line.recent.size());
    feed(line.recent.substr(line.recent.size() - news));
    fed = line.shown;
    drawn = view;
    row(lastrow, BAR, text(0, O_VIEWKEYS, {line.number(), line.program}));
}

// Turns the view of the line on, from what its caller was sent last, or off.
void turnview(bool on) {
    rules.viewed = on && current().state != State::none ? chosen : -1;
    part = {};
    feed("\033[0m\033[1;24r\033[2J\033[H");
    fed = 0;
}

// The cursor stands where he types: what he answers, or nowhere.
void refresh() {
    if (viewing()) {
        drawview();
    } else {
        drawlist();
    }
    if (drawn != up) { // below its top the pop-up covers it
        const int bottom = asking != nullptr ? popuptop - 1 : lastrow;
        plex::nsexploto(drawn.data(), 0, 0, lastcol, bottom, 0, 0);
        up = drawn;
    }
    if (asking == nullptr) {
        plex::cursiz(viewing() ? 1 : 0);
        plex::wrcurp(viewing() ? viewcursor : 0);
    }
}

// The pop-up's inside is one line to answer in.
void showanswer() {
    plex::setatr(POPUP);
    plex::printfat(popupleft + 2, popuptop + 3, "%-60s", answered.c_str());
    plex::locate(popupleft + 2 + static_cast<int>(answered.size()), popuptop + 3);
    plex::updtrm(1);
}

void ask(const Question &question) {
    const Line &line = current();
    std::string words =
        text(0, question.text, {line.number(), line.program, std::string(1, yes())});
    words.resize(longestanswer, ' ');
    Picture box = {};
    plex::setwin(box.data(), 0, 0, popupwidth, popupheight, 0);
    plex::setatr(POPUP);
    plex::printfat(0, 0, "%s", text(0, O_POPUP, {words}).c_str());
    plex::rstwin();
    asking = &question;
    answered.clear();
    plex::explodem = 1;
    plex::explodeto(box.data(), 0, 0, popupwidth - 1, popupheight - 1, popupleft, popuptop);
    plex::explodem = 0;
    plex::cursiz(1);
    showanswer();
}

// The answer is there, if it is one.
void act() {
    const bool meant = asking->key == 'm' || tolower(answered[0]) == yes();
    if (!answered.empty() && meant && asking->may(current())) {
        asking->act(current());
        settle(current());
    }
    asking = nullptr;
    up = {};
}

void answerkey(int32_t key) {
    const bool letter = key >= ' ' && key < 0x100;
    if (letter && answered.size() + 1 < longestanswer) {
        answered += static_cast<char>(key);
    } else if (key == plex::CODE_BACKSPACE && !answered.empty()) {
        answered.pop_back();
    } else if (key == plex::CODE_ESC) {
        answered.clear();
    }
    if (key == plex::CODE_ESC || key == plex::CODE_ENTER || (letter && asking->key != 'm')) {
        act();
    } else {
        showanswer();
    }
}

void pressed(int32_t key) {
    constexpr std::pair<int32_t, int> moves[] = {{plex::CODE_UP, -1},
                                                 {plex::CODE_DOWN, 1},
                                                 {plex::CODE_PGUP, -listrows},
                                                 {plex::CODE_PGDN, listrows}};
    for (const auto &[move, by] : moves) {
        if (key == move && !viewing()) {
            chosen = std::clamp(chosen + by, 0, static_cast<int>(lines.size()) - 1);
        }
    }
    const int letter = key > 0 && key < 0x80 ? tolower(key) : 0;
    for (const Question &question : questions) {
        if (letter == question.key && question.may(current())) {
            ask(question);
        }
    }
    if (key == plex::CODE_ESC || key == plex::CODE_ENTER || letter == 'v') {
        turnview(!viewing() && key != plex::CODE_ESC);
    }
}

} // namespace

void openconsole(const std::string &where) {
    address = where;
    const char *method = plex::getoption("BBSDISP");
    const bool viewer = method != nullptr && plex::sameas(method, "viewer") != 0;
    plex::opntrm(method == nullptr ? plex::DSP_NULL : viewer ? plex::DSP_REMOTE : 0, "harbour");
    plex::frzseg();
    plex::explodem = 0; // what changes all the time must not burst open
    rules.watched = plex::dsptyp != plex::DSP_NULL;
    turnview(false);
}

bool serveconsole() {
    while (plex::kbhit() != 0) {
        const int32_t key = plex::getchc();
        if (asking == nullptr) {
            pressed(key);
        } else {
            answerkey(key);
        }
    }
    if (viewing() && current().state == State::none) {
        turnview(false);
    }
    refresh();
    return !quitting;
}

} // namespace harbour
