// What runs between the daemon and a command of a daemon of one's own.
//
// The daemon starts commands in its home directory, with its own environment, and with a terminal
// for input, output and errors. A person expects the directory and environment that the prompt
// stood in, and that a file or a pipe is the command's own. So the command line names, in the
// command's place, a link to plexrun itself. It asks for what of plexrun's standard descriptors is
// no terminal, takes that in place of the command's terminal, and executes the command with the
// arguments that it got. While it waits for the answer its terminal can be set up.
#pragma once

#include "tools/owndaemon.h"

#include <string>

namespace plex {

// Makes the link for `program` in the daemon's home, and leaves word of it in the environment that
// the daemon is to inherit. Returns the link's path, empty with errno when it cannot be made.
std::string makestub(const OwnDaemon &own, const std::string &program);

// The endpoint on which the stub will ask; -1 when it cannot be made. To be called once the daemon
// runs and before the command is asked for.
int awaitstub(const OwnDaemon &own);

// Answers the stub that asks on the endpoint: it goes on with the descriptors. False when it is
// gone.
bool answerstub(int endpoint);

// Becomes the command when this process is such a stub; else it returns.
void runstub(char **argv);

} // namespace plex
