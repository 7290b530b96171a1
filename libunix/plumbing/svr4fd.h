// Passing open descriptors over a local stream, in order with the bytes written on it. A descriptor
// travels with one data byte of its own, which is zero. What is received is closed by an exec.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace plex {

// Passes `fd` over the connection `clifd`; the sender keeps its copy. 0, or -1 with a line in the
// log. A peer that is gone raises no SIGPIPE.
int send_fd(int clifd, int fd);

// Waits for the next item on `servfd` and takes the descriptor that it brings: the caller's own. -1
// with a line in the log and errno: ENXIO at the end of the stream, EBADMSG when plain bytes come
// first, which are left to be read. EMFILE: it came, and this process had no room for it.
int recv_fd(int servfd);

// Reads up to `len` bytes, as recv does with `flags`: its result. A read ends behind a byte that
// brings a descriptor; `*fd` is that descriptor, the caller's own, or NOFD when none came, or
// LOSTFD when one came and this process had no room for it.
constexpr int NOFD = -1;
constexpr int LOSTFD = -2;
ssize_t recv_bytes(int servfd, void *buf, size_t len, int flags, int *fd);

} // namespace plex
