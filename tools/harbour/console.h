// The operator's console: who is on which line and what he runs, by any console method. Nobody but
// the board calls it, on a beat; with the null console there is none.
#pragma once

#include <string>

namespace harbour {

// Opens the console that the setting BBSDISP asks for: "viewer" is the shared screen, no setting
// the null console, the rest is the library's; and has the rules tell whether anybody can see it.
// `address` is what the board listens on.
void openconsole(const std::string &address);

// Shows what has changed and obeys the keys that came. False when the operator ends the board.
bool serveconsole();

} // namespace harbour
