// X key events as key codes. The server has applied Shift and the keyboard's layout to the key
// symbol already; the other modifiers are applied here. Any of the modifiers 1 to 4 counts as Alt,
// so on many servers Num Lock does as well.

#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/runtime/log.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <array>

namespace plex {
namespace {

constexpr unsigned altmask = Mod1Mask | Mod2Mask | Mod3Mask | Mod4Mask;

constexpr int32_t tab = 0x09;
constexpr int32_t backtab = 0x0F00;
constexpr int32_t f1 = 0x3B00;
constexpr int32_t f10 = 0x4400;

// From F1 to F1 with the modifier.
constexpr int32_t shiftfunc = 0x1900;
constexpr int32_t ctrlfunc = 0x2300;
constexpr int32_t altfunc = 0x2D00;

// Codes of the Alt combinations of the characters "0" to "z".
constexpr std::array<uint32_t, 'z' - '0' + 1> maketable() {
    std::array<uint32_t, 'z' - '0' + 1> table = {};
    table[0] = 0x8100;
    for (unsigned digit = 1; digit <= 9; digit++) {
        table[digit] = 0x7800 + (digit - 1) * 0x100;
    }
    // The rows of letters of the keyboard, whose keys have consecutive scan codes.
    struct {
        const char *letters;
        unsigned first;
    } const keyrows[] = {{"QWERTYUIOP", 0x10}, {"ASDFGHJKL", 0x1E}, {"ZXCVBNM", 0x2C}};
    for (const auto &row : keyrows) {
        for (unsigned i = 0; row.letters[i] != '\0'; i++) {
            const uint32_t code = (row.first + i) * 0x100;
            const auto upper = static_cast<unsigned>(row.letters[i] - '0');
            table[upper] = code;
            table[upper + ('a' - 'A')] = code;
        }
    }
    return table;
}

constexpr auto alttbl = maketable();
static_assert(alttbl.size() == 75 && alttbl['M' - '0'] == 0x3200 && alttbl['z' - '0'] == 0x2C00);

struct keycode {
    KeySym keysym;
    int32_t code;
};

constexpr std::array plainkeys = {
    keycode{XK_BackSpace, 0x0008}, keycode{XK_Tab, tab},       keycode{XK_Return, 0x000D},
    keycode{XK_Escape, 0x001B},    keycode{XK_Home, 0x4700},   keycode{XK_Left, 0x4B00},
    keycode{XK_Up, 0x4800},        keycode{XK_Right, 0x4D00},  keycode{XK_Down, 0x5000},
    keycode{XK_Prior, 0x4900},     keycode{XK_Next, 0x5100},   keycode{XK_End, 0x4F00},
    keycode{XK_Insert, 0x5200},    keycode{XK_Delete, 0x5300},
};

struct ctrlcode {
    int32_t plain;
    int32_t withctrl;
};

constexpr std::array ctrlkeys = {
    ctrlcode{0x4B00, 0x7300}, // Left
    ctrlcode{0x4700, 0x7700}, // Home
    ctrlcode{0x4800, 0x8D00}, // Up
    ctrlcode{0x4900, 0x8400}, // PgUp
    ctrlcode{0x4D00, 0x7400}, // Right
    ctrlcode{0x4F00, 0x7500}, // End
    ctrlcode{0x5000, 0x9100}, // Down
    ctrlcode{0x5100, 0x7600}, // PgDn
};

// The digits of a character code entered with Alt, -1 where there is none. Nothing here ever stores
// one: such entry works on the system console alone, and in a window every release of Alt ends an
// empty entry. Deliberate; its traces in the log and in lastscan are the same on both.
std::array<int32_t, 3> altnum = {-1, -1, -1};

KeySym lookup(XEvent *event) {
    static XComposeStatus compose;
    char text[64];
    KeySym keysym = NoSymbol;
    XLookupString(&event->xkey, text, sizeof text, &keysym, &compose);
    return keysym;
}

bool isletter(int32_t k) {
    return islalpha(k) != 0 || isualpha(k) != 0;
}

int32_t shifted(int32_t k) {
    if (isfunc(k) != 0) {
        return k + shiftfunc;
    }
    return k == tab ? backtab : k;
}

int32_t controlled(int32_t k) {
    if (isfunc(k) != 0) {
        return k + ctrlfunc;
    }
    if (isletter(k)) {
        return k & 31;
    }
    for (const ctrlcode &c : ctrlkeys) {
        if (c.plain == k) {
            return c.withctrl;
        }
    }
    return 0;
}

int32_t withalt(int32_t k) {
    if (isfunc(k) != 0) {
        return k + altfunc;
    }
    return isnum(k) != 0 || isletter(k) ? static_cast<int32_t>(alttbl[static_cast<size_t>(k - '0')])
                                        : 0;
}

} // namespace

int32_t ProcessKey(XEvent *event) {
    KeySym keysym = lookup(event);
    if (keysym == XK_ISO_Left_Tab) {
        keysym = XK_Tab; // servers with the keyboard extension name the key anew under Shift
    }
    const int32_t k = TranslateKeysym(keysym);
    const unsigned state = event->xkey.state;
    if ((state & ShiftMask) != 0) {
        return shifted(k);
    }
    if ((state & ControlMask) != 0) {
        return controlled(k);
    }
    return (state & altmask) != 0 ? withalt(k) : k;
}

int32_t ProcessRelease(XEvent *event) {
    const KeySym keysym = lookup(event);
    if (keysym != XK_Alt_L && keysym != XK_Alt_R) {
        lastscan = 1;
        return 0;
    }
    int32_t key = 0;
    if (altnum[2] != -1) {
        key = altnum[0] * 100 + altnum[1] * 10 + altnum[2];
    } else if (altnum[1] != -1) {
        key = altnum[0] * 10 + altnum[1];
    } else if (altnum[0] != -1) {
        key = altnum[0];
    }
    inform("altnum = %d (%d %d %d)\n", key, altnum[0], altnum[1], altnum[2]);
    const bool inrange = key >= 0 && key <= 255;
    lastscan = inrange ? 0 : 1;
    altnum = {-1, -1, -1};
    return inrange ? key : 0;
}

int32_t TranslateKeysym(KeySym keysym) {
    if (keysym >= XK_space && keysym <= XK_asciitilde) {
        return static_cast<int32_t>(keysym);
    }
    if (keysym >= XK_F1 && keysym <= XK_F10) {
        return f1 + static_cast<int32_t>(keysym - XK_F1) * 0x100;
    }
    for (const keycode &k : plainkeys) {
        if (k.keysym == keysym) {
            return k.code;
        }
    }
    return 0;
}

int32_t isprnt(int32_t c) {
    return c >= ' ' && c <= '~' ? 1 : 0;
}

int32_t isnum(int32_t c) {
    return c >= '0' && c <= '9' ? 1 : 0;
}

int32_t islalpha(int32_t c) {
    return c >= 'a' && c <= 'z' ? 1 : 0;
}

int32_t isualpha(int32_t c) {
    return c >= 'A' && c <= 'Z' ? 1 : 0;
}

int32_t isfunc(int32_t c) {
    return c >= f1 && c <= f10 ? 1 : 0;
}

int32_t isother(int32_t c) {
    switch (c) {
    case 0x4700: // Home
    case 0x4800: // Up
    case 0x4900: // PgUp
    case 0x4B00: // Left
    case 0x4D00: // Right
    case 0x4F00: // End
    case 0x5000: // Down
    case 0x5100: // PgDn
    case 0x5200: // Insert
    case 0x5300: // Delete
        return 1;
    default:
        return 0;
    }
}

} // namespace plex
