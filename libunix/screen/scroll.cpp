// A window as wide as the screen is one block of memory, and scrolls as one; so does the common
// case of the whole screen. Any other window is moved row by row between its columns.

#include "libunix/screen/scroll.h"

#include "libunix/screen/registers.h"

#include <array>
#include <cstring>

namespace plex {
namespace {

// Blank cells, of one row, from the offset `at` on.
void blank(size_t at, int count) {
    if (count <= 0 || at >= cellbytes) {
        return;
    }
    const size_t cells = std::min(static_cast<size_t>(count), (cellbytes - at) / 2);
    unsigned char *to = iscstt + at;
    const uint8_t attr = curatr.attr;
    for (size_t i = 0; i < cells; i++) {
        to[2 * i] = ' ';
        to[2 * i + 1] = attr;
    }
}

size_t rowstart(int row) {
    return static_cast<size_t>(row) * rowbytes + 2U * curatr.wleft;
}

void blankrow(int row) {
    blank(rowstart(row), winwidth());
    mark(row);
}

// Moves the scroll rows by one: up (`by` 1) or down (-1), and blanks the row that this frees. A
// window that shares no row with the scroll region has nothing to move.
void scroll(int by) {
    const int top = curatr.efftop;
    const int bottom = curatr.effbot;
    const int freed = by > 0 ? bottom : top;
    if (top < bottom) {
        if (winwidth() == scrcols) {
            unsigned char *rows = iscstt + static_cast<size_t>(top) * rowbytes;
            const size_t len = static_cast<size_t>(bottom - top) * rowbytes;
            memmove(by > 0 ? rows : rows + rowbytes, by > 0 ? rows + rowbytes : rows, len);
        } else if (winwidth() > 0) {
            const auto len = 2 * static_cast<size_t>(winwidth());
            for (int r = by > 0 ? top : bottom; r != freed; r += by) {
                memcpy(iscstt + rowstart(r), iscstt + rowstart(r + by), len);
            }
        }
        if (flagsrows()) {
            std::fill(updflg + top, updflg + bottom + 1, 1);
        }
    }
    blankrow(freed);
}

} // namespace

void docr() {
    settle(position(dxrow(), curatr.wleft));
}

void donewl() {
    prep4r();
    int row = dxrow() + 1;
    if (row > curatr.effbot) {
        row = curatr.effbot;
        if (curatr.wscrol != 0) {
            scroll(1);
        }
    }
    settle(position(row, curatr.wleft));
}

void dorevl() {
    prep4r();
    int row = dxrow();
    if (row != curatr.efftop) {
        row++; // down, deliberately: only at the top is it the reverse of a line feed
    } else if (curatr.wscrol != 0) {
        scroll(-1);
    }
    settle(position(row, curatr.wleft));
}

void ffeed() {
    prep4r();
    int row = curatr.efftop;
    do {
        blankrow(row++);
    } while (row <= curatr.effbot);
    settle(position(curatr.efftop, curatr.wleft));
}

void doback() {
    prep4r();
    if (dxcol() == curatr.wleft) {
        // Only the first row that scrolls holds it. Above that it leads out of the window, as far
        // as the screen goes.
        if (dxrow() == curatr.efftop || dxrow() == 0) {
            return;
        }
        settle(position(dxrow() - 1, curatr.wright + 1));
    }
    si = address(si, -2);
    if (offset() < cellbytes) {
        *si = ' ';
    }
    mark(dxrow());
    dx--;
}

void dobell() {
    trmbel(curatr.belprd);
}

void ceolut() {
    blank(offset(), curatr.wright - dxcol() + 1);
    mark(dxrow());
}

void clreol() {
    bgnout();
    ceolut();
}

void ceoscn() {
    const uint16_t saved = dx;
    prep4r();
    ceolut();
    int row = dxrow() + 1;
    for (; row <= curatr.effbot; row++) {
        blankrow(row);
    }
    settle(position(row, curatr.wleft));
    dx = saved; // si stays where the clearing ended: deliberate, the rest of the call goes there
}

} // namespace plex
