// What a caller sees, live: his output is drawn by the screen engine, into a picture of its own.
//
// The console is drawn by the same engine. A caller's output is interpreted, the console's is not,
// and the engine keeps an attribute and an open sequence for that apart. Only the cursor is common.
#pragma once

#include "libsrc/plex.h"
#include "tools/harbour/line.h"

#include <array>

namespace harbour {

using Picture = std::array<unsigned char, plex::cellbytes>;

// Has the engine draw in the picture, up to the row `bottom`; plex::rstwin() ends that.
void drawin(Picture &picture, int bottom = plex::scrrows - 1);

// Blanks it.
void blank(Picture &picture);

// A view of this line, from what its caller was sent last.
void openview(const Line &line);

// The caller has been sent this.
void feedview(const Line &line, const char *bytes, size_t len);

// The view, whose last row is the console's, and its cursor.
const Picture &viewpicture();
uint16_t viewcursor();

} // namespace harbour
