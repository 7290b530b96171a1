// The board: serves all lines, the daemon and the console in one loop (board.cpp). The daemon that
// runs the programs is found running in harbour's home, or started there; it may go at any time,
// and the next program has it started anew (daemon.cpp).
#pragma once

#include "tools/harbour/line.h"

#include <string>

namespace harbour {

// Takes calls at ADDRESS:PORT, of which the address stands in brackets where it is of version 6;
// port 0 is any. `at` becomes what it is. Returns an empty string, or what is wrong.
std::string openboard(const std::string &where, std::string &at);

// Serves until it is told to end, by a signal or by the operator; all is given back then. `at` is
// for the operator.
void runboard(const std::string &at);

// Connects to the daemon in the working directory, starting one if need be. One of ours gives
// programs a terminal that edits lines as UTF-8, or as bytes. Returns as above.
std::string opendaemon(bool utf8);

// Ends a daemon of our own, which ends its programs.
void closedaemon();

// Sends the daemon what it is asked, as far as it takes it. Where there is none one is started.
void askdaemon();

// When the daemon is to have answered what it was asked.
Time answerdue();

} // namespace harbour
