// One keyboard by scan codes and by X events: they make the same codes of a key, where they know it
// at all. What a terminal sends, and the characters: viewer.py.

#include "tests/support.h" // first: the X headers define None, Bool and more

#include "libunix/common/utf8.h"
#include "libunix/console/keys.h"
#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"

#include <X11/Xutil.h>
#include <X11/keysym.h>
#include <array>
#include <map>
#include <set>

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
    std::array<int, 4> code; // by itself, with Shift, Ctrl, Alt
};

constexpr int modifierscans[] = {0, 0x2A, 0x1D, 0x38};
// A modifier of X counts for nothing beside one that stands before it; Caps Lock never counts.
constexpr unsigned states[] = {LockMask | Mod5Mask, ShiftMask | ControlMask | Mod1Mask,
                               ControlMask | Mod1Mask, Mod4Mask};

// What Alt enters with a key of the keypad stands for its code.
std::vector<Key> keyboard() {
    std::vector<Key> keys = {
        {0x0F, {XK_Tab, XK_ISO_Left_Tab}, other, {9, 0x0F00, 9, 9}},
        {0x52, {XK_Insert, XK_Insert}, other, {0x5200, 0x5200, 0x5200, 0}},
        {0x53, {XK_Delete, XK_Delete}, other, {0x5300, 0x5300, 0x5300, 0x5300}},
        {0x47, {XK_Home, XK_Home}, cursor, {0x4700, 0x4700, 0x7700, 7}},
        {0x48, {XK_Up, XK_Up}, cursor, {0x4800, 0x4800, 0x8D00, 8}},
        {0x49, {XK_Prior, XK_Prior}, cursor, {0x4900, 0x4900, 0x8400, 9}},
        {0x4B, {XK_Left, XK_Left}, cursor, {0x4B00, 0x4B00, 0x7300, 4}},
        {0x4D, {XK_Right, XK_Right}, cursor, {0x4D00, 0x4D00, 0x7400, 6}},
        {0x4F, {XK_End, XK_End}, cursor, {0x4F00, 0x4F00, 0x7500, 1}},
        {0x50, {XK_Down, XK_Down}, cursor, {0x5000, 0x5000, 0x9100, 2}},
        {0x51, {XK_Next, XK_Next}, cursor, {0x5100, 0x5100, 0x7600, 3}},
    };
    for (int i = 0; i < 10; i++) {
        const int code = (0x3B + i) << 8;
        const KeySym sym = XK_F1 + static_cast<KeySym>(i);
        const std::array codes = {code, code + 0x1900, code + 0x2300, code + 0x2D00};
        keys.push_back({0x3B + i, {sym, sym}, function, codes});
    }
    const auto sym = [](char c) {
        return c == '\033' || c == '\r' || c == '\b' ? 0xFF00UL + c : static_cast<KeySym>(c);
    };
    const auto characters = [&](int scan, const char *plain, const char *shifted) {
        for (; *plain != '\0'; plain++, shifted++, scan++) {
            const int c = *plain;
            const Kind kind = isalpha(c) != 0 ? letter : isdigit(c) != 0 ? digit : other;
            const int alt = kind == letter ? scan << 8 : kind == digit ? (0x76 + scan) << 8 : c;
            const int control = kind == letter ? c & 31 : c;
            keys.push_back({scan, {sym(*plain), sym(*shifted)}, kind, {c, *shifted, control, alt}});
        }
    };
    characters(0x01, "\0331234567890-=\b", "\033!@#$%^&*()_+\b");
    characters(0x10, "qwertyuiop[]\r", "QWERTYUIOP{}\r");
    characters(0x1E, "asdfghjkl;'`", "ASDFGHJKL:\"~");
    characters(0x2B, "\\zxcvbnm,./", "|ZXCVBNM<>?");
    characters(0x39, " ", " ");
    return keys;
}

// The keys that scan codes make.
std::vector<int> scanned(const std::vector<int> &scans) {
    std::vector<int> keys;
    for (const int scan : scans) {
        if (const int key = plex::scn2chr(static_cast<uint8_t>(scan)); key != 0) {
            keys.push_back(key);
        }
    }
    return keys;
}

TEST(Keyboards, ScanCodes) {
    std::map<int, Key> known;
    for (const Key &key : keyboard()) {
        known[key.scan] = key;
    }
    for (int scan = 0; scan < 0x80; scan++) {
        for (int m = 0; m < 4 && std::set{0x2A, 0x36, 0x1D, 0x38, 0x4C}.count(scan) == 0; m++) {
            const int mod = modifierscans[m];
            const int code = known[scan].code[m]; // no key makes none
            EXPECT_EQ(scanned({mod, scan, scan | 0x80, mod | 0x80, 0xAA}),
                      code != 0 ? std::vector<int>{code} : std::vector<int>{})
                << std::hex << scan << " with " << mod;
        }
    }
    // Each row ends with all keys up; the last column is `lastscan` (0: entered by digits).
    const struct {
        const char *what;
        std::vector<int> scans;
        std::vector<int> keys;
        int lastscan;
    } rows[] = {
        {"right shift", {0x36, 0x1E, 0x9E, 0xB6, 0x1E, 0x9E}, {'A', 'a'}, 1},
        {"right ctrl", {0xE0, 0x1D, 0x2E, 0xE0, 0x9D}, {3}, 1},
        {"arrow with its prefix", {0xE0, 0x48, 0xE0, 0xC8}, {0x4800}, 1},
        {"entry of two digits", {0x38, 0x4F, 0xCF, 0x47, 0xC7, 0xB8}, {17}, 0},
        {"a fourth digit is dropped", {0x38, 0x50, 0x51, 0x51, 0x4F, 0xB8}, {233}, 0},
        {"255 is the last", {0x38, 0x50, 0x4C, 0x4C, 0xB8, 0x38, 0x50, 0x4C, 0x4D, 0xB8}, {255}, 1},
        {"a key between digits", {0x38, 0x4F, 0x1E, 0x47, 0xB8}, {0x1E00, 17}, 0},
        {"zero delivers nothing", {0x38, 0x52, 0xB8}, {}, 0},
        {"ctrl, then alt", {0x1D, 0x38, 0x2E, 0xB8, 0x2E, 0x9D}, {0x2E00, 'c'}, 1},
        {"alt, then ctrl", {0x38, 0x1D, 0x2E, 0x9D, 0x2E, 0xB8}, {0x2E00, 0x2E00}, 1},
        {"shift, then ctrl", {0x2A, 0x1D, 0x2E, 0x9D, 0x2E, 0xAA}, {'C', 'C'}, 1},
        {"shift's release cuts an entry", {0x38, 0x4F, 0xAA, 0xB8, 0x38, 0x50, 0xB8}, {12}, 0},
        {"beyond the table", {0x57, 0x58, 0x54, 0x7F, 0xFF, 0xE1}, {}, 1},
    };
    for (const auto &r : rows) {
        scanned({0x39}); // lastscan 1 before each
        EXPECT_EQ(scanned(r.scans), r.keys) << r.what;
        EXPECT_EQ(plex::lascan(), r.lastscan) << r.what;
    }
}

TEST(Keyboards, Window) {
    XEvent event = {};
    const auto pressed = [&](KeySym keysym, unsigned state) {
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
    for (const bool alt : {false, true}) { // only Alt's release ends an entry, which is none here
        event.xkey.keycode = alt ? XK_Alt_R : XK_a;
        plex::lastscan = alt ? 1 : 0;
        EXPECT_EQ(plex::ProcessRelease(&event), 0);
        EXPECT_EQ(plex::lascan(), alt ? 0 : 1);
    }
}

// Every byte as UTF-8 and back, in pieces of one byte; and what is no character of the page.
TEST(CodePage, TravelsAsUtf8) {
    std::string all;
    std::string back;
    plex::Utf8part part;
    for (int c = 0; c < 255; c++) {
        all += static_cast<char>(c);
    }
    for (const char c : plex::toutf8(all)) {
        back += plex::fromutf8({&c, 1}, part);
    }
    EXPECT_EQ(back, all);
    EXPECT_EQ(plex::fromutf8("\xE2\x82\xAC \xC3(\x84\xF0\x9F\x98\x80\xFF.", part), "? ?(???.");
}

} // namespace
