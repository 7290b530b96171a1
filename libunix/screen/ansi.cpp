// The interpreter reads a stream in one pass and keeps no text of its own: what a byte means
// depends on four bits (ansflg) and the parameters so far, so a stream may be cut anywhere.
//
// dx and si name the same cell, but for one case: after an erase to the end of the screen si stands
// below what was erased, until something computes it from dx again, which is deliberate. So every
// store checks si itself, and never trusts dx to bound it.

#include "libunix/screen/ansi.h"

#include "libunix/screen/registers.h"
#include "libunix/screen/scroll.h"

#include <algorithm>
#include <array>

namespace plex {

uint8_t canscro;
uint8_t lstctl;

namespace {

constexpr unsigned char ESC = 27;

// What a parameter of a graphic rendition does to the attribute: AND, then OR. Parameters beyond
// the tables do nothing.
struct sgrtables {
    std::array<uint8_t, 50> andmsk;
    std::array<uint8_t, 50> orbits;
};

constexpr sgrtables makesgr() {
    sgrtables t = {};
    t.andmsk.fill(0xFF);
    const auto set = [&t](size_t p, uint8_t mask, uint8_t bits) {
        t.andmsk[p] = mask;
        t.orbits[p] = bits;
    };
    set(0, 0x00, 0x07);
    set(1, 0xFF, 0x08);
    set(2, 0xF7, 0x00);
    set(4, 0xF8, 0x01); // underline shows as blue
    set(5, 0xFF, 0x80);
    set(6, 0xFF, 0x80);
    set(7, 0xF8, 0x70); // reverse: black on what the background gives with all its bits set
    set(8, 0x00, 0x00);
    constexpr std::array<uint8_t, 8> colour = {0, 4, 2, 6, 1, 5, 3, 7}; // ANSI order to PC order
    for (size_t i = 0; i < colour.size(); i++) {
        set(30 + i, 0xF8, colour[i]);
        set(40 + i, 0x8F, static_cast<uint8_t>(colour[i] << 4));
    }
    return t;
}

constexpr std::array<uint8_t, 50> andmsk = makesgr().andmsk;
constexpr std::array<uint8_t, 50> orbits = makesgr().orbits;

// The value of a digit; 10 or more for any other byte.
unsigned digit(unsigned char c) {
    return c - static_cast<unsigned>('0');
}

void put(unsigned char c) {
    if (offset() < cellbytes) {
        si[0] = c;
        si[1] = curatr.attr;
    }
    si = address(si, 2);
}

// The wrap is immediate: a glyph in the last column leaves the cursor on the next line.
void advance() {
    if (dxcol() == curatr.wright) {
        donewl();
    } else {
        dx++;
    }
}

void control(unsigned char c, void (*action)()) {
    action();
    lstctl = c;
}

void opensequence() {
    curatr.ansflg |= ANS_ESC;
    curatr.nparms = 0;
    curatr.parms[0] = 1;
    curatr.parms[1] = 1;
}

// A sequence of two characters, the only movements that scroll.
void index(unsigned char f) {
    curatr.parms[0] = 1;
    canscro = 1;
    doansi(f);
}

// Carries out a whole control sequence at the start of `s`, if it is all there and of the usual
// form: how many bytes it takes. 0: it is left to pransi, byte by byte. Slots of parms may then
// have been set already, but only to what pransi sets them to.
size_t wholesequence(const unsigned char *s, size_t len) {
    if (len < 3 || s[1] != '[' || s[2] == ';') {
        return 0;
    }
    curatr.parms[0] = 1;
    curatr.parms[1] = 1;
    size_t at = 2;
    unsigned n = 0;
    while (n < ansparms && digit(s[at]) < 10) {
        // Whether there is a second digit no branch can foretell in a position; a third is rare.
        // The arithmetic gives bench-screen's "places" 17 %, and costs "colours" some of what plain
        // loops had won there.
        unsigned value = digit(s[at++]);
        const unsigned next = at < len ? digit(s[at]) : 10;
        const unsigned two = next < 10 ? 1 : 0;
        value += two * (9 * value + next);
        at += two;
        while (at < len && digit(s[at]) < 10) {
            value = value * 10 + digit(s[at++]);
        }
        curatr.parms[n++] = static_cast<uint8_t>(value);
        if (at == len) {
            return 0;
        }
        if (s[at] != ';') {
            break;
        }
        if (++at == len || digit(s[at]) > 9) { // an empty parameter
            return 0;
        }
    }
    if (n == ansparms) {
        return 0;
    }
    curatr.nparms = static_cast<uint16_t>(n);
    canscro = 0;
    doansi(s[at]);
    return at + 1;
}

void rendition() {
    if (curatr.nparms == 0) {
        curatr.nparms = 1;
        curatr.parms[0] = 0;
        curatr.parms[1] = 1;
    }
    uint8_t attr = curatr.attr;
    for (unsigned i = 0; i < curatr.nparms; i++) {
        const uint8_t p = curatr.parms[i];
        if (p < andmsk.size()) {
            attr = static_cast<uint8_t>((attr & andmsk[p]) | orbits[p]);
        }
    }
    curatr.attr = attr;
}

// Moves to a position, brought back among the scroll rows and into the window.
void moveto(uint16_t pos) {
    prep4r();
    dx = pos;
    if (dxrow() < curatr.efftop) {
        dx = position(curatr.efftop, dxcol());
        if (canscro == 1) {
            dorevl();
        }
    }
    if (dxrow() > curatr.effbot) {
        dx = position(curatr.effbot, dxcol());
        if (canscro == 1) {
            donewl();
        }
    }
    if (dxcol() < curatr.wleft) {
        dx = position(dxrow(), curatr.wleft);
    }
    if (dxcol() > curatr.wright) { // also then: a window may be inside out
        dx = position(dxrow(), curatr.wright);
    }
    settle(dx);
}

// Rows are counted from 1 and from the window's top.
void setregion(int top, int bottom) {
    if (top == 0 || bottom == 0) {
        return;
    }
    top += curatr.wtop - 1;
    bottom += curatr.wtop - 1;
    if (bottom <= curatr.wbottom && bottom >= top) {
        curatr.rgntop = static_cast<uint8_t>(top);
        curatr.rgnbot = static_cast<uint8_t>(bottom);
    }
}

void unknown() {
    outlit(ESC);
    outlit('[');
    outlit(curatr.lstcmd);
}

// Words are hardly longer than this, and where they end no branch can foretell: they are written as
// they are read, which is one wrong guess each (bench-screen's "places": 8 %). Longer runs are read
// first and then written, which the compiler does many cells at a time.
constexpr size_t word = 6;

// Writes the glyphs at the start of `s` that go into the rest of the line as one run: how many. A
// control character that is a glyph ends it too.
size_t run(const unsigned char *s, size_t len) {
    const size_t room = static_cast<size_t>(curatr.wright) + 1 - static_cast<size_t>(dxcol());
    if (dxcol() > curatr.wright || offset() > cellbytes - 2 * room) {
        return 0;
    }
    const size_t most = std::min(room, len);
    const size_t few = std::min(most, word);
    unsigned char *cell = si;
    const uint8_t attr = curatr.attr;
    size_t n = 0;
    for (; n < few && s[n] > ESC; n++) {
        cell[2 * n] = s[n];
        cell[2 * n + 1] = attr;
    }
    if (n == word) {
        const auto special = [](unsigned char c) { return c <= ESC; };
        n = static_cast<size_t>(std::find_if(s + word, s + most, special) - s);
        for (size_t i = word; i < n; i++) {
            cell[2 * i] = s[i];
            cell[2 * i + 1] = attr;
        }
    }
    if (n != 0) {
        mark(dxrow());
        si = cell + 2 * n;
        dx = static_cast<uint16_t>(dx + n - 1);
        advance();
    }
    return n;
}

} // namespace

void outlit(unsigned char c) {
    put(c);
    advance();
}

void pransi(unsigned char c) {
    canscro = 0;
    const uint16_t n = curatr.nparms;
    const uint16_t next = std::min<uint16_t>(n + 1, ansparms); // beyond the last slot: ignored
    if ((curatr.ansflg & ANS_CSI) == 0) {
        if (c == 'D') {
            index('B');
        } else if (c == 'M') {
            index('A');
        } else if (c == '[') {
            curatr.ansflg |= ANS_CSI;
        } else {
            outlit(ESC);
            curatr.ansflg = 0;
            outbyt(c);
        }
    } else if (digit(c) < 10) {
        if (n < ansparms) {
            const bool first = (curatr.ansflg & ANS_DIGITS) == 0;
            const unsigned before = first ? 0U : curatr.parms[n] * 10U;
            curatr.parms[n] = static_cast<uint8_t>(before + digit(c));
        }
        curatr.ansflg |= ANS_DIGITS;
    } else if (c == ';') {
        // An empty parameter leaves its slot as an earlier sequence left it. Deliberate.
        curatr.nparms = next;
        curatr.ansflg &= static_cast<uint8_t>(~ANS_DIGITS);
    } else {
        if ((curatr.ansflg & ANS_DIGITS) != 0) {
            curatr.nparms = next;
        }
        doansi(c);
    }
}

void outbyt(unsigned char c) {
    if ((curatr.ansflg & ANS_OFF) == 0) {
        if (curatr.ansflg != 0) {
            pransi(c);
            return;
        }
        if (c == ESC) {
            opensequence();
            return;
        }
    }
    switch (c) {
    case '\a':
        control(c, dobell);
        break;
    case '\b':
        control(c, doback);
        break;
    case '\n':
        control(c, donewl);
        break;
    case '\f':
        control(c, ffeed);
        break;
    case '\r':
        control(c, docr);
        break;
    default:
        put(c);
        mark(dxrow());
        advance();
    }
}

void outbuf(const unsigned char *s, size_t len) {
    for (size_t at = 0; at < len;) {
        size_t n = 0;
        if (curatr.ansflg == 0 && s[at] == ESC) {
            n = wholesequence(s + at, len - at);
        } else if (curatr.ansflg == 0 || (curatr.ansflg & ANS_OFF) != 0) {
            n = run(s + at, len - at);
        }
        if (n == 0) {
            outbyt(s[at]);
            n = 1;
        }
        at += n;
    }
}

void doansi(unsigned char f) {
    curatr.ansflg = 0;
    curatr.lstcmd = f;
    const int p0 = curatr.parms[0];
    const int p1 = curatr.parms[1];
    switch (f & 0xDF) { // in either letter case
    case 'M':
        rendition();
        break;
    case 'A':
        moveto(position(dxrow() - p0, dxcol()));
        break;
    case 'B':
        moveto(position(dxrow() + p0, dxcol()));
        break;
    case 'C':
        moveto(static_cast<uint16_t>(dx + p0)); // as one word: a carry takes a row. Deliberate.
        break;
    case 'D':
        moveto(static_cast<uint16_t>(dx - p0));
        break;
    case 'S':
        curatr.savpos = dx;
        break;
    case 'U':
        moveto(curatr.savpos);
        break;
    case 'J':
        if (curatr.nparms == 0 || p0 == 0) {
            ceoscn();
        } else if (p0 == 2) {
            ffeed();
        } else {
            unknown();
        }
        break;
    case 'R':
        if (f == 'r') {
            setregion(p0, p1);
        } else {
            unknown();
        }
        break;
    case 'K':
        ceolut(); // whatever the parameter
        break;
    case 'H':
    case 'F':
        moveto(position(std::max(p0, 1) + curatr.wtop - 1, std::max(p1, 1) + curatr.wleft - 1));
        break;
    default:
        unknown();
    }
}

} // namespace plex
