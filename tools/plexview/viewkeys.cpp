// Alt comes as an escape character in front of the key. Function and cursor keys with modifiers
// come as the same sequences from all terminals that send them at all, but few terminal
// descriptions name these, so they are defined here.

#include "tools/plexview/viewkeys.h"

#include "libunix/common/cp437.h"
#include "libunix/console/keycode.h"

#include <array>
#include <cstdio>
#include <curses.h>

namespace plex {
namespace {

constexpr wint_t del = 0x7F; // what the backspace key of most terminals sends

// A key's sequence is ESC [ 1 ; modifier final, or ESC [ number ; modifier ~.
struct special {
    int number;
    char final;
    int32_t code;
};

constexpr std::array specials = {
    special{1, 'A', CODE_UP},
    special{1, 'B', CODE_DOWN},
    special{1, 'C', CODE_RIGHT},
    special{1, 'D', CODE_LEFT},
    special{1, 'H', CODE_HOME},
    special{1, 'F', CODE_END},
    special{2, '~', CODE_INS},
    special{3, '~', CODE_DEL},
    special{5, '~', CODE_PGUP},
    special{6, '~', CODE_PGDN},
    special{1, 'P', CODE_F1},
    special{1, 'Q', CODE_F1 + 1 * NEXTFUNC},
    special{1, 'R', CODE_F1 + 2 * NEXTFUNC},
    special{1, 'S', CODE_F1 + 3 * NEXTFUNC},
    special{15, '~', CODE_F1 + 4 * NEXTFUNC},
    special{17, '~', CODE_F1 + 5 * NEXTFUNC},
    special{18, '~', CODE_F1 + 6 * NEXTFUNC},
    special{19, '~', CODE_F1 + 7 * NEXTFUNC},
    special{20, '~', CODE_F1 + 8 * NEXTFUNC},
    special{21, '~', CODE_F1 + 9 * NEXTFUNC},
};

constexpr int betweenbytes = 25; // milliseconds; as long as Escape waits for what follows it

struct modifier {
    int number;
    int32_t func; // what it adds to a function key
};

// Several at once mean no key; they are here so that their sequences are not taken for typing.
constexpr std::array modifiers = {
    modifier{2, SHIFTFUNC}, modifier{3, ALTFUNC}, modifier{5, CTRLFUNC}, modifier{4, 0},
    modifier{6, 0},         modifier{7, 0},       modifier{8, 0}};
constexpr int ctrl = 5;
constexpr int alt = 3;

// Codes of the defined sequences, far behind those that the terminal library gives out for what a
// terminal's description has of its own, from KEY_MAX + 1 on.
constexpr int firstcode = KEY_MAX + 0x1000;

int32_t withmodifier(int32_t plain, const modifier &m) {
    if (m.func == 0) {
        return 0;
    }
    if (plain >= CODE_F1 && plain <= CODE_F10) {
        return plain + m.func;
    }
    if (m.number == ctrl) {
        return ctrlcursor(plain) != 0 ? ctrlcursor(plain) : plain;
    }
    return m.number == alt ? 0 : plain;
}

// A key that the terminal library knows.
int32_t named(int c) {
    const int defined = c - firstcode;
    if (defined >= 0 && defined < static_cast<int>(specials.size() * modifiers.size())) {
        const auto i = static_cast<size_t>(defined);
        return withmodifier(specials[i / modifiers.size()].code, modifiers[i % modifiers.size()]);
    }
    if (c > KEY_F(0) && c <= KEY_F(10)) {
        return CODE_F1 + (c - KEY_F(1)) * NEXTFUNC;
    }
    if (c > KEY_F(12) && c <= KEY_F(22)) { // F1 to F10 with Shift
        return CODE_F1 + SHIFTFUNC + (c - KEY_F(13)) * NEXTFUNC;
    }
    switch (c) {
    case KEY_HOME:
        return CODE_HOME;
    case KEY_UP:
        return CODE_UP;
    case KEY_PPAGE:
        return CODE_PGUP;
    case KEY_LEFT:
        return CODE_LEFT;
    case KEY_RIGHT:
        return CODE_RIGHT;
    case KEY_END:
        return CODE_END;
    case KEY_DOWN:
        return CODE_DOWN;
    case KEY_NPAGE:
        return CODE_PGDN;
    case KEY_IC:
        return CODE_INS;
    case KEY_DC:
        return CODE_DEL;
    case KEY_BTAB:
        return CODE_BACKTAB;
    case KEY_BACKSPACE:
        return CODE_BACKSPACE;
    case KEY_ENTER:
        return CODE_ENTER;
    default:
        return 0;
    }
}

int32_t typed(wint_t c) {
    if (c == del) {
        return CODE_BACKSPACE;
    }
    if (c < ' ') {
        return static_cast<int32_t>(c);
    }
    const int byte = tocp437(c);
    return byte < 0 ? 0 : byte;
}

// The next byte of a sequence that has begun; 0 when there is none, or no byte.
wint_t nextbyte() {
    wint_t c = 0;
    timeout(betweenbytes);
    const int kind = get_wch(&c);
    nodelay(stdscr, TRUE);
    if (kind == KEY_CODE_YES) {
        ungetch(static_cast<int>(c));
    }
    return kind == OK ? c : 0;
}

// Reads to its end the sequence that the terminal library did not know: "[" or "O" has come, and
// what follows are digits and their like and one last byte. Some terminals end with "$", and one
// has function keys of two "[" and a letter.
void swallow(wint_t intro) {
    wint_t c = nextbyte();
    if (intro == '[' && c == '[') {
        c = nextbyte();
    }
    while (c >= ' ' && c < '@' && c != '$') {
        c = nextbyte();
    }
}

void unread(int kind, wint_t c) {
    if (kind == OK) {
        unget_wch(static_cast<wchar_t>(c));
    } else if (kind == KEY_CODE_YES) {
        ungetch(static_cast<int>(c));
    }
}

// Whether what comes next is the rest of a sequence that nobody knows; it is read then.
bool restofsequence(wint_t intro) {
    wint_t next = 0;
    const int kind = intro == 'O' ? get_wch(&next) : ERR;
    unread(kind, next);
    // "O" alone is Alt with that letter.
    if (intro != '[' && (kind != OK || next == CODE_ESC)) {
        return false;
    }
    swallow(intro);
    return true;
}

// Escape has come: with a letter or a digit right behind it, it was Alt, and with a key of several
// bytes Alt with that, or the beginning of one that nobody knows. 0 for what has no code.
int32_t escaped() {
    wint_t c = 0;
    int kind = get_wch(&c);
    if (kind == KEY_CODE_YES && c != KEY_RESIZE) {
        const int32_t key = named(static_cast<int>(c));
        return key >= CODE_F1 && key <= CODE_F10 ? key + ALTFUNC : 0;
    }
    if (kind == OK && (c == '[' || c == 'O') && restofsequence(c)) {
        return 0;
    }
    if (kind == OK && c >= '0' && c <= 'z' && altcodes[c - '0'] != 0) {
        return static_cast<int32_t>(altcodes[c - '0']);
    }
    if (kind == OK && c == CODE_ESC) {
        wint_t intro = 0;
        kind = get_wch(&intro);
        if (kind == OK && (intro == '[' || intro == 'O') && restofsequence(intro)) {
            return 0; // Alt with a key that nobody knows
        }
        unread(kind, intro);
        kind = OK;
    }
    unread(kind, c);
    return CODE_ESC;
}

} // namespace

void definekeys() {
    int code = firstcode;
    for (const special &s : specials) {
        for (const modifier &m : modifiers) {
            char sequence[16];
            snprintf(sequence, sizeof sequence, "\033[%d;%d%c", s.number, m.number, s.final);
            define_key(sequence, code++);
        }
    }
}

int32_t nextviewkey() {
    for (;;) {
        wint_t c = 0;
        const int kind = get_wch(&c);
        if (kind == ERR) {
            return 0;
        }
        if (kind == KEY_CODE_YES && c == KEY_RESIZE) {
            return KEY_RESIZED;
        }
        const int32_t key = kind == KEY_CODE_YES ? named(static_cast<int>(c))
                            : c == CODE_ESC      ? escaped()
                                                 : typed(c);
        if (key != 0) {
            return key;
        }
    }
}

} // namespace plex
