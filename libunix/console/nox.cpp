// The X calls of the window, empty, for programs that are linked without an X client library. They
// return null or zero, so that opening a display fails there as it does where no server runs.

#include <X11/Xlib.h>
#include <X11/Xutil.h>

extern "C" {

Display *XOpenDisplay(const char * /*name*/) {
    return nullptr;
}

char *XDisplayName(const char * /*name*/) {
    return nullptr;
}

int XCloseDisplay(Display * /*display*/) {
    return 0;
}

XFontStruct *XLoadQueryFont(Display * /*display*/, const char * /*name*/) {
    return nullptr;
}

Window XCreateSimpleWindow(Display * /*display*/, Window /*parent*/, int /*x*/, int /*y*/,
                           unsigned /*width*/, unsigned /*height*/, unsigned /*border_width*/,
                           unsigned long /*border*/, unsigned long /*background*/) {
    return 0;
}

Pixmap XCreateBitmapFromData(Display * /*display*/, Drawable /*d*/, const char * /*data*/,
                             unsigned /*width*/, unsigned /*height*/) {
    return 0;
}

Status XStringListToTextProperty(char ** /*list*/, int /*count*/, XTextProperty * /*property*/) {
    return 0;
}

void XSetWMProperties(Display * /*display*/, Window /*w*/, XTextProperty * /*window_name*/,
                      XTextProperty * /*icon_name*/, char ** /*argv*/, int /*argc*/,
                      XSizeHints * /*normal_hints*/, XWMHints * /*wm_hints*/,
                      XClassHint * /*class_hints*/) {}

int XSelectInput(Display * /*display*/, Window /*w*/, long /*mask*/) {
    return 0;
}

GC XCreateGC(Display * /*display*/, Drawable /*d*/, unsigned long /*mask*/,
             XGCValues * /*values*/) {
    return nullptr;
}

int XSetFont(Display * /*display*/, GC /*gc*/, Font /*font*/) {
    return 0;
}

int XMapWindow(Display * /*display*/, Window /*w*/) {
    return 0;
}

Status XLookupColor(Display * /*display*/, Colormap /*colormap*/, const char * /*name*/,
                    XColor * /*exact*/, XColor * /*screen*/) {
    return 0;
}

Status XAllocColor(Display * /*display*/, Colormap /*colormap*/, XColor * /*color*/) {
    return 0;
}

int XSetForeground(Display * /*display*/, GC /*gc*/, unsigned long /*pixel*/) {
    return 0;
}

int XSetBackground(Display * /*display*/, GC /*gc*/, unsigned long /*pixel*/) {
    return 0;
}

int XDrawImageString(Display * /*display*/, Drawable /*d*/, GC /*gc*/, int /*x*/, int /*y*/,
                     const char * /*string*/, int /*length*/) {
    return 0;
}

int XFillRectangle(Display * /*display*/, Drawable /*d*/, GC /*gc*/, int /*x*/, int /*y*/,
                   unsigned /*width*/, unsigned /*height*/) {
    return 0;
}

int XFlush(Display * /*display*/) {
    return 0;
}

int XPending(Display * /*display*/) {
    return 0;
}

int XNextEvent(Display * /*display*/, XEvent * /*event*/) {
    return 0;
}

int XLookupString(XKeyEvent * /*event*/, char * /*buffer*/, int /*size*/, KeySym * /*keysym*/,
                  XComposeStatus * /*status*/) {
    return 0;
}

} // extern "C"
