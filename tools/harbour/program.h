// The program on a line, from the request to its end, of which there are two halves: the daemon's
// notice, and the hang-up of the terminal behind the last output.
#pragma once

#include "tools/harbour/line.h"

namespace harbour {

// Starts what the menu says.
void startprogram(Line &line, const Entry &entry);

// What the daemon told: the program runs on this terminal (-1: there was no descriptor left for
// it), could not be started, has ended; and that the daemon is gone, with all programs.
void started(Line &line, int master);
void refused(Line &line);
void ended(Line &line, int status);
void servicelost(Line &line);

// The terminal has hung up.
void programhungup(Line &line);

// While one half of the end is known: waits no longer than is of use for the other one.
void lookatend(Line &line);

// The line that a usrnum is about; null when that has gone on to something else.
Line *lineof(int usrnum);

// Ends it, with a text for the caller.
void endprogram(Line &line, int number);

} // namespace harbour
