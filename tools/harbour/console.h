// The operator's console: who is on which line and what he runs, by any console method. Nobody but
// the board calls it, on a beat; with the null console there is none.
#pragma once

#include "tools/harbour/line.h"

#include <string>

namespace harbour {

constexpr int beat = 50; // milliseconds between two looks at the keys

// Opens the console that the setting BBSDISP asks for: "viewer" is the shared screen, no setting
// the null console, the rest is the library's. `address` is what the board listens on.
void openconsole(const std::string &address);

// Gives the console back.
void closeconsole();

// Whether anybody can look at it and press its keys.
bool attended();

// A word for the operator: into the log, and among the events. The same again is left out.
void tell(const std::string &what);

// What a caller is sent, for the view of his screen.
void seen(const Line &line, const char *bytes, size_t len);

// Shows what has changed and obeys the keys that came. False when the operator ends the board.
bool serveconsole();

} // namespace harbour
