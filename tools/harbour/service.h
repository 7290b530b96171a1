// The daemon that runs the programs: found running in harbour's home, or started there. It may go
// at any time; the next program has it started anew.
#pragma once

#include "libunix/host/hostlink.h"

#include <string>

namespace harbour {

// Connects to the daemon in the working directory, starting one if need be, and waits for that. One
// of ours gives programs a terminal that edits lines as UTF-8, or as bytes. Returns an empty
// string, or what went wrong.
std::string openservice(bool utf8);

// Ends a daemon of our own, which ends its programs.
void closeservice();

// Asks for a program for `usrnum`, and for its end. When there is no daemon, one is started first.
void runprogram(int usrnum, const std::string &command);
void killprogram(int usrnum);

// The link's events came: sends what waits, and keeps in touch with a daemon that starts.
void serviceready();

// What the daemon said next; answers to requests have the request's usrnum, whatever they say.
// `more`: nothing yet. Anything but that and `got` means that the daemon is lost, with everything
// that it ran; the text is why.
plex::Link serviceitem(plex::Hostitem &item, std::string &why);

// Milliseconds until serviceready is to be called without an event; -1: not at all.
int servicewait();

} // namespace harbour
