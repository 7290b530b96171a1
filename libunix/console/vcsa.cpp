// A cell of the device is a word of the machine: the number of a glyph in the console's font, its
// attribute above it. With a font of more than 256 glyphs one bit more of the word is the glyph's:
// the bit is asked for. Where it is the lowest of the upper half, the attribute stands one bit
// higher and loses its highest; where it is another, that colour's bit is lost.
//
// So the font may have its glyphs in any order: its own map from Unicode tells where each is, and
// nothing has to be changed and put back. A glyph that it has not is replaced by a likeness in
// ASCII.

#include "libunix/console/vcsa.h"

#include "libunix/common/cp437.h"
#include "libunix/screen/screen.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <linux/vt.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr size_t header = 4;     // rows, columns, the cursor's column and row; then the cells
constexpr int cursorbytes = 2;   // where the cursor is in it
constexpr int farthest = 0xFF;   // its bytes reach no farther
constexpr unsigned ttymajor = 4; // virtual terminals are its minors 1 to 63
constexpr unsigned lastminor = 63;
constexpr unsigned short mostpairs = 0xFFFF; // of a map from Unicode
constexpr unsigned lowfontbit = 0x100;

constexpr unsigned char plain = 7; // light grey on black

unsigned char image[cellbytes];
bool used;                      // the image is the program's
unsigned char shown[cellbytes]; // what of the image was written last

// The screen taken.
int32_t cells = -1; // the device; -1 while none is taken
int32_t terminal;
int columns;
int left; // where ours stands in it
int top;
unsigned char *found; // what stood there, as the device has it
size_t foundbytes;
int place; // the cursor, as shown last
vcsacursor shape;

std::array<uint16_t, 256> glyphs;
unsigned fontbit;

// 1 to 31 and 127 to 255 of code page 437, in ASCII.
constexpr std::string_view controls = "@@*****o**MFNd*><|!P$_|^v><L-^v";
constexpr std::string_view upper =
    "^CueaaaaceeeiiiAAEaAooouuyOUcLYPfaiounNao?--24!<>###|++++++|+++++"
    "++++-++++++++=+++++++++++++##||#aBGpSsutFTOdofeN=+><fj/~o..Vn2# ";

static_assert(controls.size() == 31 && upper.size() == 129);

char likeness(size_t c) {
    return c == 0 || c == 0xFF ? ' '
           : c < ' '           ? controls[c - 1]
           : c >= 127          ? upper[c - 127]
                               : static_cast<char>(c);
}

void learnfont(int32_t tty) {
    unsigned short bit = 0;
    fontbit = ioctl(tty, VT_GETHIFONTMASK, &bit) == 0 ? bit : 0;
    auto *pairs = static_cast<unipair *>(malloc(mostpairs * sizeof(unipair)));
    unimapdesc map = {mostpairs, pairs};
    if (pairs == nullptr || ioctl(tty, GIO_UNIMAP, &map) != 0) {
        map.entry_ct = 0;
    }
    const unipair *end = pairs + map.entry_ct;
    const auto find = [&](int c) {
        return std::find_if(const_cast<const unipair *>(pairs), end,
                            [c](const unipair &p) { return p.unicode == c; });
    };
    for (size_t c = 0; c < glyphs.size(); c++) {
        const unipair *p = find(fromcp437(static_cast<unsigned char>(c)));
        p = p != end ? p : find(likeness(c));
        glyphs[c] = p != end ? p->fontpos : static_cast<uint16_t>(c); // as in the card's own font
    }
    free(pairs);
}

uint16_t word(unsigned char c, unsigned char attribute) {
    const unsigned glyph = glyphs[c];
    const unsigned colours = static_cast<unsigned>(attribute) << (fontbit == lowfontbit ? 9U : 8U);
    return static_cast<uint16_t>((colours & ~fontbit) | (glyph & 0xFFU) |
                                 (glyph > 0xFF ? fontbit : 0));
}

// Nobody could be told that a write failed.
void put(const void *bytes, size_t n, size_t at) {
    const ssize_t done = pwrite(cells, bytes, n, static_cast<off_t>(at));
    static_cast<void>(done);
}

// With the cells around ours.
void blank(size_t rows) {
    const auto width = static_cast<size_t>(columns);
    std::array<uint16_t, scrcols> blanks;
    blanks.fill(word(' ', plain));
    for (size_t at = 0; at < rows * width; at += scrcols) {
        put(blanks.data(), 2 * std::min<size_t>(scrcols, rows * width - at), header + 2 * at);
    }
}

// Writes a row of the image from the first cell that changed to the last.
void putrow(int row, bool all) {
    const unsigned char *now = image + static_cast<size_t>(row) * rowbytes;
    unsigned char *was = shown + static_cast<size_t>(row) * rowbytes;
    if (!all && memcmp(now, was, rowbytes) == 0) {
        return;
    }
    const auto same = [&](size_t i) {
        return !all && now[2 * i] == was[2 * i] && now[2 * i + 1] == was[2 * i + 1];
    };
    size_t first = 0;
    size_t end = scrcols;
    while (same(first)) {
        first++;
    }
    while (same(end - 1)) {
        end--;
    }
    memcpy(was, now, rowbytes);
    std::array<uint16_t, scrcols> words;
    for (size_t i = first; i < end; i++) {
        words[i] = word(now[2 * i], now[2 * i + 1]);
    }
    put(words.data() + first, 2 * (end - first),
        header + 2 * (static_cast<size_t>((top + row) * columns + left) + first));
}

void shapecursor(char form) {
    const char sequence[] = {'\033', '[', '?', form, 'c'};
    const ssize_t done = write(terminal, sequence, sizeof sequence);
    static_cast<void>(done);
}

} // namespace

int32_t vcsaopen(int32_t tty) {
    unsigned number = 0;
    winsize size = {};
    if (ioctl(tty, TIOCGDEV, &number) != 0 || ioctl(tty, TIOCGWINSZ, &size) != 0) {
        return -1;
    }
    number = major(number) == ttymajor ? minor(number) : 0;
    if (number == 0 || number > lastminor || size.ws_row < scrrows || size.ws_col < scrcols) {
        errno = ENODEV;
        return -1;
    }
    std::array<char, 16> path;
    snprintf(path.data(), path.size(), "/dev/vcsa%u", number);
    return open(path.data(), O_RDWR | O_CLOEXEC);
}

unsigned char *vcsatake(int32_t device, int32_t tty) {
    winsize size = {};
    ioctl(tty, TIOCGWINSZ, &size);
    foundbytes = header + 2UL * size.ws_row * size.ws_col;
    free(found);
    found = static_cast<unsigned char *>(malloc(foundbytes));
    // The device's header tells no more than 255 columns: that the terminal tells the truth about
    // its size shows in the device's.
    if (found == nullptr || lseek(device, 0, SEEK_END) != static_cast<off_t>(foundbytes) ||
        pread(device, found, foundbytes, 0) != static_cast<ssize_t>(foundbytes)) {
        close(device);
        return nullptr;
    }
    terminal = tty;
    columns = size.ws_col;
    left = std::min((columns - scrcols) / 2, farthest - scrcols + 1);
    top = (size.ws_row - scrrows) / 2;
    learnfont(tty);
    for (size_t i = 0; i < cellbytes && !used; i++) {
        image[i] = i % 2 == 0 ? ' ' : plain;
    }
    used = true;
    std::atomic_signal_fence(std::memory_order_release);
    cells = device; // a signal from here on puts it back
    blank(size.ws_row);
    vcsashow(true, 0, vcsacursor::line);
    return image;
}

void vcsashow(bool all, int at, vcsacursor form) {
    if (cells == -1) {
        return;
    }
    for (int row = 0; row < scrrows; row++) {
        putrow(row, all);
    }
    if (all || at != place) {
        const int row = std::min(at / scrcols, scrrows - 1);
        const unsigned char cursor[] = {static_cast<unsigned char>(left + at % scrcols),
                                        static_cast<unsigned char>(top + row)};
        put(cursor, sizeof cursor, cursorbytes);
        place = at;
    }
    if (all || form != shape) {
        shapecursor(static_cast<char>(form));
        shape = form;
    }
}

void vcsagive() {
    const int device = cells;
    if (device != -1) {
        shapecursor('0'); // what the console shows by itself
        put(found, foundbytes, 0);
        cells = -1; // last: a signal that ends the program in the middle does it all again
        close(device);
    }
}

} // namespace plex
