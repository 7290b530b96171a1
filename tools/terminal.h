// The user's terminal: raw while a command has it, and as it was before whenever it has not.
//
// A shell hands its terminal to one job at a time. Settings are taken, changed and put back only
// while it is ours: what a background job would find or leave there is the shell's own.
#pragma once

#include <sys/ioctl.h>

namespace plex {

// Takes note of the terminal on standard input, if there is one, and puts it in raw mode. A job in
// the background stops here until the shell brings it forward.
void rawterminal();

// Gives it back as it was. Does nothing when there is none, or when it is back already.
void restoreterminal();

// Puts it in raw mode again after a stop.
void resumeterminal();

// Gives it back, stops this process as SIGTSTP does, and returns when it continues.
void suspend();

// The end-of-file character of the terminal on standard input; -1 when there is no terminal.
int endoffile();

// The size of the terminal on standard input, output or error, the first that is one. False when
// none is.
bool terminalsize(struct winsize &size);

// Gives the terminal whose master this is that size.
void followsize(int master);

} // namespace plex
