// The window of an X server that shows a screen image: 80 by 25 cells in a fixed-width font and
// sixteen colours, an underline cursor, and key events as key codes.
//
// There is no event loop: events are read, one at a time, when the program polls for a key. One
// window a process. This header needs the X headers and is not among those of plex.h; programs
// reach the window through the console's entry points.
#pragma once

#include <X11/Xlib.h>
#include <cstdint>

namespace plex {

// Opens a window on the display `dspnam` (null for the default one) for the image `buffer` (4029
// bytes, which stays the caller's and must outlive the window). 0, or -1 with the reason in the log
// (no display, no name properties) or on standard error (no font). A colour that cannot be had ends
// the program, status 1.
int32_t opndsp(const char *dspnam, unsigned char *buffer);

// Closes the display; returns 1. Afterwards nothing is drawn and no key comes.
int32_t clsdsp();

// Returns the waiting key if there is one. Otherwise handles at most one event, brings the window
// up to date, and returns the key that the event made, or 0. The key stays until gkdsp takes it.
int32_t kpdsp();

// Takes the waiting key (0 when there is none), with a line in the log.
int32_t gkdsp();

// Draws the rows that differ from what was drawn last (all of them when `force` is non-zero) and
// the cursor. Returns 0.
int32_t updsp(int32_t force);

int32_t upddsp(int32_t force); // the rows alone; returns 0
void updlin(int32_t row);      // one row (0 to 24), as one image string for each run of a colour
void updcur();                 // the cursor, if it is shown and has moved since it was drawn

// Allocates the sixteen colours, or ends the program, status 1, naming the first one refused.
void AllocateColors();

// The key code of a key-press event; 0 when it has none.
int32_t ProcessKey(XEvent *event);

// What a key-release event delivers: 0, always, but a released Alt key ends an entry of a character
// code by digits and says so in the log. Sets lastscan.
int32_t ProcessRelease(XEvent *event);

// The key code of a key symbol pressed without modifiers; 0 when it has none.
int32_t TranslateKeysym(KeySym keysym);

// Classes of key codes, each 1 or 0.
int32_t isprnt(int32_t c);   // printable ASCII
int32_t isnum(int32_t c);    // digits
int32_t islalpha(int32_t c); // lower-case letters
int32_t isualpha(int32_t c); // upper-case letters
int32_t isfunc(int32_t c);   // F1 to F10 without Shift
int32_t isother(int32_t c);  // the cursor keys, Insert and Delete

} // namespace plex
