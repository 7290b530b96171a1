// The process itself: privilege, signals, going into the background, limits, waiting.
#pragma once

namespace plex {

using sighandler = void (*)(int);

// Switch the effective user: to root where the process may, and back to the real user. Failures are
// silent (an unprivileged program carries on as it is); both log "NAME: uid=%d euid=%d\n".
void getpriv();
void relpriv();

// The same without a word, where nothing may be written.
void raisepriv();
void droppriv();

// Installs `func` for `signo` with an empty mask and no flags: it stays installed after delivery,
// and system calls that it interrupts fail with EINTR. Returns the previous handler, or SIG_ERR.
sighandler usignal(int signo, sighandler func);

// Opens each of the standard descriptors that is closed, on /dev/null: what is opened later must
// not become one of them.
void standardfds();

// Ignores SIGPIPE.
void ignore_sigpipe();

// Detaches: the parent exits 0; the child closes descriptors 0 and 1, leads a new session and has
// a file-creation mask of 0. A failed fork is reported on standard error, status 1.
void daemon_init();

// Detaches under a parent that waits: the child returns in a new session, the parent exits with the
// child's exit code, 100 + the signal that killed it (100 alone when it left a core image),
// 150 + the signal that stopped it, else 150. With the setting BBSDEBUG present it returns at once
// and the process stays in the foreground. A failed fork exits with 255.
void daemon_wait();

// Sleeps for `usecs` microseconds; a signal ends the sleep early.
void delay(unsigned usecs);

// Closes every descriptor above `fd`: in one call, or one by one up to the limit on open files
// where the system has no such call or refuses it.
void closeabove(int fd);

// Sets the soft limit on open files to `nofile` and logs it: 0. -1 when the limit cannot be read or
// set, or the hard limit is lower.
int maxfil(int nofile);

} // namespace plex
