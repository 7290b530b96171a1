// The shared segment that holds a screen image: one for each user of the machine, found by its key,
// the real user id plus 1. Writer and viewer run under the same user and so meet in it. Nothing
// locks it; the image's own flags say what changed.
//
// The writer is the server side, the viewer the client side; each routine below serves one of them.
#pragma once

#include <sys/types.h>

namespace plex {

// The key of this user's segment.
key_t shmkey();

// The server side: creates the segment (mode 0644, zero-filled) or finds the one that is there, as
// it was left, and attaches it with at least `len` bytes. Returns its address. A failure is a
// catastrophe; so is a smaller segment with this key, and one that is not this user's own (EACCES).
void *opnsshm(int len);

// For a program that wants to know before it relies on the segment: attaches it as opnsshm
// (`create`) or opncshm would, and gives null, with the cause in errno, where they would not
// return. To be detached with clscshm.
void *tryshm(int len, bool create);

// Detaches the segment at `mem` and marks it for removal. Failures are logged and nothing more. A
// program that ends without this leaves the segment to its next start, which is what our programs
// do: a viewer keeps its picture meanwhile.
void clssshm(void *mem);

// The client side: attaches the segment, which must exist. Otherwise as opnsshm.
void *opncshm(int len);

// Detaches the segment at `mem`, and never removes it.
void clscshm(void *mem);

} // namespace plex
