// The window of the X console, against X calls that keep a record.

#include "tests/support.h" // first: the X headers define None, Bool and more

#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/log.h"
#include "libunix/screen/screen.h"
#include "tests/fakex.h"

#include <cstdlib>
#include <cstring>

namespace {

using fakex::drawn;
using drawing = std::vector<std::string>;

// An open window on an image of its own, shown once.
class Window : public testing::Test {
protected:
    Window() {
        setenv("BBSFONT", "some-font", 1);
        plex::xapnam = "shower";
        for (int row = 0; row < plex::scrrows; row++) {
            put(row, 0, std::string(80, ' '), 7);
        }
        EXPECT_EQ(plex::opndsp(nullptr, image), 0);
        plex::updsp(1);
        fakex::forget();
    }
    ~Window() override { plex::clsdsp(); }

    void put(int row, int col, const std::string &text, int attr) {
        unsigned char *p = image + row * 160 + col * 2;
        for (const char c : text) {
            *p++ = static_cast<unsigned char>(c);
            *p++ = static_cast<unsigned char>(attr);
        }
    }
    // Polls through all events; the key they leave, taken.
    static int32_t press(KeySym keysym, unsigned state) {
        fakex::post(KeyPress, keysym, state);
        while (fakex::pending() > 0 && plex::kpdsp() == 0) {
        }
        return plex::gkdsp();
    }

    unsigned char image[plex::imagebytes] = {};
};

TEST_F(Window, IsMadeWithTheseProperties) {
    EXPECT_EQ(fakex::opened,
              "display font some-font window 7 0,0 640x404 4 icon 41x41 property 1 1 shower "
              "property 2 1 shower wm shower shower 10 28 0,0 640x404 640x404 7112 shower shower "
              "events 32775 gc 0 setfont 5 map black 0 blue4 1 green4 2 cyan4 3 red4 4 magenta4 5 "
              "brown4 6 grey66 7 grey33 8 blue1 9 green2 10 cyan2 11 red2 12 magenta2 13 yellow 14 "
              "grey100 15 ");
}

TEST(WindowOpening, DefaultsAndFailures) {
    setenv("BBSCONFIG", "/dev/null", 1);
    unsetenv("BBSFONT");
    plex::xapnam = nullptr;
    static unsigned char image[plex::imagebytes];
    EXPECT_EQ(plex::opndsp(nullptr, image), 0);
    EXPECT_EQ(fakex::opened.find("display font pc8x16s window"), 0U) << fakex::opened;
    EXPECT_STREQ(plex::xapnam, "noname");
    EXPECT_EQ(plex::clsdsp(), 1);
    struct {
        const char *step, *log, *err;
        int code; // 7: the call failed, + 1: with the display closed
    } const rows[] = {
        {"display", "who: cannot connect to X server nowhere:0. Exiting.\n", "", 7},
        {"font f", "", "who: Unable to load font f.\n", 8},
        {"property 1 1 who", "who: structure allocation for windowName failed.\n", "", 7},
        {"property 2 1 who", "who: structure allocation for iconName failed.\n", "", 7},
        {"red4", "", "Unable to use color 'red4'\n", 1},
        {"15", "", "Unable to use color 'grey100'\n", 1},
    };
    for (const auto &r : rows) {
        const auto outcome = test::inchild([&] {
            setenv("BBSLOG", "stdout", 1);
            setenv("BBSFONT", "f", 1);
            plex::bgnlog("");
            plex::xapnam = "who";
            fakex::failing = r.step;
            fakex::closed = 0;
            _exit(plex::opndsp(nullptr, image) == -1 ? 7 + fakex::closed : 99);
        });
        EXPECT_EQ(outcome.code(), r.code) << r.step;
        EXPECT_EQ(outcome.out, r.log) << r.step;
        EXPECT_EQ(outcome.err, r.err) << r.step;
    }
}

TEST_F(Window, RowsThatChangedAreDrawnInRuns) {
    plex::updsp(0);
    EXPECT_EQ(drawn, drawing());
    put(3, 0, "ab", 0x1E);
    put(3, 2, "c", 0x9E); // blink is no other colour
    put(3, 3, "d", 0x1F);
    fakex::forget();
    plex::updsp(0);
    EXPECT_EQ(drawn,
              (drawing{"0,64 14/1 abc", "24,64 15/1 d", "32,64 7/0 " + std::string(76, ' ')}));
    EXPECT_EQ(fakex::flushes, 1);
    fakex::forget();
    for (int row = 0; row < plex::scrrows; row++) {
        put(row, 0, std::string(80, 'x'), row);
    }
    plex::updsp(0);
    EXPECT_EQ(drawn.size(), 25U);
    fakex::forget();
    put(24, 79, "!", 24);
    plex::updsp(0);
    EXPECT_EQ(drawn, drawing{"0,400 8/1 " + std::string(79, 'x') + "!"});
}

TEST_F(Window, EventsAreReadOneAPoll) {
    const std::pair<int, size_t> rows[] = {{Expose, 25}, {ButtonPress, 25}, {MotionNotify, 0}};
    for (const auto &[type, rowsdrawn] : rows) {
        fakex::forget();
        fakex::post(type);
        fakex::post(KeyPress, 'k');
        EXPECT_EQ(plex::kpdsp(), 0) << type;
        EXPECT_EQ(drawn.size(), rowsdrawn) << type;
        EXPECT_EQ(plex::kpdsp(), 'k');
        fakex::post(Expose); // a waiting key keeps events and drawing back
        EXPECT_EQ(plex::kpdsp(), 'k');
        EXPECT_EQ(fakex::pending(), 1U);
        EXPECT_EQ(plex::dx11trm.trminp(), 'k');
        EXPECT_EQ(plex::kpdsp(), 0);
    }
}

TEST_F(Window, CursorIsDrawnWhereItMoves) {
    put(2, 5, "A", 0x4E);
    struct {
        unsigned char place[3]; // row, column, shown
        drawing want;
    } const rows[] = {
        {{0, 0, 1}, {}}, // where an earlier window of this process left it is of no interest
        {{2, 5, 1}, {"0,16 7/0  ", "bar 40,47 8x2 3"}},
        {{2, 5, 1}, {}},
        {{2, 80, 1}, {}}, // off the screen
        {{25, 5, 1}, {}},
        {{2, 6, 0}, {}}, // hidden: the old one stays
        {{0, 79, 1}, {"40,48 14/4 A", "bar 632,15 8x2 7"}},
    };
    plex::updsp(0);
    for (const auto &r : rows) {
        fakex::forget();
        memcpy(image + plex::cellbytes + plex::UPD_CURROW, r.place, sizeof r.place);
        plex::kpdsp();
        if (&r != rows) {
            EXPECT_EQ(drawn, r.want) << &r - rows;
        }
    }
}

TEST_F(Window, KeysHaveTheseCodes) {
    constexpr unsigned shift = 1, lock = 2, ctrl = 4, mod1 = 8, mod4 = 0x40, mod5 = 0x80;
    const auto check = [&](int keysym, int plain, int shifted, int controlled, int alt) {
        const auto key = static_cast<KeySym>(keysym);
        const std::string what = "key " + std::to_string(key);
        EXPECT_EQ(press(key, 0), plain) << what;
        EXPECT_EQ(press(key, lock | mod5), plain) << what;
        EXPECT_EQ(press(key, shift | ctrl | mod1), shifted) << what;
        EXPECT_EQ(press(key, ctrl | mod1), controlled) << what;
        EXPECT_EQ(press(key, mod1), alt) << what;
        EXPECT_EQ(press(key, mod4), alt) << what;
    };
    const int same[][3] = {// with Shift or without, and with Control
                           {XK_BackSpace, 8, 0},
                           {XK_Return, 13, 0},
                           {XK_Escape, 27, 0},
                           {XK_Home, 0x4700, 0x7700},
                           {XK_Up, 0x4800, 0x8D00},
                           {XK_Prior, 0x4900, 0x8400},
                           {XK_Left, 0x4B00, 0x7300},
                           {XK_Right, 0x4D00, 0x7400},
                           {XK_End, 0x4F00, 0x7500},
                           {XK_Down, 0x5000, 0x9100},
                           {XK_Next, 0x5100, 0x7600},
                           {XK_Insert, 0x5200, 0},
                           {XK_Delete, 0x5300, 0},
                           {XK_F11, 0, 0},
                           {XK_KP_Left, 0, 0},
                           {0xE9, 0, 0},
                           {';', ';', 0},
                           {'~', '~', 0},
                           {' ', ' ', 0}};
    for (const auto &r : same) {
        check(r[0], r[1], r[1], r[2], 0);
    }
    check(XK_Tab, 9, 0x0F00, 0, 0);
    check(XK_ISO_Left_Tab, 9, 0x0F00, 0, 0);
    for (int i = 0; i < 10; i++) {
        check(XK_F1 + i, 0x3B00 + (i << 8), 0x5400 + (i << 8), 0x5E00 + (i << 8),
              0x6800 + (i << 8));
        check('0' + i, '0' + i, '0' + i, 0, i == 0 ? 0x8100 : 0x7700 + (i << 8));
    }
    const int scans[] = {0x1E, 0x30, 0x2E, 0x20, 0x12, 0x21, 0x22, 0x23, 0x17,
                         0x24, 0x25, 0x26, 0x32, 0x31, 0x18, 0x19, 0x10, 0x13,
                         0x1F, 0x14, 0x16, 0x2F, 0x11, 0x2D, 0x15, 0x2C};
    for (unsigned i = 0; i < 26; i++) {
        for (const KeySym first : {'a', 'A'}) {
            EXPECT_EQ(press(first + i, 0), static_cast<int32_t>(first + i));
            EXPECT_EQ(press(first + i, ctrl), static_cast<int32_t>(i + 1));
            EXPECT_EQ(press(first + i, mod1), scans[i] << 8);
        }
    }
}

TEST_F(Window, ReleasesAndTheLog) {
    const auto outcome = test::inchild([&] {
        setenv("BBSLOG", "stdout", 1);
        plex::bgnlog("");
        const std::pair<int, KeySym> steps[] = {{KeyRelease, XK_Alt_L},
                                                {KeyPress, XK_F11},
                                                {KeyPress, 'x'},
                                                {KeyRelease, XK_Alt_R},
                                                {KeyRelease, 'x'}};
        for (const auto &[type, keysym] : steps) {
            fakex::post(type, keysym);
            if (plex::kpdsp() != 0) {
                plex::dx11trm.trminp();
            }
            plex::inform("lastscan=%d\n", plex::lascan());
        }
        plex::dx11trm.trmcls(); // afterwards nothing is left to draw on
        plex::dx11trm.trmupd(1);
        EXPECT_EQ(plex::dx11trm.trmhit(), 0);
        EXPECT_EQ(drawn, drawing());
    });
    EXPECT_EQ(outcome.out, "altnum = 0 (-1 -1 -1)\nlastscan=0\nlastscan=0\ngkdsp: key=120\n"
                           "lastscan=1\naltnum = 0 (-1 -1 -1)\nlastscan=0\nlastscan=1\n");
    EXPECT_EQ(outcome.code(), 0) << outcome.err;
}

} // namespace
