// The board: serves all lines, the daemon and the console in one loop (board.cpp). The daemon that
// runs the programs is found running in harbour's home, or started there; it may go at any time,
// and the next program has it started anew (daemon.cpp).
#pragma once

#include "tools/harbour/line.h"

#include <string>

namespace harbour {

// Takes calls at ADDRESS:PORT, where an address of version 6 stands in brackets and port 0 is any.
// Returns what it is then; where it cannot the program ends with status 1.
std::string openboard(const std::string &where);

// Serves until it is told to end, by a signal or by the operator, and says goodbye to all callers.
// `at` is what the operator sees of the address.
void runboard(const std::string &at);

// Connects to the daemon in the working directory, starting one if need be; fails as openboard. One
// of ours gives programs a terminal that edits lines as UTF-8, or as bytes.
void opendaemon(bool utf8);

// Ends a daemon of our own, which ends its programs. There may be none.
void closedaemon();

// Sends the daemon what it is asked, as far as it takes it. Where there is none one is started.
void askdaemon();

// When the daemon is to have answered, or one that starts is looked for again.
Time answerdue();

} // namespace harbour
