// Screen attributes for consoles with and without colours.
#pragma once

namespace plex {

// Non-zero when the console shows colours.
extern int color;

// `attrib` as the console can show it: unchanged with colours; without them reverse video when all
// background bits are set, else light grey on black with blink and intensity kept.
int scncolor(int attrib);

// Makes scncolor(attrib) the current attribute of the screen.
void sstatr(int attrib);

} // namespace plex
