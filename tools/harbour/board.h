// The board: takes calls, and serves all lines, the daemon and the console in one loop.
#pragma once

#include <string>

namespace harbour {

// Listens where the setting LISTEN says, with as many lines as LINES says, and connects to the
// daemon. `demo` wants a free port. Returns an empty string, or what is wrong.
std::string openboard(bool demo);

// The port that it listens on.
int boardport();

// Serves until it is told to end, by a signal or by the operator; all is given back then.
void runboard();

} // namespace harbour
