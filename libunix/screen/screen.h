// The screen image, 25 rows of 80 cells, and where and how output goes into it: the current window,
// the cursor, the current attribute. ansi.h writes bytes into the window, print.h formatted text.
//
// Coordinates count from 0 and are those of the screen, in a window too. A position is one word:
// the row in the high byte, the column in the low byte. An attribute: foreground in bits 0 to 2,
// intensity in bit 3, background in bits 4 to 6, blink in bit 7, colours in PC order.
//
// A writer calls bgnout, then any number of character operations, which move dx and si together,
// then wrcurp(dx): the device's cursor moves once for each piece of output.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace plex {

constexpr int scrcols = 80;
constexpr int scrrows = 25;
constexpr size_t rowbytes = 2 * scrcols; // a cell is two bytes

// The image's layout is shared with other processes. Cells first, row after row, each the character
// and then its attribute; then the control bytes, at these offsets from updflg.
constexpr size_t cellbytes = rowbytes * scrrows;
constexpr size_t UPD_ROWS = 0; // a byte for each row: 1 when a cell of it was changed
constexpr size_t UPD_ALL = 25; // 1: everything is to be repainted
constexpr size_t UPD_CURROW = 26;
constexpr size_t UPD_CURCOL = 27;
constexpr size_t UPD_SHOWN = 28; // 1 while the cursor has a visible shape
constexpr size_t imagebytes = cellbytes + 29;
static_assert(imagebytes == 4029);

extern unsigned char *grafbuf; // the image; null until it is first needed
extern unsigned char *updflg;  // its control bytes; null where there are none, as in video memory
extern uint16_t xcursor;       // the cursor of displays without a hardware cursor
extern uint16_t speedy;        // kept for callers; nothing in the engine asks for it

// The output registers.
extern uint16_t dx;           // the position
extern unsigned char *si;     // the address of its cell
extern unsigned char *iscstt; // the buffer in use

constexpr int ansparms = 20;

// The bits of ansflg.
constexpr uint8_t ANS_OFF = 1;    // interpretation is off: the escape character is like any other
constexpr uint8_t ANS_ESC = 2;    // an escape character has come
constexpr uint8_t ANS_CSI = 4;    // and its bracket
constexpr uint8_t ANS_DIGITS = 8; // and at least one digit of a parameter

// The engine's state. Others may read and set `attr`; the rest is for the files of this folder.
struct scrstate {
    uint8_t attr;    // given to every cell written
    uint8_t ansflg;  // the interpreter's state
    uint16_t nparms; // completed parameters of the sequence that is open
    uint8_t parms[ansparms];
    uint16_t savpos;       // the cursor that a sequence saved
    uint8_t lstcmd;        // the final byte of the last sequence
    uint8_t ansatr;        // the interpreter's attribute while it is off
    uint16_t lcpos;        // the cursor that locate saved
    unsigned char *winbuf; // the window's buffer; null is the image
    unsigned char *oldbuf; // the previous window's
    uint8_t curon;         // 1: the cursor follows output; 0: parked
    uint16_t vcpos;        // the cursor while parked
    uint16_t offpos;       // where it was parked
    uint16_t belprd;       // for the console's bell
    uint8_t wleft, wtop, wright, wbottom;
    uint8_t wscrol;         // 1: a line feed on the last line scrolls
    uint8_t rgntop, rgnbot; // the scroll region's rows
    uint8_t oleft, otop, oright, obottom, oscrol;
    uint8_t efftop, effbot; // the rows that scroll, as prep4r has them
    uint8_t cursz, ocursz;  // the cursor's shape, and the one before
};

extern scrstate curatr;

// Returns the image, which the first call has where the console method keeps it: the shared
// segment, the system console's video memory, or a buffer of the engine's own, of zero bytes at
// first. With no method open it is that too; opening one that keeps its image elsewhere gives it
// up. Video memory that cannot be had closes the console and ends the program with a line on
// standard error, status 255; a segment that cannot be had is a catastrophe.
unsigned char *frzseg();

// Asks for everything to be repainted, on the displays that keep flags.
void unfrez();

// Makes a rectangle the window: columns `left` to `right`, rows `top` to `bottom`, inclusive, of
// the image or of the caller's `buf`, which is addressed like the whole image and needs cellbytes.
// `scroll` 0 keeps a line feed on the last line from scrolling. Neither the cursor nor the scroll
// region moves. The previous window is kept for rstwin, one level deep. Bounds beyond the screen
// are cut to it.
void setwin(unsigned char *buf, uint8_t left, uint8_t top, uint8_t right, uint8_t bottom,
            uint8_t scroll);
void rstwin();

// Sets the current attribute.
void setatr(unsigned char attrib);

// Switches interpretation of escape sequences. Plain and interpreted text have an attribute each:
// switching on brings back the one that was current when it was last switched off, and cuts the
// scroll region to the window.
void ansion(int on);

// Keep a value and return it: the print speed, the bell's value.
uint16_t prfspd(uint16_t speed);
uint16_t belper(uint16_t period);

// Moves the cursor; reads it (the position is in dx then, too).
void wrcurp(uint16_t pos);
uint16_t rdcurp();
int curcurx();
int curcury();

// Moves the cursor and keeps its old position for rstloc, one level deep.
void locate(int column, int row);
void rstloc();

// Parks the cursor (0): output goes on from where it stands, the device's cursor stays. Activates
// it again: the device's cursor goes to where the output ended, unless that never moved.
void cursact(int on);

// Sets a hardware cursor's first and last scan line; other displays have none.
void defcur(int first, int last);

// Sets the cursor's shape: 0 hidden, 1 (and any other) underline, 2 large; back to the one before;
// asks for it.
void cursiz(int shape);
void rstcur();
int curcurs();

// For writers: the output registers as a piece of output starts, that is supisc, rdcurp, compsi.
void bgnout();

// The steps: the buffer in use from the window (the image is created if there is none yet); si from
// iscstt and dx, reckoned as a number: no pointer arithmetic reaches beyond the buffer.
void supisc();
inline void compsi() {
    const int cell = (dx >> 8) * scrcols + (dx & 0xFF);
    si = reinterpret_cast<unsigned char *>(reinterpret_cast<uintptr_t>(iscstt) +
                                           2 * static_cast<uintptr_t>(cell));
}

// The rows that scroll, efftop to effbot: the window's and, with interpretation on, of these the
// scroll region's.
inline void prep4r() {
    const bool off = (curatr.ansflg & ANS_OFF) != 0;
    curatr.efftop = off ? curatr.wtop : std::max(curatr.wtop, curatr.rgntop);
    curatr.effbot = off ? curatr.wbottom : std::min(curatr.wbottom, curatr.rgnbot);
}

} // namespace plex
