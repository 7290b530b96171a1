// Everything here may be what fails, or be half done when it is called: so each stage notes where
// the cursor is, and a catastrophe within one writes there and ends.

#include "libsrc/catastro/catastro.h"

#include "libsrc/base/dates.h"
#include "libsrc/base/text.h"
#include "libsrc/catastro/explode.h"
#include "libsrc/common/color.h"
#include "libunix/console/trm.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace plex {

int catact;
int nocore;
int shofxs = 1;
void (*catrpt)(const char *) = dftrpt;
jmp_buf disaster;

namespace {

constexpr const char *REPORT = "CATASTRO.TXT";
constexpr int nested = 80;          // exit status
constexpr unsigned pause = 3000000; // microseconds to read the message
constexpr size_t messagesize = 1024;

// The frame: two borders around room for five lines of 61 characters, and where it stands.
constexpr int framecols = 67;
constexpr int framerows = 9;
constexpr int framex = 7;
constexpr int framey = 8;

// The text area: that room, less two columns at its left.
constexpr uint8_t textleft = framex + 5;
constexpr uint8_t texttop = framey + 2;
constexpr uint8_t textright = framex + framecols - 4;
constexpr uint8_t textbottom = framey + framerows - 3;

constexpr uint8_t textattr = 0x4F;   // bright white on red
constexpr uint8_t noticeattr = 0x4E; // yellow on red
constexpr uint8_t blinking = 0x80;

constexpr uint8_t borderattr = 0xDE; // blinking yellow on magenta

constexpr unsigned char full = 0xDB; // block characters of code page 437
constexpr unsigned char upper = 0xDF;
constexpr unsigned char lower = 0xDC;

struct cell {
    unsigned char glyph;
    uint8_t attr;
};
static_assert(sizeof(cell) == 2); // as in the screen's image

constexpr cell framecell(int row, int col) {
    const int mirrored = col < framecols / 2 ? col : framecols - 1 - col;
    if (row == 0 || row == framerows - 1) {
        return {mirrored == 0 ? full : row == 0 ? upper : lower, borderattr};
    }
    if (mirrored < 2) {
        return {mirrored == 0 ? full : static_cast<unsigned char>(' '), borderattr};
    }
    if (mirrored == 2) {
        return {full, noticeattr};
    }
    if (row == 1 || row == framerows - 2) {
        return {row == 1 ? upper : lower, noticeattr};
    }
    return {' ', textattr};
}

// Rows are a screen's width apart; behind the last cell shown the image ends.
constexpr auto makewin() {
    std::array<cell, (framerows - 1) * scrcols + framecols> win{};
    for (int i = 0; i < static_cast<int>(win.size()); i++) {
        const int col = i % scrcols;
        win[static_cast<size_t>(i)] = col < framecols ? framecell(i / scrcols, col) : cell{' ', 7};
    }
    return win;
}

constinit std::array catawin = makewin();

int savex;
int savey;
char tmpbuf[messagesize];

void savecursor() {
    savex = curcurx();
    savey = curcury();
}

// `string` used as a format without arguments.
const char *formatted(const char *string) {
    static char again[messagesize];
    stzcpy(again, string, sizeof again);
    fmtagain(again);
    return again;
}

// Adds the message to the report file. False when that cannot be opened.
bool report(const char *string) {
    FILE *file = fopen(REPORT, "ae");
    if (file == nullptr) {
        return false;
    }
    fprintf(file, "\n%s %s ", ncedat(today()), nctime(now()));
    fprintf(file, "%s\n", formatted(string));
    fclose(file);
    return true;
}

// What is shown is the last thing that a person sees, so an open sequence must not eat its
// beginning nor a scroll region fold it. A program that goes on finds interpretation as it was.
int found = -1; // ansflg; -1: as the program has it

void plain() {
    if (found < 0) {
        found = curatr.ansflg;
    }
    curatr.ansflg |= ANS_OFF;
}

[[noreturn]] void goon(int value) {
    curatr.ansflg = static_cast<uint8_t>(found);
    found = -1;
    longjmp(disaster, value);
}

// There is no screen to say it on: a fatal error within one.
[[noreturn]] void blind() {
    inform("%s\n", tmpbuf);
    report(tmpbuf);
    fprintf(stderr, "%s\n", formatted(tmpbuf));
    clsisam();
    exit(nested);
}

void tellstate() {
    const char *cp1 = catfix1();
    const char *cp2 = catfix2();
    const bool known = *cp1 != '\0' || *cp2 != '\0';
    if (known) {
        unxprntf("%s,%s\a\n", cp1, cp2);
    }
    FILE *file = fopen(REPORT, "ae");
    if (file == nullptr) {
        unxprntf("(Can't re-open %s)\n", REPORT);
        return;
    }
    if (known) {
        fprintf(file, "%s,%s\n", cp1, cp2);
    }
    savecursor();
    fflush(file);
    rptphs();
    fclose(file);
    setatr(curatr.attr | blinking);
    unxprntf("                One moment please...");
    catrpt(REPORT);
    setatr(curatr.attr & static_cast<uint8_t>(~blinking));
    unxprntf("\r%36s\r", "");
    savecursor();
}

} // namespace

void catastro(const char *string, ...) {
    static bool entered; // until the image is there
    va_list args;
    va_start(args, string);
    vsnprintf(tmpbuf, sizeof tmpbuf, string, args);
    va_end(args);
    if (entered) {
        blind();
    }
    entered = true;
    frzseg();
    entered = false;
    dblcat();
    inform("%s\n", tmpbuf);
    catamsg(1, tmpbuf);
    delay(pause);
    clstrm();
    cataexit();
}

void memcata() {
    dblcat();
    shofxs = 0;
    catamsg(0, "There is not enough memory to continue.");
    unxprntf("Please either reduce your memory requirements\n");
    unxprntf("or install more memory, and try again.\n");
    sstatr(noticeattr);
    unxprntf("    << Press any key to proceed >>");
    getchc();
    savecursor();
    catachk();
    goon(49);
}

void cataexit() {
    plain();
    savecursor();
    cursiz(1);
    catachk();
    goon(70);
}

void dblcat() {
    plain();
    cursiz(1);
    if (++catact == 1) {
        return;
    }
    setwin(nullptr, textleft, texttop, textright, textbottom, 0);
    locate(savex, savey);
    sstatr(noticeattr);
    unxprntf("\n%9s\x10\x10\x10 YOU SHOULD REBOOT YOUR COMPUTER \x11\x11\x11\n", "");
    cursact(1);
    locate(0, exitrow);
    clsisam();
    exit(nested);
}

void catamsg(int blink, const char *string) {
    pupwin(blink);
    unxprntf("%s %s\n", ncedat(today()), nctime(now()));
    unxprntf("%s", formatted(string));
    unxprntf("\n");
    savecursor();
    if (!report(string)) {
        unxprntf("(Can't open %s)\n", REPORT);
    }
    if (catact == 1 && shofxs != 0) {
        tellstate();
    }
}

void pupwin(int blink) {
    // In place: deliberate, a later pop-up finds the frame as this one leaves it.
    for (cell &c : catawin) {
        if (color == 0) {
            c.attr = static_cast<uint8_t>((c.attr & 0x8F) | 0x0F);
        }
        if (blink == 0) {
            c.attr &= static_cast<uint8_t>(~blinking);
        }
    }
    explodeto(catawin.data(), 0, 0, framecols - 1, framerows - 1, framex, framey);
    setwin(nullptr, textleft, texttop, textright, textbottom, 0);
    locate(textleft, texttop);
    sstatr(textattr);
}

void dftrpt(const char * /*filnam*/) {}

} // namespace plex
