// The terminal's keys as key codes of a console.
#pragma once

#include <cstdint>

namespace plex {

constexpr int32_t QUITKEY = 0x1D; // Ctrl+], the viewer's own
constexpr int32_t KEY_RESIZED = -2;

// Tells the terminal library the keys with modifiers, which terminals send alike. Call it once the
// terminal is open.
void definekeys();

// The next key that has come, without waiting: 0 when there is none, or KEY_RESIZED when the
// terminal's size has changed. Keys without a code are passed over.
int32_t nextviewkey();

} // namespace plex
