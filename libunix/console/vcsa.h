// A Linux console's screen as the kernel lends it to programs: the cells of virtual terminal N are
// those of /dev/vcsaN, whatever shows them: a frame buffer, a graphics driver, a VGA card.
//
// A screen of ours stands in the middle of that terminal's, which is otherwise blank; at the end
// what stood there comes back.
#pragma once

#include <cstdint>

namespace plex {

// Opens the cells of the virtual terminal `tty`: a descriptor, or -1 where it is no such terminal,
// has fewer than 80 by 25 of them, or they are not ours to write.
int32_t vcsaopen(int32_t tty);

// Keeps what stands on the screen, blanks it and learns the font, then returns the image, of
// cellbytes, which is the same at each call. Null when the cells cannot be read. Takes `cells` over
// in any case; `tty` stays open until vcsagive.
unsigned char *vcsatake(int32_t cells, int32_t tty);

// Brings the screen up to date with the image (`all`: also where it should be) and shows the
// cursor: its place, row * 80 + column, and its shape. Does nothing while no screen is taken.
enum class vcsacursor : uint8_t { none = '1', line = '2', block = '6' }; // as its sequence says it
void vcsashow(bool all, int place, vcsacursor shape);

// Puts back what vcsatake found: text, attributes, cursor. May be called by signal handlers.
void vcsagive();

} // namespace plex
