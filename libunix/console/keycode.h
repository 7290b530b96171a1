// Key codes by name, and those that consoles compute the same way: what Alt makes of characters,
// and what the modifiers make of function and cursor keys.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace plex {

constexpr int32_t CODE_BACKSPACE = 0x0008;
constexpr int32_t CODE_TAB = 0x0009;
constexpr int32_t CODE_ENTER = 0x000D;
constexpr int32_t CODE_ESC = 0x001B;
constexpr int32_t CODE_BACKTAB = 0x0F00; // Shift+Tab
constexpr int32_t CODE_F1 = 0x3B00;      // the others follow in steps of NEXTFUNC
constexpr int32_t CODE_F10 = 0x4400;
constexpr int32_t CODE_HOME = 0x4700;
constexpr int32_t CODE_UP = 0x4800;
constexpr int32_t CODE_PGUP = 0x4900;
constexpr int32_t CODE_LEFT = 0x4B00;
constexpr int32_t CODE_RIGHT = 0x4D00;
constexpr int32_t CODE_END = 0x4F00;
constexpr int32_t CODE_DOWN = 0x5000;
constexpr int32_t CODE_PGDN = 0x5100;
constexpr int32_t CODE_INS = 0x5200;
constexpr int32_t CODE_DEL = 0x5300;

constexpr int32_t CODE_CTRLHOME = 0x7700;
constexpr int32_t CODE_CTRLUP = 0x8D00;
constexpr int32_t CODE_CTRLPGUP = 0x8400;
constexpr int32_t CODE_CTRLLEFT = 0x7300;
constexpr int32_t CODE_CTRLRIGHT = 0x7400;
constexpr int32_t CODE_CTRLEND = 0x7500;
constexpr int32_t CODE_CTRLDOWN = 0x9100;
constexpr int32_t CODE_CTRLPGDN = 0x7600;

// From a function key to the next one.
constexpr int32_t NEXTFUNC = 0x0100;

// From a function key to the same key with the modifier.
constexpr int32_t SHIFTFUNC = 0x1900;
constexpr int32_t CTRLFUNC = 0x2300;
constexpr int32_t ALTFUNC = 0x2D00;

// Codes of the Alt combinations of the characters "0" to "z": the scan codes of letters, in either
// case, and the codes of digits; 0 for the others.
constexpr std::array<uint32_t, 'z' - '0' + 1> makealtcodes() {
    std::array<uint32_t, 'z' - '0' + 1> table = {};
    table[0] = 0x8100;
    for (unsigned digit = 1; digit <= 9; digit++) {
        table[digit] = 0x7800 + (digit - 1) * 0x100;
    }
    // The keyboard's rows of letters, whose keys have consecutive scan codes.
    struct {
        const char *letters;
        unsigned first;
    } const keyrows[] = {{"QWERTYUIOP", 0x10}, {"ASDFGHJKL", 0x1E}, {"ZXCVBNM", 0x2C}};
    for (const auto &row : keyrows) {
        for (unsigned i = 0; row.letters[i] != '\0'; i++) {
            const auto upper = static_cast<size_t>(row.letters[i] - '0');
            table[upper] = (row.first + i) * 0x100;
            table[upper + ('a' - 'A')] = table[upper];
        }
    }
    return table;
}

constexpr auto altcodes = makealtcodes();
static_assert(altcodes.size() == 75 && altcodes['M' - '0'] == 0x3200 &&
              altcodes['z' - '0'] == 0x2C00);

// The code of a cursor key with Ctrl, 0 for other keys.
constexpr int32_t ctrlcursor(int32_t plain) {
    switch (plain) {
    case CODE_HOME:
        return CODE_CTRLHOME;
    case CODE_UP:
        return CODE_CTRLUP;
    case CODE_PGUP:
        return CODE_CTRLPGUP;
    case CODE_LEFT:
        return CODE_CTRLLEFT;
    case CODE_RIGHT:
        return CODE_CTRLRIGHT;
    case CODE_END:
        return CODE_CTRLEND;
    case CODE_DOWN:
        return CODE_CTRLDOWN;
    case CODE_PGDN:
        return CODE_CTRLPGDN;
    default:
        return 0;
    }
}

} // namespace plex
