// Rows are drawn from a copy. A row's flag is cleared before the row is copied: a change that comes
// in between sets it again and is drawn with the next look. The flags alone do not tell everything:
// another viewer, on its way out, may have cleared some, and not every writer sets them. So rows
// that differ from the copy are drawn too.

#include "tools/plexview/draw.h"

#include "libunix/common/cp437.h"
#include "libunix/screen/screen.h"

#include <array>
#include <atomic>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <curses.h>
#include <langinfo.h>
#include <term.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr int hintseconds = 3; // how long the hint covers the last row where there is no row below
constexpr char hint[] = " plexview: Ctrl+] leaves ";

constexpr unsigned dimcolors = 8;
constexpr unsigned allcolors = 16;

bool isopen;
unsigned ncolors; // 0: a terminal without colours
std::array<unsigned char, imagebytes> drawn;
time_t hintuntil; // 0: the hint is gone

// The colour numbers of PC attributes have blue in bit 0 and red in bit 2, those of terminals the
// other way round; intensity is bit 3 in both.
short swapped(unsigned color) {
    return static_cast<short>((color & 0xAU) | (color & 1U) << 2 | (color >> 2 & 1U));
}

// Light grey on black comes out as pair 0, which a terminal with 64 pairs has no other place for.
short pairof(unsigned fg, unsigned bg) {
    return static_cast<short>(bg * ncolors + (fg ^ 7U));
}

void preparecolors() {
    if (!has_colors() || start_color() == ERR) {
        return;
    }
    ncolors = COLORS >= static_cast<int>(allcolors) && COLOR_PAIRS >= 128 ? allcolors : dimcolors;
    assume_default_colors(swapped(7), swapped(0));
    for (unsigned bg = 0; bg < dimcolors; bg++) {
        for (unsigned fg = 0; fg < ncolors; fg++) {
            if (pairof(fg, bg) != 0) {
                init_pair(pairof(fg, bg), swapped(fg), swapped(bg));
            }
        }
    }
}

void setcell(cchar_t *cell, unsigned char ch, unsigned attrib) {
    unsigned fg = attrib & 15U;
    const unsigned bg = attrib >> 4 & 7U;
    attr_t attrs = (attrib & 0x80U) != 0 ? A_BLINK : A_NORMAL;
    short pair = 0;
    if (fg >= 8 && ncolors != allcolors) {
        attrs |= A_BOLD;
        fg -= 8;
    }
    if (ncolors != 0) {
        pair = pairof(fg, bg);
    } else if (bg != 0) {
        attrs |= A_REVERSE;
    }
    const wchar_t text[] = {fromcp437(ch), L'\0'};
    setcchar(cell, text, attrs, pair, nullptr);
}

void drawrow(int row) {
    cchar_t cells[scrcols];
    const unsigned char *p = drawn.data() + static_cast<size_t>(row) * rowbytes;
    for (int col = 0; col < scrcols; col++) {
        setcell(&cells[col], p[2 * col], p[2 * col + 1]);
    }
    mvadd_wchnstr(row, 0, cells, scrcols);
}

// The row that the hint is in: below the image if the terminal has one.
int hintrow() {
    return LINES > scrrows ? scrrows : scrrows - 1;
}

void drawhint() {
    attron(A_REVERSE);
    mvaddstr(hintrow(), 0, hint);
    attroff(A_REVERSE);
}

void drawtoosmall() {
    erase();
    mvprintw(0, 0, "This terminal is %d x %d;\nthe console needs %d x %d.\nCtrl+] leaves.", COLS,
             LINES, scrcols, scrrows);
    refresh();
}

bool takeflag(unsigned char *flag) {
    return std::atomic_ref<unsigned char>(*flag).exchange(0) != 0;
}

// Copies the row if it is to be drawn.
bool changed(unsigned char *image, int row, bool all) {
    const bool flagged = takeflag(image + cellbytes + UPD_ROWS + row);
    const unsigned char *now = image + static_cast<size_t>(row) * rowbytes;
    unsigned char *before = drawn.data() + static_cast<size_t>(row) * rowbytes;
    if (!all && !flagged && memcmp(now, before, rowbytes) == 0) {
        return false;
    }
    memcpy(before, now, rowbytes);
    return true;
}

// Puts the cursor where the image has it; whether that is somewhere else than before.
bool movecursor(const unsigned char *image) {
    unsigned char *before = drawn.data() + cellbytes + UPD_CURROW;
    constexpr size_t len = imagebytes - cellbytes - UPD_CURROW;
    const bool moved = memcmp(before, image + cellbytes + UPD_CURROW, len) != 0;
    memcpy(before, image + cellbytes + UPD_CURROW, len);
    const int row = drawn[cellbytes + UPD_CURROW];
    const int col = drawn[cellbytes + UPD_CURCOL];
    const bool shown = drawn[cellbytes + UPD_SHOWN] != 0 && row < scrrows && col < scrcols;
    curs_set(shown ? 1 : 0);
    move(shown ? row : 0, shown ? col : 0);
    return moved;
}

} // namespace

bool knowsterminal() {
    int reason = 0;
    if (setupterm(nullptr, STDOUT_FILENO, &reason) != OK) {
        return false;
    }
    del_curterm(cur_term);
    return true;
}

bool openterminal() {
    setlocale(LC_ALL, "");
    if (strcmp(nl_langinfo(CODESET), "ANSI_X3.4-1968") == 0) {
        setlocale(LC_CTYPE, "C.UTF-8"); // nobody chose: what terminals have become
    }
    set_escdelay(25);
    if (newterm(nullptr, stdout, stdin) == nullptr) {
        return false;
    }
    isopen = true;
    raw();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    preparecolors();
    hintuntil = time(nullptr) + hintseconds;
    return true;
}

void closeterminal() {
    if (isopen) {
        isopen = false;
        curs_set(1);
        endwin();
    }
}

void draw(unsigned char *image, bool all) {
    if (LINES < scrrows || COLS < scrcols) {
        if (all) {
            drawtoosmall();
        }
        return;
    }
    if (hintuntil != 0 && LINES == scrrows && time(nullptr) >= hintuntil) {
        hintuntil = 0;
        all = true;
    }
    if (all) {
        clear();
    }
    // A program that asks for everything trusts its flags less than the terminal can be trusted:
    // no need to clear that, and to have it flicker.
    all = takeflag(image + cellbytes + UPD_ALL) || all;
    bool any = all;
    for (int row = 0; row < scrrows; row++) {
        if (changed(image, row, all)) {
            drawrow(row);
            any = true;
        }
    }
    if (hintuntil != 0 && any) {
        drawhint();
    }
    if (movecursor(image) || any) {
        refresh();
    }
}

} // namespace plex
