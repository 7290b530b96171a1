// Everything here may be what fails, or be half done when it is called: so each stage notes where
// the cursor is, and a catastrophe within one writes there and ends.

#include "libsrc/catastro/catastro.h"

#include "libsrc/base/dates.h"
#include "libsrc/base/text.h"
#include "libsrc/catastro/explode.h"
#include "libsrc/common/color.h"
#include "libunix/common/bytord.h"
#include "libunix/console/trm.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"

#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace plex {

int catact;
int nocore;
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

constexpr uint16_t border = 0xDE00; // blinking yellow on magenta
constexpr uint16_t inner = noticeattr << 8;
constexpr uint16_t inside = textattr << 8;
constexpr uint16_t full = 0xDB; // block characters of code page 437
constexpr uint16_t upper = 0xDF;
constexpr uint16_t lower = 0xDC;

constexpr uint16_t framecell(int row, int col) {
    const int mirrored = col < framecols / 2 ? col : framecols - 1 - col;
    if (row == 0 || row == framerows - 1) {
        return border | (mirrored == 0 ? full : row == 0 ? upper : lower);
    }
    if (mirrored < 2) {
        return border | (mirrored == 0 ? full : ' ');
    }
    if (mirrored == 2) {
        return inner | full;
    }
    return row == 1 ? inner | upper : row == framerows - 2 ? inner | lower : inside | ' ';
}

// Rows are a screen's width apart; behind the last cell shown the image ends.
constexpr auto makewin() {
    std::array<uint16_t, (framerows - 1) * scrcols + framecols> win{};
    for (int i = 0; i < static_cast<int>(win.size()); i++) {
        const int col = i % scrcols;
        const uint16_t cell = col < framecols ? framecell(i / scrcols, col) : 0x0720;
        win[static_cast<size_t>(i)] =
            std::endian::native == std::endian::little ? cell : __builtin_bswap16(cell);
    }
    return win;
}

constinit std::array catawin = makewin(); // stored little-endian until it is shown

int shofxs = 1; // the report tells the program's state
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

void tellstate() {
    const char *cp1 = catfix1();
    const char *cp2 = catfix2();
    const bool known = *cp1 != '\0' || *cp2 != '\0';
    if (known) {
        unxprntf("%s,%s\a\n", cp1, cp2);
    }
    FILE *report = fopen(REPORT, "a");
    if (report == nullptr) {
        unxprntf("(Can't re-open %s)\n", REPORT);
        return;
    }
    if (known) {
        fprintf(report, "%s,%s\n", cp1, cp2);
    }
    savecursor();
    fflush(report);
    rptphs();
    fclose(report);
    setatr(curatr.attr | blinking);
    unxprntf("                One moment please...");
    catrpt(REPORT);
    setatr(curatr.attr & static_cast<uint8_t>(~blinking));
    unxprntf("\r%36s\r", "");
    savecursor();
}

} // namespace

void catastro(const char *string, ...) {
    // Before anything is counted: deliberate. A program whose image cannot be had comes back here
    // until its stack is used up; one that must not has its image before anything can fail.
    frzseg();
    dblcat();
    va_list args;
    va_start(args, string);
    vsnprintf(tmpbuf, sizeof tmpbuf, string, args);
    va_end(args);
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
    longjmp(disaster, 49);
}

void cataexit() {
    savecursor();
    cursiz(1);
    catachk();
    longjmp(disaster, 70);
}

void dblcat() {
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
    FILE *report = fopen(REPORT, "a");
    if (report != nullptr) {
        fprintf(report, "\n%s %s ", ncedat(today()), nctime(now()));
        fprintf(report, "%s\n", formatted(string));
        fclose(report);
    } else {
        unxprntf("(Can't open %s)\n", REPORT);
    }
    if (catact == 1 && shofxs != 0) {
        tellstate();
    }
}

void pupwin(int blink) {
    // In place: deliberate, a later pop-up finds the frame as this one leaves it.
    for (uint16_t &cell : catawin) {
        cell = nus2l(cell);
        if (color == 0) {
            cell = static_cast<uint16_t>((cell & 0x8FFF) | 0x0F00);
        }
        if (blink == 0) {
            cell &= 0x7FFF;
        }
    }
    explodeto(catawin.data(), 0, 0, framecols - 1, framerows - 1, framex, framey);
    setwin(nullptr, textleft, texttop, textright, textbottom, 0);
    locate(textleft, texttop);
    sstatr(textattr);
}

void dftrpt(const char * /*filnam*/) {}

} // namespace plex
