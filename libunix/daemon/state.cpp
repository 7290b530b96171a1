#include "libunix/daemon/state.h"

#include <csignal>

namespace plex {

Child *children;
int lockfd = -1;
int ipcfd = -1;
int bbsfd = -1;
int debug;
int reapall;
termios mytermios;
winsize mywinsize;
sighandler sigpipe = SIG_DFL;

} // namespace plex
