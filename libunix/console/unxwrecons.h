// The system console's keyboard, and what is put back at the end (table unxwretrm, trm.h).
// conscreen.h is its screen.
#pragma once

#include <cstdint>

namespace plex {

struct condrv;

// The driver, for the screen, from the first open to the end of the process: the image stays mapped
// when the console is closed, and the cursor may still be moved. Null before.
extern const condrv *condev;

extern int32_t kbdfd; // the console, as opened for the keyboard; -1 before the first open

// Opens the keyboard: 0, or -1 after a message on standard error. A failure leaves what was taken
// before it to the end of the process, which must come soon; the driver puts the keyboard back.
int32_t unxwreopen();

// Puts the cursor, the screen mapping table, the display, the keyboard and the ports back and
// closes the console: 1. The image stays mapped and may be written to. Does nothing when nothing is
// open.
int32_t unxwreclose();

int32_t unxwreread();  // waits for a key and removes it
int32_t unxwrepress(); // 1 when a key is waiting

// Shows what has been written to the image (non-zero: all of it), unless it is on the screen
// anyhow.
void unxwreupdate(int32_t force);
void unxwrebell(int32_t pitch); // nothing

// The handler of the signal that says that the keyboard has sent something.
void sigpress(int signo);

// Adds a key to those waiting; when 1023 wait already it is dropped. For the handler alone.
void add2q(int32_t key);
int32_t upq(); // the slot that the next key would take

void kbdon();  // nothing
void kbdoff(); // puts the keyboard's mode back

// Saves the screen mapping table, which the console on standard input has: 1, or 0 when it cannot
// be read or standard input is no console. unxwreclose puts back what was saved.
int32_t getcfnt();

} // namespace plex
