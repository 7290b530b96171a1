// What runs between the daemon and a command of a daemon of one's own.
//
// The daemon starts commands in its home directory, with its own environment and a window of 24 by
// 80. A person expects the directory, environment and window that the prompt stood in. So the
// command line names, in the command's place, a link to plexrun itself, which puts these things
// right and executes the command with the arguments that it got.
#pragma once

#include "tools/owndaemon.h"

#include <string>

namespace plex {

// Makes the link for `program` in the daemon's home, and leaves word of it in the environment that
// the daemon is to inherit. Returns the link's path, empty with errno when it cannot be made.
std::string makestub(const OwnDaemon &own, const std::string &program);

// Becomes the command when this process is such a stub; else it returns.
void runstub(char **argv);

} // namespace plex
