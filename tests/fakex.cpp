#include "tests/fakex.h"

#include <X11/Xutil.h>
#include <deque>
#include <sstream>

namespace fakex {

std::vector<std::string> drawn;
int flushes;
std::string opened;
int closed;
std::string failing;

namespace {

std::deque<XEvent> events;
unsigned long fg = 99, bg = 99; // the pixel values are the numbers of the colours
unsigned long ncolors;
int nproperties;
Screen screens[1];
std::remove_pointer_t<_XPrivDisplay> server;

template <typename... Parts> std::string words(const Parts &...parts) {
    std::ostringstream text;
    ((text << parts), ...);
    return text.str();
}

// Keeps a call; whether it succeeds.
template <typename... Parts> int note(const Parts &...parts) {
    const std::string text = words(parts..., ' ');
    opened += text;
    return text == failing + " " ? 0 : 1;
}

} // namespace

void forget() {
    drawn.clear();
    flushes = 0;
}

void post(int type, KeySym keysym, unsigned state) {
    XEvent event = {};
    event.type = type;
    event.xkey.state = state;
    event.xkey.keycode = static_cast<unsigned>(keysym);
    events.push_back(event);
}

size_t pending() {
    return events.size();
}

} // namespace fakex

using namespace fakex;

extern "C" {

Display *XOpenDisplay(const char *) {
    opened.clear();
    ncolors = 0;
    nproperties = 0;
    screens[0].root = 7;
    server.screens = screens;
    return note("display") != 0 ? reinterpret_cast<Display *>(&server) : nullptr;
}

char *XDisplayName(const char *) {
    static char nowhere[] = "nowhere:0";
    return nowhere;
}

int XCloseDisplay(Display *) {
    return ++closed;
}

XFontStruct *XLoadQueryFont(Display *, const char *name) {
    static XFontStruct font;
    font.fid = 5;
    font.max_bounds.width = 8;
    font.max_bounds.ascent = height - 4;
    font.max_bounds.descent = 4;
    return note("font ", name) != 0 ? &font : nullptr;
}

Window XCreateSimpleWindow(Display *, Window parent, int x, int y, unsigned w, unsigned h,
                           unsigned border, unsigned long, unsigned long) {
    note("window ", parent, ' ', x, ',', y, ' ', w, 'x', h, ' ', border);
    return 1;
}

Pixmap XCreateBitmapFromData(Display *, Drawable, const char *, unsigned w, unsigned h) {
    note("icon ", w, 'x', h);
    return 2;
}

Status XStringListToTextProperty(char **list, int count, XTextProperty *property) {
    property->value = reinterpret_cast<unsigned char *>(*list);
    return note("property ", ++nproperties, ' ', count, ' ', *list);
}

void XSetWMProperties(Display *, Window, XTextProperty *name, XTextProperty *icon, char **argv,
                      int argc, XSizeHints *size, XWMHints *wm, XClassHint *cls) {
    note("wm ", name->value, ' ', icon->value, ' ', argv == nullptr, argc);
    note(size->flags, ' ', size->x, ',', size->y, ' ', size->width, 'x', size->height, ' ',
         size->min_width, 'x', size->min_height);
    note(wm->flags, wm->input, wm->initial_state, wm->icon_pixmap, ' ', cls->res_name, ' ',
         cls->res_class);
}

int XSelectInput(Display *, Window, long mask) {
    return note("events ", mask);
}

GC XCreateGC(Display *, Drawable, unsigned long mask, XGCValues *) {
    note("gc ", mask);
    return nullptr;
}

int XSetFont(Display *, GC, Font font) {
    return note("setfont ", font);
}

int XMapWindow(Display *, Window) {
    return note("map");
}

Status XLookupColor(Display *, Colormap, const char *name, XColor *exact, XColor *) {
    exact->pixel = 0;
    return note(name);
}

Status XAllocColor(Display *, Colormap, XColor *color) {
    color->pixel = ncolors++;
    return note(color->pixel);
}

int XSetForeground(Display *, GC, unsigned long pixel) {
    fg = pixel;
    return 1;
}

int XSetBackground(Display *, GC, unsigned long pixel) {
    bg = pixel;
    return 1;
}

int XDrawImageString(Display *, Drawable, GC, int x, int y, const char *string, int length) {
    drawn.push_back(words(x, ',', y, ' ', fg, '/', bg, ' ') + std::string(string, size_t(length)));
    return 1;
}

int XFillRectangle(Display *, Drawable, GC, int x, int y, unsigned w, unsigned h) {
    drawn.push_back(words("bar ", x, ',', y, ' ', w, 'x', h, ' ', fg));
    return 1;
}

int XFlush(Display *) {
    return ++flushes;
}

int XPending(Display *) {
    return static_cast<int>(events.size());
}

int XNextEvent(Display *, XEvent *event) {
    *event = events.front();
    events.pop_front();
    return 1;
}

int XLookupString(XKeyEvent *event, char *, int, KeySym *keysym, XComposeStatus *) {
    *keysym = event->keycode;
    return 0;
}

} // extern "C"
