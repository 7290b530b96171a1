// The window of the X console where no real server shows it: what it does when it is refused, the
// order of events, when it draws. What it looks like: e2e/xserver.py.

#include "tests/support.h" // first: the X headers define None, Bool and more

#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/log.h"
#include "libunix/screen/screen.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace {

std::string failing; // the call that the server refuses: "display", "font", or what is asked for
int strings, bars;   // drawn
std::deque<XEvent> events;
int closed; // displays

bool granted(const std::string &what) {
    return what != failing;
}

} // namespace

// Of the X calls these are in front of the empty ones, wrapped by the linker.
extern "C" {

Display *__wrap_XOpenDisplay(const char *) {
    static Screen screens[1];
    static std::remove_pointer_t<_XPrivDisplay> server;
    server.screens = screens;
    return granted("display") ? reinterpret_cast<Display *>(&server) : nullptr;
}

int __wrap_XCloseDisplay(Display *) {
    return ++closed;
}

XFontStruct *__wrap_XLoadQueryFont(Display *, const char *name) {
    static XFontStruct font;
    font.max_bounds.width = 8;
    font.max_bounds.ascent = 12;
    font.max_bounds.descent = 4;
    return granted(std::string("font ") + name) ? &font : nullptr;
}

Status __wrap_XStringListToTextProperty(char **, int, XTextProperty *) {
    static int count = 0;
    return granted("property " + std::to_string(++count));
}

Status __wrap_XLookupColor(Display *, Colormap, const char *name, XColor *, XColor *) {
    return granted(name);
}

Status __wrap_XAllocColor(Display *, Colormap, XColor *) {
    return granted("colour");
}

int __wrap_XDrawImageString(Display *, Drawable, GC, int, int, const char *, int) {
    return ++strings;
}

int __wrap_XFillRectangle(Display *, Drawable, GC, int, int, unsigned, unsigned) {
    return ++bars;
}

int __wrap_XPending(Display *) {
    return static_cast<int>(events.size());
}

int __wrap_XNextEvent(Display *, XEvent *event) {
    *event = events.front();
    events.pop_front();
    return 1;
}

int __wrap_XLookupString(XKeyEvent *event, char *, int, KeySym *keysym, XComposeStatus *) {
    *keysym = event->keycode;
    return 0;
}

} // extern "C"

namespace {

unsigned char image[plex::imagebytes];

void post(int type, KeySym keysym = NoSymbol) {
    XEvent event = {};
    event.type = type;
    event.xkey.keycode = static_cast<unsigned>(keysym);
    events.push_back(event);
}

TEST(Window, Refusals) {
    struct {
        const char *refused, *log, *err;
        int code; // 7: the call failed, + 1: with the display closed
    } const rows[] = {
        {"display", "who: cannot connect to X server . Exiting.\n", "", 7},
        {"font f", "", "who: Unable to load font f.\n", 8},
        {"property 1", "who: structure allocation for windowName failed.\n", "", 7},
        {"property 2", "who: structure allocation for iconName failed.\n", "", 7},
        {"red4", "", "Unable to use color 'red4'\n", 1},
        {"colour", "", "Unable to use color 'black'\n", 1},
    };
    for (const auto &r : rows) {
        const auto outcome = test::inchild([&] {
            setenv("BBSLOG", "stdout", 1);
            setenv("BBSFONT", "f", 1);
            plex::bgnlog("");
            plex::xapnam = "who";
            failing = r.refused;
            _exit(plex::opndsp(nullptr, image) == -1 ? 7 + closed : 99);
        });
        EXPECT_EQ(outcome.code(), r.code) << r.refused;
        EXPECT_EQ(outcome.out, r.log) << r.refused;
        EXPECT_EQ(outcome.err, r.err) << r.refused;
    }
}

TEST(Window, EventsAndDrawing) {
    setenv("BBSCONFIG", "/dev/null", 1);
    ASSERT_EQ(plex::opndsp(nullptr, image), 0);
    EXPECT_STREQ(plex::xapnam, "noname");
    const std::pair<int, int> polls[] = {{Expose, 25}, {ButtonPress, 25}, {MotionNotify, 0}};
    plex::updsp(1);
    for (const auto &[type, rowsdrawn] : polls) { // an event a poll
        strings = 0;
        post(type);
        post(KeyPress, 'k');
        EXPECT_EQ(plex::kpdsp(), 0) << type;
        EXPECT_EQ(strings, rowsdrawn) << type;
        EXPECT_EQ(plex::kpdsp(), 'k');
        post(Expose); // a waiting key keeps events and drawing back
        EXPECT_EQ(plex::kpdsp(), 'k');
        EXPECT_EQ(events.size(), 1U);
        EXPECT_EQ(plex::dx11trm.trminp(), 'k');
        EXPECT_EQ(plex::kpdsp(), 0);
    }
    const struct {
        int type;
        KeySym keysym;
        int key, lastscan;
    } scans[] = {{KeyRelease, XK_Alt_L, 0, 0},
                 {KeyPress, XK_F11, 0, 0},
                 {KeyPress, 'x', 'x', 1},
                 {KeyRelease, XK_Alt_R, 0, 0},
                 {KeyRelease, 'x', 0, 1}};
    for (const auto &s : scans) {
        post(s.type, s.keysym);
        EXPECT_EQ(plex::kpdsp(), s.key);
        EXPECT_EQ(plex::gkdsp(), s.key);
        EXPECT_EQ(plex::lascan(), s.lastscan) << s.keysym;
    }
    const struct {
        unsigned char place[3]; // row, column, shown
        int strings, bars;
    } cursors[] = {{{2, 80, 1}, 0, 0}, {{25, 5, 1}, 0, 0}, {{2, 6, 0}, 0, 0}, // not on the screen
                   {{2, 5, 1}, 0, 1},  {{2, 5, 1}, 0, 0},  {{2, 7, 0}, 0, 0},
                   {{2, 7, 1}, 1, 1}, // hidden: the old one stays
                   {{3, 7, 1}, 1, 1}};
    for (const auto &c : cursors) {
        strings = bars = 0;
        memcpy(image + plex::cellbytes + plex::UPD_CURROW, c.place, sizeof c.place);
        plex::kpdsp();
        EXPECT_EQ(std::pair(strings, bars), std::pair(c.strings, c.bars)) << &c - cursors;
    }
    strings = 0;
    EXPECT_EQ(plex::dx11trm.trmcls(), 1); // afterwards nothing is left to draw on
    plex::dx11trm.trmupd(1);
    EXPECT_EQ(plex::dx11trm.trmhit() + strings, 0);
}

} // namespace
