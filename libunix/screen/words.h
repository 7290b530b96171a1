// For the interpreter: bytes and cells eight and four at a time. Plain words of the machine, so
// that the same code serves every processor.
//
// How long things are in a stream (words, numbers) no branch can foretell, and each wrong guess
// costs as much as dozens of bytes. Hence masks instead of loops, and stores that overlap.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace plex {

constexpr bool little = std::endian::native == std::endian::little;
constexpr uint64_t everybyte = 0x0101010101010101; // times a byte: that byte eight times

// The eight bytes at `s`, the first one lowest.
inline uint64_t eight(const unsigned char *s) {
    uint64_t word = 0;
    memcpy(&word, s, sizeof word);
    return little ? word : __builtin_bswap64(word);
}

// Where bytes are not digits: bit 7 of each. `values` are the bytes less '0'.
inline uint64_t notdigits(uint64_t values) {
    return (((values & 0x7F * everybyte) + (0x7F - 9) * everybyte) | values) & 0x80 * everybyte;
}

// How many of the eight bytes at `s` stand before the first below 28, as all special ones are.
inline size_t plain(const unsigned char *s) {
    const uint64_t word = eight(s);
    const uint64_t below = (word - 28 * everybyte) & ~word & 0x80 * everybyte;
    return static_cast<size_t>(std::countr_zero(below)) / 8;
}

// Store cells with one attribute: `each` is that attribute in every 16 bits.
constexpr uint64_t spread = 0x0001000100010001;

template <typename Chars, typename Cells>
void setcells(unsigned char *cell, const unsigned char *s, uint64_t each) {
    static_assert(sizeof(Cells) == 2 * sizeof(Chars));
    Chars chars = 0;
    memcpy(&chars, s, sizeof chars);
    uint64_t x = chars;
    x = (x | x << 16) & 0x0000FFFF0000FFFF;
    x = (x | x << 8) & 0x00FF00FF00FF00FF;
    const auto cells = static_cast<Cells>(little ? each << 8 | x : x << 8 | each);
    memcpy(cell, &cells, sizeof cells);
}

// Stores one to seven cells. Any number is as likely, which no branch can foretell: stores that
// overlap, the last one as often as it takes.
inline void setfew(unsigned char *cell, const unsigned char *s, size_t n, uint64_t each) {
    if (n == 1) {
        setcells<uint8_t, uint16_t>(cell, s, each);
        return;
    }
    for (size_t i = 0; i < 8; i += 2) {
        const size_t j = std::min(i, n - 2);
        setcells<uint16_t, uint32_t>(cell + 2 * j, s + j, each);
    }
}

} // namespace plex
