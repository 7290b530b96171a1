// X calls that keep a record: what a window asked of its server, and the events that it gets.
#pragma once

#include <X11/Xlib.h>
#include <X11/keysym.h>
#include <string>
#include <vector>

namespace fakex {

// The font's measures, and the pixel value of the colour number n: firstpixel + n.
constexpr int width = 8;
constexpr int ascent = 12;
constexpr int descent = 4;
constexpr unsigned long firstpixel = 100;

struct Text {
    int x, y;
    std::string text;
    unsigned long fg, bg;
    bool operator==(const Text &) const = default;
};

struct Bar {
    int x, y;
    unsigned w, h;
    unsigned long fg;
    bool operator==(const Bar &) const = default;
};

// What was asked for since forget().
extern std::vector<Text> texts;
extern std::vector<Bar> bars;
extern int flushes;

// What the last window was opened with, as text, and how many displays were closed.
extern std::string opened;
extern int closed;

// The step that fails: "display", "font", "property N" (from 1), "look NAME", "alloc N" (from 0).
extern std::string failing;

void forget();
void post(int type, KeySym keysym = NoSymbol, unsigned state = 0); // an event
size_t pending();

} // namespace fakex
