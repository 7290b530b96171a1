// The link between a program that shows its console in the shared segment and the viewer that shows
// it to somebody: a local stream socket in the program's working directory. The viewer sends words
// in the machine's byte order: its process id, in one piece, right after it has connected; then a
// key code each; at the end perhaps `viewleaving`. It gets no answer: a signal tells it to go.
#pragma once

#include <csignal>
#include <cstdint>

namespace plex {

constexpr char viewendpoint[] = "plexhost.console";

using viewword = int32_t;
constexpr viewword viewleaving = -1; // in place of a key: the viewer goes

constexpr int viewgo = SIGUSR1; // to a viewer that has to go

} // namespace plex
