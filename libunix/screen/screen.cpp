// One image, one window, one cursor: the engine's whole state is the record below and the output
// registers, and it lasts as long as the process.
//
// Where the cursor is depends on the console: a machine has it (and is asked every time), the
// image's control bytes tell it to a display, or it is parked and has no place on any device.

#include "libunix/screen/screen.h"

#include "libunix/screen/display.h"

#include <algorithm>

namespace plex {

unsigned char *grafbuf;
unsigned char *updflg;
uint16_t xcursor;
uint16_t speedy = 1;
uint16_t dx;
unsigned char *si;
unsigned char *iscstt;

scrstate curatr = {
    .attr = 7,
    .ansflg = ANS_OFF,
    .nparms = 0,
    .parms = {},
    .savpos = 0,
    .lstcmd = 0,
    .ansatr = 7,
    .lcpos = 0,
    .winbuf = nullptr,
    .oldbuf = nullptr,
    .curon = 1,
    .vcpos = 0,
    .offpos = 0,
    .belprd = 0x0700,
    .wleft = 0,
    .wtop = 0,
    .wright = scrcols - 1,
    .wbottom = scrrows - 1,
    .wscrol = 1,
    .rgntop = 0,
    .rgnbot = scrrows - 1,
    .oleft = 0,
    .otop = 0,
    .oright = scrcols - 1,
    .obottom = scrrows - 1,
    .oscrol = 1,
    .efftop = 0,
    .effbot = 0,
    .cursz = 0,
    .ocursz = 0,
};

namespace {

alignas(16) unsigned char privimage[imagebytes];

// A window never reaches beyond the screen: a bound that would is the last column or row.
uint8_t column(uint8_t x) {
    return std::min<uint8_t>(x, scrcols - 1);
}

uint8_t row(uint8_t y) {
    return std::min<uint8_t>(y, scrrows - 1);
}

} // namespace

unsigned char *frzseg() {
    if (grafbuf != nullptr) {
        return grafbuf;
    }
    const scrhdl &screen = screenof(dsptyp);
    grafbuf = screen.image();
    updflg = screen.flagged ? grafbuf + cellbytes : nullptr;
    cursiz(1);
    return grafbuf;
}

void giveupown() {
    if (grafbuf == privimage && screenof(dsptyp).image != ownimage) {
        grafbuf = nullptr;
        updflg = nullptr;
    }
}

void unfrez() {
    if (keepsflags() && updflg != nullptr) {
        updflg[UPD_ALL] = 1;
    }
}

void setwin(unsigned char *buf, uint8_t left, uint8_t top, uint8_t right, uint8_t bottom,
            uint8_t scroll) {
    curatr.oldbuf = curatr.winbuf;
    curatr.oleft = curatr.wleft;
    curatr.otop = curatr.wtop;
    curatr.oright = curatr.wright;
    curatr.obottom = curatr.wbottom;
    curatr.oscrol = curatr.wscrol;
    curatr.winbuf = buf;
    curatr.wleft = column(left);
    curatr.wtop = row(top);
    curatr.wright = column(right);
    curatr.wbottom = row(bottom);
    curatr.wscrol = scroll;
}

void rstwin() {
    curatr.winbuf = curatr.oldbuf;
    curatr.wleft = curatr.oleft;
    curatr.wtop = curatr.otop;
    curatr.wright = curatr.oright;
    curatr.wbottom = curatr.obottom;
    curatr.wscrol = curatr.oscrol;
}

void setatr(unsigned char attrib) {
    curatr.attr = attrib;
}

void ansion(int on) {
    if (on == 0) {
        curatr.ansflg |= ANS_OFF;
        curatr.ansatr = curatr.attr;
        return;
    }
    // Whether it was off is deliberately not asked: switching on twice drops the attribute set in
    // between.
    curatr.ansflg &= static_cast<uint8_t>(~ANS_OFF);
    curatr.attr = curatr.ansatr;
    curatr.rgntop = std::max(curatr.rgntop, curatr.wtop);
    curatr.rgnbot = std::min(curatr.rgnbot, curatr.wbottom);
}

uint16_t prfspd(uint16_t speed) {
    return speedy = speed;
}

uint16_t belper(uint16_t period) {
    return curatr.belprd = period;
}

void wrcurp(uint16_t pos) {
    if (curatr.curon != 0) {
        cursorscreen().movcur(pos);
    } else {
        curatr.vcpos = pos;
    }
}

uint16_t rdcurp() {
    dx = curatr.curon != 0 ? cursorscreen().redcur() : curatr.vcpos;
    return dx;
}

int curcurx() {
    return rdcurp() & 0xFF;
}

int curcury() {
    return rdcurp() >> 8;
}

void locate(int column, int row) {
    curatr.lcpos = rdcurp();
    // Unsigned, so that a hostile coordinate wraps instead of overflowing.
    wrcurp(
        static_cast<uint16_t>(static_cast<unsigned>(row) * 256U + static_cast<unsigned>(column)));
}

void rstloc() {
    wrcurp(curatr.lcpos);
}

void cursact(int on) {
    const uint8_t want = on != 0 ? 1 : 0;
    if (want == curatr.curon) {
        return;
    }
    if (want != 0) {
        curatr.curon = 1;
        if (curatr.vcpos != curatr.offpos) {
            wrcurp(curatr.vcpos);
        }
    } else {
        curatr.vcpos = rdcurp();
        curatr.offpos = curatr.vcpos;
        curatr.curon = 0;
    }
}

void defcur(int first, int last) {
    cursorscreen().shpcur(first, last);
}

void cursiz(int shape) {
    curatr.ocursz = curatr.cursz;
    switch (shape) {
    case 0:
        curatr.cursz = 0;
        defcur(45, 14); // 45 has the controller's cursor-off bit
        break;
    case 2:
        curatr.cursz = 2;
        defcur(2, 12);
        break;
    default:
        curatr.cursz = 1;
        defcur(13, 14);
    }
    if (keepsflags() && updflg != nullptr) {
        updflg[UPD_SHOWN] = curatr.cursz != 0 ? 1 : 0;
    }
}

void rstcur() {
    cursiz(curatr.ocursz);
}

int curcurs() {
    return curatr.cursz;
}

void bgnout() {
    supisc();
    rdcurp();
    compsi();
}

void supisc() {
    unsigned char *image = frzseg();
    iscstt = curatr.winbuf != nullptr ? curatr.winbuf : image;
}

const scrhdl ownscreen = {ownimage, true, keepcur, keptcur, noshape};

unsigned char *ownimage() {
    return privimage;
}

void keepcur(uint16_t pos) {
    if (updflg != nullptr) { // displays that look at no flags have these two as well
        updflg[UPD_CURROW] = static_cast<unsigned char>(pos >> 8);
        updflg[UPD_CURCOL] = static_cast<unsigned char>(pos);
    }
    xcursor = pos;
}

uint16_t keptcur() {
    return xcursor;
}

void noshape(int /*first*/, int /*last*/) {}

} // namespace plex
