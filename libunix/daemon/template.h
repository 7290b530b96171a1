// The terminal settings that every command's pseudo-terminal starts with.
#pragma once

#include <sys/ioctl.h>
#include <termios.h>

namespace plex {

// Set the fields that the template has an opinion on, speeds apart; the others keep what they held.
void set_termios(struct termios *t);

// 24 rows, 80 columns, 100 by 100 pixels.
void set_winsize(struct winsize *w);

} // namespace plex
