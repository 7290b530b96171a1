// The window of the X console, against X calls that keep a record.

#include "tests/support.h" // first: the X headers define None, Bool and more

#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/runtime/log.h"
#include "libunix/screen/screen.h"
#include "tests/fakex.h"

#include <cstdlib>
#include <cstring>

namespace {

using fakex::Bar;
using fakex::Text;

constexpr int height = fakex::ascent + fakex::descent;

unsigned long pixel(unsigned color) {
    return fakex::firstpixel + color;
}

// An open window on an image of its own, shown once.
class Window : public testing::Test {
protected:
    Window() {
        setenv("BBSFONT", "some-font", 1);
        plex::xapnam = "shower";
        for (size_t i = 0; i < plex::cellbytes; i += 2) {
            image[i] = ' ';
            image[i + 1] = 7;
        }
        EXPECT_EQ(plex::opndsp(nullptr, image), 0);
        plex::updsp(1);
        fakex::forget();
    }
    ~Window() override { plex::clsdsp(); }

    void put(int row, int col, const char *text, unsigned char attr) {
        for (unsigned char *p = image + row * 160 + col * 2; *text != '\0'; p += 2) {
            p[0] = static_cast<unsigned char>(*text++);
            p[1] = attr;
        }
    }
    void cursor(unsigned char row, unsigned char col, unsigned char shown) {
        const unsigned char bytes[] = {row, col, shown};
        memcpy(image + plex::cellbytes + plex::UPD_CURROW, bytes, sizeof bytes);
    }
    // Polls through all events; the key they leave, taken.
    int32_t poll() {
        while (fakex::pending() > 0 && plex::kpdsp() == 0) {
        }
        return plex::gkdsp();
    }

    unsigned char image[plex::imagebytes] = {};
};

TEST_F(Window, IsMadeWithTheseProperties) {
    EXPECT_EQ(fakex::opened,
              "font some-font window 7 0 0 640 404 4 icon 41 41 property 1 shower property 1 "
              "shower wm shower shower 1 0 28 0 0 640 404 640 404 7 1 1 2 shower shower "
              "events 32775 gc 0 setfont 5 map black blue4 green4 cyan4 red4 magenta4 brown4 "
              "grey66 grey33 blue1 green2 cyan2 red2 magenta2 yellow grey100 ");
}

TEST(WindowDefaults, FontAndName) {
    setenv("BBSCONFIG", "/dev/null", 1);
    unsetenv("BBSFONT");
    plex::xapnam = nullptr;
    static unsigned char image[plex::imagebytes];
    EXPECT_EQ(plex::opndsp(nullptr, image), 0);
    EXPECT_EQ(fakex::opened.find("font pc8x16s window"), 0U) << fakex::opened;
    EXPECT_STREQ(plex::xapnam, "noname");
    EXPECT_EQ(plex::clsdsp(), 1);
}

TEST(WindowFailures, SaySoAndFail) {
    struct {
        const char *step, *log, *err;
        int code;
        bool closes;
    } const rows[] = {
        {"display", "who: cannot connect to X server nowhere:0. Exiting.\n", "", 7, false},
        {"font", "", "who: Unable to load font f.\n", 7, true},
        {"property 1", "who: structure allocation for windowName failed.\n", "", 7, false},
        {"property 2", "who: structure allocation for iconName failed.\n", "", 7, false},
        {"look red4", "", "Unable to use color 'red4'\n", 1, false},
        {"alloc 15", "", "Unable to use color 'grey100'\n", 1, false},
    };
    for (const auto &r : rows) {
        const auto outcome = test::inchild([&] {
            setenv("BBSLOG", "stdout", 1);
            setenv("BBSFONT", "f", 1);
            plex::bgnlog("");
            plex::xapnam = "who";
            fakex::failing = r.step;
            fakex::closed = 0;
            static unsigned char image[plex::imagebytes];
            const int32_t result = plex::opndsp(nullptr, image);
            _exit(result == -1 && (fakex::closed == 1) == r.closes ? 7 : 8);
        });
        EXPECT_EQ(outcome.code(), r.code) << r.step;
        EXPECT_EQ(outcome.out, r.log) << r.step;
        EXPECT_EQ(outcome.err, r.err) << r.step;
    }
}

TEST_F(Window, RowsAreDrawnInRuns) {
    put(3, 0, "ab", 0x1E);
    put(3, 2, "c", 0x9E); // blink is no other colour
    put(3, 3, "d", 0x1F);
    plex::updsp(0);
    const int y = 4 * height;
    const std::vector<Text> want = {{0, y, "abc", pixel(14), pixel(1)},
                                    {24, y, "d", pixel(15), pixel(1)},
                                    {32, y, std::string(76, ' '), pixel(7), pixel(0)}};
    EXPECT_EQ(fakex::texts, want);
    EXPECT_EQ(fakex::flushes, 1);
}

TEST_F(Window, OnlyWhatChangedIsSent) {
    plex::updsp(0);
    EXPECT_EQ(fakex::texts.size(), 0U);
    for (int row = 0; row < plex::scrrows; row++) {
        put(row, 0, std::string(80, 'x').c_str(), static_cast<unsigned char>(row));
    }
    plex::updsp(0);
    EXPECT_EQ(fakex::texts.size(), 25U);
    fakex::forget();
    put(24, 79, "!", 24);
    plex::updsp(0);
    ASSERT_EQ(fakex::texts.size(), 1U);
    EXPECT_EQ(fakex::texts[0].y, 25 * height);
    EXPECT_EQ(fakex::texts[0].text, std::string(79, 'x') + "!");
}

TEST_F(Window, EventsAreReadOneAPoll) {
    struct {
        int type;
        size_t drawn;
    } const rows[] = {{Expose, 25}, {ButtonPress, 25}, {MotionNotify, 0}};
    for (const auto &r : rows) {
        fakex::forget();
        fakex::post(r.type);
        fakex::post(KeyPress, 'k');
        EXPECT_EQ(plex::kpdsp(), 0) << r.type;
        EXPECT_EQ(fakex::texts.size(), r.drawn) << r.type;
        EXPECT_EQ(plex::kpdsp(), 'k');
        fakex::post(Expose); // a waiting key keeps events and drawing back
        EXPECT_EQ(plex::kpdsp(), 'k');
        EXPECT_EQ(fakex::pending(), 1U);
        EXPECT_EQ(plex::dx11trm.trminp(), 'k');
        poll();
    }
}

TEST_F(Window, CursorIsDrawnWhereItMoves) {
    put(2, 5, "A", 0x4E);
    plex::updsp(0);
    struct {
        unsigned char row, col, shown;
        std::vector<Text> texts;
        std::vector<Bar> bars;
    } const rows[] = {
        {2, 5, 0, {}, {}},
        {2, 5, 1, {}, {{40, 3 * height - 1, 8, 2, pixel(3)}}},
        {2, 5, 1, {}, {}},
        {2, 80, 1, {}, {}}, // off the screen
        {25, 5, 1, {}, {}},
        {2, 6, 0, {}, {}}, // hidden: the old one stays
        {0, 79, 1, {{40, 3 * height, "A", pixel(14), pixel(4)}}, {{632, 15, 8, 2, pixel(7)}}},
        {0, 0, 1, {{632, height, " ", pixel(7), pixel(0)}}, {{0, 15, 8, 2, pixel(7)}}},
    };
    plex::updsp(0);
    for (const auto &r : rows) {
        fakex::forget();
        cursor(r.row, r.col, r.shown);
        plex::kpdsp();
        // Where an earlier window of this process left the cursor is of no interest.
        if (&r != &rows[1]) {
            EXPECT_EQ(fakex::texts, r.texts) << &r - rows;
        }
        EXPECT_EQ(fakex::bars, r.bars) << &r - rows;
    }
}

TEST_F(Window, KeysHaveTheseCodes) {
    constexpr unsigned shift = 1, lock = 2, ctrl = 4, mod1 = 8, mod4 = 0x40, mod5 = 0x80;
    struct {
        KeySym keysym;
        int32_t plain, shifted, controlled, alt;
    } const rows[] = {
        {XK_BackSpace, 8, 8, 0, 0},
        {XK_Tab, 9, 0x0F00, 0, 0},
        {XK_ISO_Left_Tab, 9, 0x0F00, 0, 0},
        {XK_Return, 13, 13, 0, 0},
        {XK_Escape, 27, 27, 0, 0},
        {XK_Home, 0x4700, 0x4700, 0x7700, 0},
        {XK_Up, 0x4800, 0x4800, 0x8D00, 0},
        {XK_Prior, 0x4900, 0x4900, 0x8400, 0},
        {XK_Left, 0x4B00, 0x4B00, 0x7300, 0},
        {XK_Right, 0x4D00, 0x4D00, 0x7400, 0},
        {XK_End, 0x4F00, 0x4F00, 0x7500, 0},
        {XK_Down, 0x5000, 0x5000, 0x9100, 0},
        {XK_Next, 0x5100, 0x5100, 0x7600, 0},
        {XK_Insert, 0x5200, 0x5200, 0, 0},
        {XK_Delete, 0x5300, 0x5300, 0, 0},
        {XK_F1, 0x3B00, 0x5400, 0x5E00, 0x6800},
        {XK_F10, 0x4400, 0x5D00, 0x6700, 0x7100},
        {XK_F11, 0, 0, 0, 0},
        {XK_KP_Left, 0, 0, 0, 0},
        {0xE9, 0, 0, 0, 0},
        {'0', '0', '0', 0, 0x8100},
        {'1', '1', '1', 0, 0x7800},
        {'9', '9', '9', 0, 0x8000},
        {';', ';', ';', 0, 0},
        {'[', '[', '[', 0, 0},
        {'`', '`', '`', 0, 0},
        {'~', '~', '~', 0, 0},
        {' ', ' ', ' ', 0, 0},
    };
    const auto press = [&](KeySym keysym, unsigned state) {
        fakex::post(KeyPress, keysym, state);
        return poll();
    };
    for (const auto &r : rows) {
        EXPECT_EQ(press(r.keysym, 0), r.plain) << std::hex << r.keysym;
        EXPECT_EQ(press(r.keysym, shift | ctrl | mod1), r.shifted) << std::hex << r.keysym;
        EXPECT_EQ(press(r.keysym, ctrl | mod1), r.controlled) << std::hex << r.keysym;
        EXPECT_EQ(press(r.keysym, mod1), r.alt) << std::hex << r.keysym;
        EXPECT_EQ(press(r.keysym, mod4), r.alt) << std::hex << r.keysym;
        EXPECT_EQ(press(r.keysym, lock | mod5), r.plain) << std::hex << r.keysym;
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
        const auto scan = [&](int type, KeySym keysym) {
            fakex::post(type, keysym);
            plex::kpdsp();
            plex::inform("lastscan=%d\n", plex::lascan());
        };
        scan(KeyRelease, XK_Alt_L);
        scan(KeyPress, XK_F11); // no key, no change
        scan(KeyPress, 'x');
        EXPECT_EQ(plex::dx11trm.trminp(), 'x');
        scan(KeyRelease, XK_Alt_R);
        scan(KeyRelease, 'x');
        EXPECT_EQ(plex::dx11trm.trmhit(), 0);
        plex::dx11trm.trmcls(); // afterwards nothing is left to draw on
        plex::dx11trm.trmupd(1);
        EXPECT_EQ(plex::dx11trm.trmhit(), 0);
        EXPECT_EQ(fakex::texts.size(), 0U);
    });
    EXPECT_EQ(outcome.out, "altnum = 0 (-1 -1 -1)\nlastscan=0\nlastscan=0\nlastscan=1\n"
                           "gkdsp: key=120\naltnum = 0 (-1 -1 -1)\nlastscan=0\nlastscan=1\n");
    EXPECT_EQ(outcome.code(), 0) << outcome.err;
}

} // namespace
