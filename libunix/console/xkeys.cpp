// X key events as key codes. The server has applied Shift and the keyboard's layout to the key
// symbol already; the other modifiers are applied here. Any of the modifiers 1 to 4 counts as Alt,
// so on many servers Num Lock does as well.

#include "libunix/console/keycode.h"
#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/runtime/log.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <array>

namespace plex {
namespace {

constexpr unsigned altmask = Mod1Mask | Mod2Mask | Mod3Mask | Mod4Mask;

struct symcode {
    KeySym keysym;
    int32_t code;
};

constexpr std::array plainkeys = {
    symcode{XK_BackSpace, CODE_BACKSPACE},
    symcode{XK_Tab, CODE_TAB},
    symcode{XK_Return, CODE_ENTER},
    symcode{XK_Escape, CODE_ESC},
    symcode{XK_Home, CODE_HOME},
    symcode{XK_Left, CODE_LEFT},
    symcode{XK_Up, CODE_UP},
    symcode{XK_Right, CODE_RIGHT},
    symcode{XK_Down, CODE_DOWN},
    symcode{XK_Prior, CODE_PGUP},
    symcode{XK_Next, CODE_PGDN},
    symcode{XK_End, CODE_END},
    symcode{XK_Insert, CODE_INS},
    symcode{XK_Delete, CODE_DEL},
};

// The digits of a character code entered with Alt, -1 where there is none. Nothing here ever stores
// one: such entry works on the system console alone, and in a window every release of Alt ends an
// empty entry. Deliberate; the log and lastscan show it.
std::array<int32_t, 3> entered = {-1, -1, -1};

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
        return k + SHIFTFUNC;
    }
    return k == CODE_TAB ? CODE_BACKTAB : k;
}

int32_t controlled(int32_t k) {
    if (isfunc(k) != 0) {
        return k + CTRLFUNC;
    }
    if (isletter(k)) {
        return k & 31;
    }
    return ctrlcursor(k);
}

int32_t withalt(int32_t k) {
    if (isfunc(k) != 0) {
        return k + ALTFUNC;
    }
    return isnum(k) != 0 || isletter(k)
               ? static_cast<int32_t>(altcodes[static_cast<size_t>(k - '0')])
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
    if (entered[2] != -1) {
        key = entered[0] * 100 + entered[1] * 10 + entered[2];
    } else if (entered[1] != -1) {
        key = entered[0] * 10 + entered[1];
    } else if (entered[0] != -1) {
        key = entered[0];
    }
    inform("altnum = %d (%d %d %d)\n", key, entered[0], entered[1], entered[2]);
    const bool inrange = key >= 0 && key <= 255;
    lastscan = inrange ? 0 : 1;
    entered = {-1, -1, -1};
    return inrange ? key : 0;
}

int32_t TranslateKeysym(KeySym keysym) {
    if (keysym >= XK_space && keysym <= XK_asciitilde) {
        return static_cast<int32_t>(keysym);
    }
    if (keysym >= XK_F1 && keysym <= XK_F10) {
        return CODE_F1 + static_cast<int32_t>(keysym - XK_F1) * NEXTFUNC;
    }
    for (const symcode &k : plainkeys) {
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
    return c >= CODE_F1 && c <= CODE_F10 ? 1 : 0;
}

int32_t isother(int32_t c) {
    switch (c) {
    case CODE_HOME:
    case CODE_UP:
    case CODE_PGUP:
    case CODE_LEFT:
    case CODE_RIGHT:
    case CODE_END:
    case CODE_DOWN:
    case CODE_PGDN:
    case CODE_INS:
    case CODE_DEL:
        return 1;
    default:
        return 0;
    }
}

} // namespace plex
