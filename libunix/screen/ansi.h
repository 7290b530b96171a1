// Bytes into the current window: glyphs, five control characters, escape sequences.
// docs/sequences.md lists what is understood.
//
// All of it works on the output registers of screen.h, which the caller has set up, and leaves the
// cursor to the caller. No stream of bytes makes any of it store outside the cells of the buffer in
// use: what would fall there is lost.
#pragma once

#include <cstddef>
#include <cstdint>

namespace plex {

extern uint8_t canscro; // 1 while a movement may scroll the window
extern uint8_t lstctl;  // the last control character carried out

// Interprets one byte, or `len` bytes in turn.
void outbyt(unsigned char c);
void outbuf(const unsigned char *s, size_t len);

// Writes the byte as a glyph, whatever it is, and marks nothing.
void outlit(unsigned char c);

// Takes one byte of the escape sequence that is open; carries out a control sequence by its final
// byte, its parameters being in curatr.
void pransi(unsigned char c);
void doansi(unsigned char f);

} // namespace plex
