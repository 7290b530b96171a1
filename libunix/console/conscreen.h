// The system console's screen: video memory as the image, the video controller's cursor. The
// keyboard, and what is put back at the end, is unxwrecons.h.
#pragma once

#include "libunix/screen/display.h"

#include <cstdint>

namespace plex {

extern int32_t vgafd; // the console, as opened for the screen; -1 while not open

// What the screen engine gets of it. The image cannot be had before the method is open, nor on a
// machine that refuses it: that closes the console and ends the program with a line on standard
// error, status 255. The cursor is nowhere before the method is open.
extern const scrhdl unxwrescn;

} // namespace plex
