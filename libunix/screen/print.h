// Formatted text into the current window. Text is formatted as printf does, cut at 16383 bytes, and
// written by ansi.h's rules: escape sequences in it count. The cursor ends behind the last byte. An
// X display is brought up to date at once. No call may interrupt another: they share one buffer.
#pragma once

#include <cstdint>

namespace plex {

// Prints at the cursor. Returns the length of the formatted text (also when it was cut), modulo
// 65536; negative, before that, when the formatting failed.
uint16_t unxprntf(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// locate(column, row), then prints there; returns the whole length.
int printfat(uint16_t column, uint16_t row, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

// The same, but the text is formatted twice (fmtagain); the returned length is the second one's,
// modulo 65536. prat's coordinates are relative to those given to proff (0, 0 at first).
uint16_t pat(int column, int row, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
uint16_t prat(int column, int row, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void proff(int32_t column, int32_t row);

// What formatting `text` again without arguments gives, in place: "%%" becomes "%", any other "%"
// stays as it is. Returns the length.
int fmtagain(char *text);

// Output to a printer or a second screen; there is none. Returns 0.
int auxcrt();

} // namespace plex
