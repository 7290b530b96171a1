// The console of a program: a keyboard to read keys from and an 80 by 25 text screen to show, by
// one of several methods. opntrm chooses the method once, at start; the entry points below forward
// to its table, and so do updtrm and trmbel (display.h, with the methods' numbers). Calling one of
// them before opntrm is a fault of the caller.
//
// A key code is the character's code (1 to 255), or for an extended key the PC keyboard's scan code
// in bits 8 to 15 over a zero byte (F1 0x3B00, Up 0x4800, Alt+A 0x1E00); 0 is no key.
#pragma once

#include "libunix/screen/display.h"

#include <cstdint>

namespace plex {

// What every method supplies.
struct trmhdl {
    int32_t (*trmopn)();           // opens it: -1 on failure, anything else is success
    int32_t (*trmcls)();           // closes it and releases what trmopn took
    int32_t (*trminp)();           // waits for a key and removes it
    int32_t (*trmhit)();           // non-zero when a key is waiting; leaves it there
    void (*trmupd)(int32_t force); // shows the image; non-zero asks for all of it
    void (*trmbel)(int32_t pitch); // sounds the bell; no method of ours minds the pitch
};

extern const trmhdl rx11trm;   // DSP_REMOTE
extern const trmhdl dx11trm;   // DSP_X11
extern const trmhdl nultrm;    // DSP_NULL
extern const trmhdl unxwretrm; // DSP_SYSCON

// What they lend the screen engine; the X and the null console make do with its own, ownscreen.
extern const scrhdl rx11scn;
extern const scrhdl unxwrescn;

extern const char *xapnam; // the program's name, as given to opntrm
extern int32_t lastscan;   // 0 when the last key was a character code entered by digits, else 1

// Chooses the method `type`, or with 0 the one that the setting BBSDISP names ("nullcon",
// "xwindow", "unixcon"; a program named "plexhost" has its X window shown by the viewer), and opens
// it for the program `name` (kept, not copied; may be null). A failure ends the program, status 1:
// "Display open failed. Exiting." on standard error, or a line in the log when no method is meant.
void opntrm(int32_t type, const char *name);

void clstrm();    // closes the method
int32_t getchc(); // waits for a key
int32_t getch();  // the same
int32_t kbhit();  // non-zero when a key is waiting
int32_t lascan(); // lastscan

// Takes the table of the first method bit set in dsptyp; ends the program when there is none.
void inittrm();

} // namespace plex
