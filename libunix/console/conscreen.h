// The system console's screen (table unxwrescn, trm.h): video memory as the image, or an image that
// the driver shows; the video controller's cursor. The image cannot be had before the method is
// open, nor on a machine that refuses it: that closes the console and ends the program with a line
// on standard error, status 255. The cursor is nowhere before the method is open. unxwrecons.h is
// the keyboard, and what is put back at the end.
#pragma once

#include <cstdint>

namespace plex {

extern int32_t vgafd; // the console, as opened for the screen; -1 while not open

} // namespace plex
