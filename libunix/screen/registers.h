// For the engine's own files: arithmetic on the output registers.
//
// si may leave the buffer: a cursor may stand anywhere (it is set by position words), and an erase
// to the end of the screen leaves si below the last row. What is stored there is lost, so every
// store asks offset() first.
#pragma once

#include "libunix/screen/display.h"
#include "libunix/screen/screen.h"

#include <cstddef>
#include <cstdint>

namespace plex {

constexpr uint16_t position(int row, int column) {
    return static_cast<uint16_t>((row & 0xFF) << 8 | (column & 0xFF));
}

inline int dxrow() {
    return dx >> 8;
}

inline int dxcol() {
    return dx & 0xFF;
}

// The window's columns; none when the caller's right edge is left of the left one.
inline int winwidth() {
    return curatr.wright - curatr.wleft + 1;
}

// Addresses are reckoned as numbers: no pointer arithmetic reaches beyond the buffer.
inline unsigned char *address(const unsigned char *from, intptr_t bytes) {
    return reinterpret_cast<unsigned char *>(reinterpret_cast<uintptr_t>(from) +
                                             static_cast<uintptr_t>(bytes));
}

// si as an offset into the buffer in use; cellbytes or more when it is outside.
inline size_t offset() {
    return reinterpret_cast<uintptr_t>(si) - reinterpret_cast<uintptr_t>(iscstt);
}

// Moves dx, and si with it.
inline void settle(uint16_t pos) {
    dx = pos;
    compsi();
}

// Whether there are rows to mark.
inline bool flagsrows() {
    return keepsflags() && updflg != nullptr;
}

inline void mark(int row) {
    if (flagsrows() && row < scrrows) {
        updflg[row] = 1;
    }
}

} // namespace plex
