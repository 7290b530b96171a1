#include "tests/fakex.h"

#include <X11/Xutil.h>
#include <cstring>
#include <deque>
#include <sstream>

namespace fakex {

std::vector<Text> texts;
std::vector<Bar> bars;
int flushes;
std::string opened;
int closed;
std::string failing;

namespace {

std::deque<XEvent> events;
unsigned long fg, bg;
int ncolors;
int nproperties;
Screen screens[1];
std::remove_pointer_t<_XPrivDisplay> server;

template <typename... Parts> void note(const Parts &...parts) {
    std::ostringstream text;
    ((text << parts << ' '), ...);
    opened += text.str();
}

bool fails(const std::string &step) {
    return failing == step;
}

} // namespace

void forget() {
    texts.clear();
    bars.clear();
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
    ncolors = nproperties = 0;
    screens[0].root = 7;
    server.screens = screens;
    return fails("display") ? nullptr : reinterpret_cast<Display *>(&server);
}

char *XDisplayName(const char *name) {
    static char nowhere[] = "nowhere:0";
    return name != nullptr ? const_cast<char *>(name) : nowhere;
}

int XCloseDisplay(Display *) {
    return ++closed;
}

XFontStruct *XLoadQueryFont(Display *, const char *name) {
    static XFontStruct font;
    font.fid = 5;
    font.max_bounds.width = width;
    font.max_bounds.ascent = ascent;
    font.max_bounds.descent = descent;
    note("font", name);
    return fails("font") ? nullptr : &font;
}

Window XCreateSimpleWindow(Display *, Window parent, int x, int y, unsigned w, unsigned h,
                           unsigned border, unsigned long, unsigned long) {
    note("window", parent, x, y, w, h, border);
    return 1;
}

Pixmap XCreateBitmapFromData(Display *, Drawable, const char *, unsigned w, unsigned h) {
    note("icon", w, h);
    return 2;
}

Status XStringListToTextProperty(char **list, int count, XTextProperty *property) {
    note("property", count, *list);
    property->value = reinterpret_cast<unsigned char *>(*list);
    return fails("property " + std::to_string(++nproperties)) ? 0 : 1;
}

void XSetWMProperties(Display *, Window, XTextProperty *name, XTextProperty *icon, char **argv,
                      int argc, XSizeHints *size, XWMHints *wm, XClassHint *cls) {
    note("wm", name->value, icon->value, argv == nullptr, argc, size->flags, size->x, size->y,
         size->width, size->height, size->min_width, size->min_height, wm->flags, wm->input,
         wm->initial_state, wm->icon_pixmap, cls->res_name, cls->res_class);
}

int XSelectInput(Display *, Window, long mask) {
    note("events", mask);
    return 1;
}

GC XCreateGC(Display *, Drawable, unsigned long mask, XGCValues *) {
    note("gc", mask);
    return nullptr;
}

int XSetFont(Display *, GC, Font font) {
    note("setfont", font);
    return 1;
}

int XMapWindow(Display *, Window) {
    note("map");
    return 1;
}

Status XLookupColor(Display *, Colormap, const char *name, XColor *exact, XColor *) {
    note(name);
    exact->pixel = 0;
    return fails(std::string("look ") + name) ? 0 : 1;
}

Status XAllocColor(Display *, Colormap, XColor *color) {
    color->pixel = firstpixel + static_cast<unsigned long>(ncolors++);
    return fails("alloc " + std::to_string(ncolors - 1)) ? 0 : 1;
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
    texts.push_back({x, y, std::string(string, static_cast<size_t>(length)), fg, bg});
    return 1;
}

int XFillRectangle(Display *, Drawable, GC, int x, int y, unsigned w, unsigned h) {
    bars.push_back({x, y, w, h, fg});
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
