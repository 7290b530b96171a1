// The operator's console: who is on which line and what he runs, by any console method. Nobody but
// the board calls it, on a beat; with the null console there is none.
#pragma once

#include <string>

namespace harbour {

// Opens the console that the setting BBSDISP asks for: "viewer" is the shared screen, no setting
// the null console, the rest is the library's. `address` is what the board listens on.
void openconsole(const std::string &address);

// Gives the console back.
void closeconsole();

// Whether anybody can look at it and press its keys.
bool attended();

// Shows what has changed and obeys the keys that came. False when the operator ends the board.
bool serveconsole();

} // namespace harbour
