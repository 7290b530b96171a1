// The board: serves all lines, the daemon and the console in one loop.
#pragma once

#include <string>

namespace harbour {

// Listens where the setting LISTEN says, with as many lines as LINES says, and connects to the
// daemon. `demo` wants a free port. `at` becomes the address. Returns an empty string, or what is
// wrong.
std::string openboard(bool demo, std::string &at);

// Serves until it is told to end, by a signal or by the operator; all is given back then.
void runboard();

} // namespace harbour
