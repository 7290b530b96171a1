// The screen image.
#pragma once

namespace plex {

// Returns the screen image, creating it on the first call.
unsigned char *frzseg();

// Sets the cursor shape: 0 hidden, 1 underline, 2 large.
void cursiz(int shape);

// Sets the current attribute.
void setatr(unsigned char attrib);

} // namespace plex
