// One keyboard, three ways: scan codes, X events, what a terminal sends to the viewer. They make
// the same codes of a key, where they know it at all.

#include "tests/support.h"

#include "libunix/common/cp437.h"
#include "libunix/console/keys.h"
#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "tools/plexview/viewkeys.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <clocale>
#include <curses.h>
#include <pty.h>
#include <set>
#include <unistd.h>

// The server's part, wrapped by the linker: the event has the key symbol itself.
extern "C" int __wrap_XLookupString(XKeyEvent *event, char *, int, KeySym *keysym,
                                    XComposeStatus *) {
    *keysym = event->keycode;
    return 0;
}

namespace {

enum Kind { letter, digit, other, function, cursor };

struct Key {
    int scan;
    KeySym keysym[2]; // the server names it anew under Shift
    Kind kind;
    int code[4];          // by itself, with Shift, Ctrl, Alt
    std::string terminal; // what it sends; with a modifier's number where "%d" stands
};

constexpr int modifierscans[] = {0, 0x2A, 0x1D, 0x38};
// A modifier of X counts for nothing beside one that stands before it; Caps Lock never counts.
constexpr unsigned states[] = {LockMask | Mod5Mask, ShiftMask | ControlMask | Mod1Mask,
                               ControlMask | Mod1Mask, Mod4Mask};
constexpr int terminals[] = {1, 2, 5, 3};

void characters(std::vector<Key> &keys, int scan, const char *plain, const char *shifted) {
    for (; *plain != '\0'; plain++, shifted++, scan++) {
        const int c = *plain;
        const Kind kind = isalpha(c) != 0 ? letter : isdigit(c) != 0 ? digit : other;
        const int alt = kind == letter ? scan << 8 : kind == digit ? (0x76 + scan) << 8 : c;
        const auto sym = [](char s) {
            return s == '\033' || s == '\r' || s == '\b' ? 0xFF00UL + s : static_cast<KeySym>(s);
        };
        keys.push_back({scan,
                        {sym(*plain), sym(*shifted)},
                        kind,
                        {c, *shifted, kind == letter ? c & 31 : c, alt},
                        std::string(1, c == '\b' ? '\x7F' : *plain)});
    }
}

std::vector<Key> keyboard() {
    std::vector<Key> keys = {
        {0x0F, {XK_Tab, XK_ISO_Left_Tab}, other, {9, 0x0F00, 9, 9}, "\t"},
        {0x52, {XK_Insert, XK_Insert}, other, {0x5200, 0x5200, 0x5200, 0}, "\033[2;%d~"},
        {0x53, {XK_Delete, XK_Delete}, other, {0x5300, 0x5300, 0x5300, 0x5300}, "\033[3;%d~"}};
    characters(keys, 0x01, "\0331234567890-=\b", "\033!@#$%^&*()_+\b");
    characters(keys, 0x10, "qwertyuiop[]\r", "QWERTYUIOP{}\r");
    characters(keys, 0x1E, "asdfghjkl;'`", "ASDFGHJKL:\"~");
    characters(keys, 0x2B, "\\zxcvbnm,./", "|ZXCVBNM<>?");
    characters(keys, 0x39, " ", " ");
    const auto special = [&](int scan, KeySym sym, Kind kind, int shift, int ctrl, int alt,
                             const std::string &sent) {
        keys.push_back(
            {scan, {sym, sym}, kind, {scan << 8, shift << 8, ctrl << 8, alt}, "\033[" + sent});
    };
    const char *const fkeys[] = {"1;%dP",  "1;%dQ",  "1;%dR",  "1;%dS",  "15;%d~",
                                 "17;%d~", "18;%d~", "19;%d~", "20;%d~", "21;%d~"};
    for (int i = 0; i < 10; i++) {
        special(0x3B + i, XK_F1 + static_cast<KeySym>(i), function, 0x54 + i, 0x5E + i,
                (0x68 + i) << 8, fkeys[i]);
    }
    const struct {
        int scan;
        KeySym sym;
        int ctrl, number; // what Alt enters with it on the keypad
        const char *sent;
    } cursors[] = {{0x47, XK_Home, 0x77, 7, "1;%dH"},  {0x48, XK_Up, 0x8D, 8, "1;%dA"},
                   {0x49, XK_Prior, 0x84, 9, "5;%d~"}, {0x4B, XK_Left, 0x73, 4, "1;%dD"},
                   {0x4D, XK_Right, 0x74, 6, "1;%dC"}, {0x4F, XK_End, 0x75, 1, "1;%dF"},
                   {0x50, XK_Down, 0x91, 2, "1;%dB"},  {0x51, XK_Next, 0x76, 3, "6;%d~"}};
    for (const auto &c : cursors) {
        special(c.scan, c.sym, cursor, c.scan, c.ctrl, c.number, c.sent);
    }
    return keys;
}

// The keys that scan codes make.
std::vector<int> scanned(std::initializer_list<int> scans) {
    std::vector<int> keys;
    for (const int scan : scans) {
        const int key = plex::scn2chr(static_cast<uint8_t>(scan));
        if (key != 0) {
            keys.push_back(key);
        }
    }
    return keys;
}

TEST(Keyboards, ScanCodes) {
    std::set<int> known = {0x2A, 0x36, 0x1D, 0x38, 0x4C};
    for (const Key &key : keyboard()) {
        known.insert(key.scan);
        for (int m = 0; m < 4; m++) {
            const int mod = modifierscans[m];
            EXPECT_EQ(scanned({mod, key.scan, key.scan | 0x80, mod | 0x80, 0xAA}),
                      key.code[m] != 0 ? std::vector<int>{key.code[m]} : std::vector<int>{})
                << std::hex << key.scan << " with " << mod;
        }
    }
    for (int scan = 0; scan < 0x80; scan++) {
        for (const int mod : modifierscans) {
            EXPECT_EQ(known.count(scan) != 0 ? 0U : scanned({mod, scan, mod | 0x80, 0xAA}).size(),
                      0U)
                << std::hex << scan;
        }
    }
}

TEST(Keyboards, Window) {
    const auto pressed = [](KeySym keysym, unsigned state) {
        XEvent event = {};
        event.xkey.keycode = static_cast<unsigned>(keysym);
        event.xkey.state = state;
        return plex::ProcessKey(&event);
    };
    for (const Key &key : keyboard()) {
        for (int m = 0; m < 4; m++) {
            const bool known = m < 2 || key.kind == letter || key.kind == function ||
                               key.kind == (m == 2 ? cursor : digit);
            EXPECT_EQ(pressed(key.keysym[m == 1 ? 1 : 0], states[m]), known ? key.code[m] : 0)
                << std::hex << key.scan << " " << m;
            if (key.kind == letter && m > 1) { // Caps Lock
                EXPECT_EQ(pressed(key.keysym[1], states[m]), key.code[m]);
            }
        }
    }
    for (const KeySym keysym : {XK_F11, XK_KP_Left, 0xE9, 0x7F, 0x1F}) {
        EXPECT_EQ(pressed(keysym, 0), 0) << keysym;
    }
}

// The terminal library on a terminal of the test's own.
class Terminal : public testing::Test {
protected:
    Terminal() {
        setlocale(LC_ALL, "C.UTF-8");
        int slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        file = fdopen(slave, "r+");
        set_escdelay(25);
        term = newterm("xterm", file, file);
        raw();
        nonl();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        plex::definekeys();
    }
    ~Terminal() override {
        endwin();
        delscreen(term);
        fclose(file);
        close(master);
    }

    std::vector<int> typed(const std::string &bytes) {
        EXPECT_EQ(write(master, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        EXPECT_TRUE(test::readable(fileno(file)));
        std::vector<int> keys;
        for (int key = 0; (key = plex::nextviewkey()) != 0;) {
            keys.push_back(key);
        }
        return keys;
    }

    int master = -1;
    FILE *file = nullptr;
    SCREEN *term = nullptr;
};

// What the terminal sends for the key with that modifier; empty when there is no such thing.
std::string sent(const Key &key, int modifier) {
    const size_t number = key.terminal.find("%d");
    if (number != std::string::npos && modifier == 0) {
        const std::string numbers = key.terminal.substr(2, number - 3);
        return numbers == "1" ? std::string("\033O") + key.terminal.back()
                              : "\033[" + numbers + "~";
    }
    if (number != std::string::npos) {
        return std::string(key.terminal).replace(number, 2, std::to_string(terminals[modifier]));
    }
    const bool altered = key.kind == letter || (key.kind == digit && modifier == 3);
    if (modifier == 0) {
        return key.terminal;
    }
    if (key.scan == 0x0F) {
        return modifier == 1 ? "\033[Z" : "";
    }
    return modifier == 1   ? std::string(1, static_cast<char>(key.code[1]))
           : !altered      ? ""
           : modifier == 2 ? std::string(1, static_cast<char>(key.code[2]))
                           : "\033" + key.terminal;
}

TEST_F(Terminal, SendsThem) {
    for (const Key &key : keyboard()) {
        for (int m = 0; m < 4; m++) {
            const std::string bytes = sent(key, m);
            const bool lost = m == 3 && (key.kind == cursor || key.kind == other);
            if (!bytes.empty()) {
                EXPECT_EQ(typed(bytes), lost ? std::vector<int>{} : std::vector<int>{key.code[m]})
                    << std::hex << key.scan << " " << m;
            }
        }
    }
    const std::pair<const char *, std::vector<int>> rows[] = {
        {"\033;", {27, ';'}}, {"\033\033OA", {}}, {"\033[1;4A", {}}, // two modifiers
        {"é", {0x82}},        {"♥€", {}},         {"\b\x1D", {8, plex::QUITKEY}}};
    for (const auto &[bytes, keys] : rows) {
        EXPECT_EQ(typed(bytes), keys) << bytes;
    }
}

// Python has the table, but for the pictures of the control characters.
TEST(CodePage, IsTheRealOne) {
    const auto python = test::Program({"python3", "-c", R"(
import sys
pictures = ' ☺☻♥♦♣♠•◘○◙♂♀♪♫☼►◄↕‼¶§▬↨↑↓→←∟↔▲▼'
text = pictures + bytes(range(32, 127)).decode() + '⌂' + bytes(range(128, 255)).decode('cp437')
sys.stdout.buffer.write((text + ' ').encode('utf-32-le')))"},
                                      {"PYTHONUTF8=1"})
                            .wait();
    ASSERT_EQ(python.out.size(), 1024U) << python.err;
    for (int c = 0; c < 256; c++) {
        wchar_t want = 0;
        memcpy(&want, &python.out[4 * static_cast<size_t>(c)], 4);
        EXPECT_EQ(plex::fromcp437(static_cast<unsigned char>(c)), want) << c;
        EXPECT_EQ(plex::tocp437(static_cast<wint_t>(want)), c == 0 || c == 255 ? 32
                                                            : c < 32           ? -1
                                                                               : c);
    }
}

} // namespace
