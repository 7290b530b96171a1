// How commands end, and the daemon: reaping and its notices, kill requests, clean-up; and what
// holds them off meanwhile.
#pragma once

#include <csignal>
#include <cstddef>

namespace plex {

// Blocks `signo`, or SIGTERM and SIGINT, and returns the mask as it was; restores a mask.
sigset_t block_signal(int signo);
sigset_t block_endings();
void unblock_signal(sigset_t oldmask);

// The SIGCHLD handler: reaps one ended command, however many there are, and tells the host. Ended
// commands whose signals merged are reaped with the signals that follow. With reapall it reaps them
// all.
void process_signal(int signo);

// Drops the user's most recent command and sends its process SIGTERM. The host is not told of its
// end again.
void killcmd(int usrnum);

// Takes everything down: files, commands, descriptors. With 0 it returns; else the process exits
// with `signo` + 100. Also the handler of SIGTERM and SIGINT.
void cleanup(int signo);

// Writes `len` bytes to the host. A host that is gone raises no SIGPIPE and is not reported: its
// absence ends the request loop.
void tellhost(const void *record, size_t len);

} // namespace plex
