// The screen image on a terminal.
#pragma once

namespace plex {

// Whether the terminal's type is known and will do. The terminal is left as it is.
bool knowsterminal();

// Takes the terminal over: false when its type is not known. Chooses a UTF-8 locale where the
// environment names none.
bool openterminal();

// Gives the terminal back as it was. May be called twice.
void closeterminal();

// Draws what the image (imagebytes of it, written by another process meanwhile) says has changed
// and clears its flags; `all` draws everything. A terminal that is too small shows that instead.
void draw(unsigned char *image, bool all);

} // namespace plex
