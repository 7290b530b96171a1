// From the PC keyboard's scan codes to key codes (libunix/console/trm.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace plex {

// Scan codes above the last row are releases and keys that deliver nothing.
constexpr size_t scancodes = 0x54;
using keytable = std::array<uint32_t, scancodes>;

// What a key stands for by itself and while Shift, Ctrl or Alt is held, indexed by scan code.
// Beside key codes the entries say: 0 nothing, 0x0200 to 0x0209 a digit of a character code,
// 0x0600, 0x0700 and 0x0800 Shift, Ctrl and Alt.
extern const keytable nmltbl;
extern const keytable sfhtbl;
extern const keytable ctltbl;
extern const keytable alttbl;

// Takes the next scan code of the keyboard and returns the key code that it completes, 0 for none.
// With a key code, and with a key that stands for nothing, `lastscan` becomes 1; with a character
// code entered by digits it becomes 0. Keeps the modifiers' state for the life of the process; may
// be called from a signal handler.
int32_t scn2chr(uint8_t ch);

} // namespace plex
