// What the screen engine knows of the consoles that show its image: a table of operations that each
// console method lends it, and how to get the one in force. The engine knows no method; the method
// switch, on the floor above, defines what is declared here.
//
// Programs choose a method by opntrm, but some only set `dsptyp`: so it is looked at each time, as
// a set of bits, and only by the predicates below.
#pragma once

#include <cstdint>

namespace plex {

// The methods.
constexpr int32_t DSP_REMOTE = 1;     // shared screen, shown by a viewer process
constexpr int32_t DSP_X11 = 2;        // a window of an X server
constexpr int32_t DSP_NULL = 8;       // a screen that nobody sees, a keyboard without keys
constexpr int32_t DSP_SYSCON = 0x100; // the machine's own console
constexpr int32_t DSP_FLAGS = DSP_REMOTE | DSP_X11; // those that follow the row-changed flags

extern int32_t dsptyp; // the method chosen; 0 before opntrm

struct scrhdl {
    // Where the image is: asked once, when it is first needed. Does not return without one.
    unsigned char *(*image)();
    bool flagged; // the control bytes lie behind the image's cells; else there are none

    // The cursor: moves it, reads it (positions are those of screen.h), and sets its first and last
    // scan line. A display whose image is a copy of the engine's brings it up to date with a move:
    // that ends each piece of output.
    void (*movcur)(uint16_t pos);
    uint16_t (*redcur)();
    void (*shpcur)(int first, int last);
};

// The table for `type`: that of its first method in the order of the bits, the null console's where
// it names none.
const scrhdl &screenof(int32_t type);

// The other two operations go through the method that is open: brings the visible console up to
// date (non-zero `force`: all of it), and sounds the bell.
void updtrm(int32_t force);
void trmbel(int32_t pitch);

// An image of the engine's own, and a cursor that only its control bytes tell: all that a display
// without a machine behind it needs. The image is static, so that a program out of memory has one
// to say it on.
extern const scrhdl ownscreen;
unsigned char *ownimage();
void keepcur(uint16_t pos);
uint16_t keptcur();
void noshape(int first, int last);

// Gives the engine's own image up if it stood in for that of the method now in force: the next need
// of an image asks the method. For the switch, when it opens a method.
void giveupown();

// The displays that the host family has given a hardware cursor; of ours, the system console.
constexpr int32_t DSP_HARDWARE = 0x394;

// Whose cursor it is.
inline const scrhdl &cursorscreen() {
    return screenof((dsptyp & DSP_HARDWARE) != 0 ? DSP_SYSCON : dsptyp);
}

// Whether rows that change are marked, and whether the cursor is shown is told.
inline bool keepsflags() {
    return (dsptyp & DSP_FLAGS) != 0;
}

// Whether each piece of formatted output is to be seen at once, also while the cursor is parked:
// so are a fatal error's words.
inline bool showsatonce() {
    return (dsptyp & (DSP_X11 | DSP_SYSCON)) != 0;
}

} // namespace plex
