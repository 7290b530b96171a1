// What was drawn last is kept as a copy of the image; a row that differs from its copy is drawn
// again, whole, in runs of equal colours. The image's own row flags are not looked at: the
// comparison costs less than one needless request. The blink bit is not shown.
//
// The cursor is drawn over its cell when it moves and erased by drawing the cell again. A row that
// is redrawn under a cursor that stays takes it along: it comes back with its next move.

#include "libunix/console/xdisplay.h"

#include "libunix/console/trm.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/log.h"
#include "libunix/screen/screen.h"

#include <X11/Xutil.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace plex {
namespace {

constexpr unsigned borderwidth = 4; // pixels
constexpr int cursorheight = 2;     // pixels

constexpr unsigned iconside = 41; // pixels
constexpr unsigned char tao_bits[] = {
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x06, 0x00,
    0x00, 0x00, 0xC0, 0x00, 0x06, 0x00, 0x00, 0x00, 0xC0, 0x00, 0xE6, 0xFF, 0xFF, 0xFF, 0xCF, 0x00,
    0x26, 0x00, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00,
    0xC8, 0x00, 0x26, 0x03, 0xEE, 0xBD, 0xC9, 0x00, 0x26, 0x06, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x0C,
    0x00, 0x00, 0xC8, 0x00, 0x26, 0x18, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x30, 0xE8, 0x0E, 0xC8, 0x00,
    0x26, 0x18, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x0C, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x06, 0x00, 0x00,
    0xC8, 0x00, 0x26, 0x03, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x00, 0xFF, 0x00, 0xC8, 0x00, 0x26, 0x00,
    0xFF, 0x00, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00, 0xC8, 0x00,
    0x26, 0xFF, 0xFF, 0x7F, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00, 0xC8, 0x00, 0x26, 0x00, 0x00, 0x00,
    0xC8, 0x00, 0xE6, 0xFF, 0xFF, 0xFF, 0xCF, 0x00, 0x06, 0x00, 0x00, 0x00, 0xC0, 0x00, 0x06, 0x00,
    0x00, 0x00, 0xC0, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0x00,
    0x00, 0x80, 0xFF, 0x03, 0x00, 0x00, 0x00, 0x80, 0xFF, 0x03, 0x00, 0x00, 0x00, 0x80, 0xFF, 0x03,
    0x00, 0x00, 0x00, 0xFE, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0xFE, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0xFE,
    0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
static_assert(sizeof tao_bits == iconside * 6); // a row is padded to whole bytes

// The text colours by attribute number, as X names them.
constexpr std::array colors = {
    "black",  "blue4", "green4", "cyan4", "red4", "magenta4", "brown4", "grey66",
    "grey33", "blue1", "green2", "cyan2", "red2", "magenta2", "yellow", "grey100",
};

Display *display; // null: closed
int32_t screen;
Window win;
GC gc;
Colormap colormap;
XFontStruct *font;
int32_t font_width;
int32_t font_height;
XTextProperty window_title; // the library's memory, held for the life of the window
XTextProperty icon_title;
std::array<unsigned long, colors.size()> ca; // pixel values

const unsigned char *scrbuf;
const unsigned char *flags;                  // the control bytes behind it
std::array<unsigned char, cellbytes> tmpbuf; // as last drawn
int32_t prow = -1;                           // where the cursor was last drawn; -1: nowhere
int32_t pcol = -1;
int32_t key; // translated and not taken yet
XEvent report;

struct cell {
    char ch;
    unsigned fg;
    unsigned bg;
};

cell cellat(int32_t row, int32_t col) {
    const unsigned char *p = scrbuf + static_cast<size_t>(row) * rowbytes + col * 2;
    return {static_cast<char>(p[0]), p[1] & 15U, p[1] >> 4 & 7U};
}

void usecolors(const cell &c) {
    XSetForeground(display, gc, ca[c.fg]);
    XSetBackground(display, gc, ca[c.bg]);
}

void drawtext(int32_t row, int32_t col, const char *text, int32_t len) {
    XDrawImageString(display, win, gc, col * font_width, (row + 1) * font_height, text, len);
}

bool settitle(const char *name, XTextProperty *property, const char *what) {
    auto *text = const_cast<char *>(name);
    if (XStringListToTextProperty(&text, 1, property) != 0) {
        return true;
    }
    inform("%s: structure allocation for %s failed.\n", xapnam, what);
    return false;
}

void setproperties(int32_t width, int32_t height, Pixmap icon) {
    XSizeHints size = {};
    size.flags = PPosition | PSize | PMinSize;
    size.width = size.min_width = width;
    size.height = size.min_height = height;
    XWMHints wm = {};
    wm.flags = InputHint | StateHint | IconPixmapHint;
    wm.input = True;
    wm.initial_state = NormalState;
    wm.icon_pixmap = icon;
    auto *progname = const_cast<char *>(xapnam);
    XClassHint cls = {progname, progname};
    XSetWMProperties(display, win, &window_title, &icon_title, nullptr, 0, &size, &wm, &cls);
}

} // namespace

int32_t opndsp(const char *dspnam, unsigned char *buffer) {
    if (xapnam == nullptr) {
        xapnam = "noname";
    }
    display = XOpenDisplay(dspnam);
    if (display == nullptr) {
        const char *name = XDisplayName(dspnam);
        inform("%s: cannot connect to X server %s. Exiting.\n", xapnam,
               name != nullptr ? name : "");
        return -1;
    }
    screen = DefaultScreen(display);
    const char *font_name = getoption("BBSFONT");
    if (font_name == nullptr) {
        font_name = "pc8x16s";
    }
    font = XLoadQueryFont(display, font_name);
    if (font == nullptr) {
        fprintf(stderr, "%s: Unable to load font %s.\n", xapnam, font_name);
        clsdsp();
        return -1;
    }
    font_height = font->max_bounds.ascent + font->max_bounds.descent;
    font_width = font->max_bounds.width;
    const int32_t width = font_width * scrcols;
    const int32_t height = font_height * scrrows + font->max_bounds.descent;
    const unsigned long black = BlackPixel(display, screen);
    win = XCreateSimpleWindow(display, RootWindow(display, screen), 0, 0,
                              static_cast<unsigned>(width), static_cast<unsigned>(height),
                              borderwidth, black, black);
    const Pixmap icon = XCreateBitmapFromData(
        display, win, reinterpret_cast<const char *>(tao_bits), iconside, iconside);
    if (!settitle(xapnam, &window_title, "windowName") ||
        !settitle(xapnam, &icon_title, "iconName")) {
        return -1;
    }
    setproperties(width, height, icon);
    XSelectInput(display, win, ExposureMask | KeyPressMask | KeyReleaseMask | ButtonPressMask);
    gc = XCreateGC(display, win, 0, nullptr);
    XSetFont(display, gc, font->fid);
    XMapWindow(display, win);
    AllocateColors();
    scrbuf = buffer;
    flags = buffer + cellbytes;
    return 0;
}

void AllocateColors() {
    colormap = DefaultColormap(display, screen);
    for (size_t i = 0; i < colors.size(); i++) {
        XColor exact = {};
        XColor nearest = {};
        if (XLookupColor(display, colormap, colors[i], &exact, &nearest) == 0 ||
            XAllocColor(display, colormap, &exact) == 0) {
            fprintf(stderr, "Unable to use color '%s'\n", colors[i]);
            exit(1);
        }
        ca[i] = exact.pixel;
    }
}

int32_t clsdsp() {
    if (display != nullptr) {
        XCloseDisplay(display);
        display = nullptr; // text printed on the way out must not go there
    }
    return 1;
}

int32_t kpdsp() {
    if (key != 0 || display == nullptr) {
        return key;
    }
    int32_t force = 0;
    if (XPending(display) > 0) {
        XNextEvent(display, &report);
        switch (report.type) {
        case ButtonPress:
        case Expose:
            force = 1;
            break;
        case KeyPress:
            key = ProcessKey(&report);
            if (key != 0) {
                lastscan = 1;
            }
            break;
        case KeyRelease:
            key = ProcessRelease(&report);
            break;
        default:
            break;
        }
    }
    upddsp(force);
    updcur();
    return key;
}

int32_t gkdsp() {
    const int32_t taken = key;
    inform("gkdsp: key=%d\n", taken);
    key = 0;
    return taken;
}

int32_t updsp(int32_t force) {
    upddsp(force);
    updcur();
    return 0;
}

int32_t upddsp(int32_t force) {
    if (display == nullptr) {
        return 0;
    }
    for (int32_t row = 0; row < scrrows; row++) {
        const unsigned char *now = scrbuf + static_cast<size_t>(row) * rowbytes;
        unsigned char *drawn = tmpbuf.data() + static_cast<size_t>(row) * rowbytes;
        if (force != 0 || memcmp(now, drawn, rowbytes) != 0) {
            updlin(row);
            memcpy(drawn, now, rowbytes);
        }
    }
    return 0;
}

void updlin(int32_t row) {
    char run[scrcols];
    int32_t start = 0;
    cell current = cellat(row, 0);
    usecolors(current);
    for (int32_t col = 0; col < scrcols; col++) {
        const cell c = cellat(row, col);
        if (c.fg != current.fg || c.bg != current.bg) {
            drawtext(row, start, run, col - start);
            start = col;
        }
        run[col - start] = c.ch;
        if (c.fg != current.fg) {
            XSetForeground(display, gc, ca[c.fg]);
        }
        if (c.bg != current.bg) {
            XSetBackground(display, gc, ca[c.bg]);
        }
        current = c;
    }
    drawtext(row, start, run, scrcols - start);
    XFlush(display);
}

void updcur() {
    // Hidden: what was drawn stays on the window. Off the screen counts as hidden.
    if (display == nullptr || flags[UPD_SHOWN] == 0 || flags[UPD_CURROW] >= scrrows ||
        flags[UPD_CURCOL] >= scrcols) {
        return;
    }
    const int32_t row = flags[UPD_CURROW];
    const int32_t col = flags[UPD_CURCOL];
    if (row == prow && col == pcol) {
        return;
    }
    if (prow != -1) {
        const cell old = cellat(prow, pcol);
        usecolors(old);
        drawtext(prow, pcol, &old.ch, 1);
    }
    XSetForeground(display, gc, ca[7 - cellat(row, col).bg]);
    XFillRectangle(display, win, gc, col * font_width, (row + 1) * font_height - 1,
                   static_cast<unsigned>(font_width), cursorheight);
    prow = row;
    pcol = col;
    XFlush(display);
}

} // namespace plex
