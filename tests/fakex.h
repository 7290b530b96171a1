// X calls that keep a record: what a window asked of its server, and the events that it gets.
#pragma once

#include <X11/Xlib.h>
#include <X11/keysym.h>
#include <string>
#include <vector>

namespace fakex {

constexpr int height = 16; // of a character, 4 of it below the base line; it is 8 wide

// What was drawn since forget(): "X,Y INK/PAPER TEXT" and "bar X,Y WxH INK".
extern std::vector<std::string> drawn;
extern int flushes;

// What the last window was opened with, as words, how many displays were closed, and the words
// that fail.
extern std::string opened;
extern int closed;
extern std::string failing;

void forget();
void post(int type, KeySym keysym = NoSymbol, unsigned state = 0); // an event
size_t pending();

} // namespace fakex
