// Passing open descriptors over a local stream, in order with the bytes written on it. A descriptor
// travels with one data byte of its own, which is zero.
#pragma once

namespace plex {

// Passes `fd` over the connection `clifd`; the sender keeps its copy. 0, or -1 with a line in the
// log. A peer that is gone raises no SIGPIPE.
int send_fd(int clifd, int fd);

// Waits for the next item on `servfd` and takes the descriptor that it brings: the caller's own. -1
// with a line in the log and errno: ENXIO at the end of the stream, EBADMSG when plain bytes come
// first, which are left to be read.
int recv_fd(int servfd);

} // namespace plex
