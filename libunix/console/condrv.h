// What the system console asks of the machine: its keyboard's event queue, its video memory, the
// video controller's registers, and the modes that a program must put back.
//
// The requests are few and each does one thing, so that a second table of them, in memory, can
// stand for a machine. The system console goes through `condriver` and nothing else. A routine that
// returns int32_t gives -1 when the machine refuses, with the cause in errno.
#pragma once

#include <cstddef>
#include <cstdint>

namespace plex {

// A key event; the other types (buttons, motion) are skipped.
constexpr uint8_t XQ_KEY = 2;

struct xqEvent {
    uint8_t xq_type;
    uint8_t xq_code; // the raw scan code, bit 7 set on release
    int8_t xq_x;
    int8_t xq_y;
    int32_t xq_time; // not kept here: nothing reads it
};
static_assert(sizeof(xqEvent) == 8);

constexpr int32_t xqslots = 64;

// Events from xq_head up to xq_tail wait; equal indices are an empty queue. The driver moves the
// tail, the program the head. The driver signals only while xq_sigenable is 1.
struct xqEventQueue {
    int8_t xq_sigenable;
    int32_t xq_head;
    int32_t xq_tail;
    int32_t xq_curtime;
    int32_t xq_size; // slots in use, at most xqslots
    xqEvent xq_events[xqslots];
};
static_assert(offsetof(xqEventQueue, xq_events) == 20);

struct kd_quemode {
    int32_t qsize;       // slots asked for
    int32_t signo;       // the signal that says that events have come
    xqEventQueue *qaddr; // filled in: where the queue lies, to the end of the process
};

// The console's mapping from characters to the glyphs of its font.
constexpr size_t scrnmapsize = 256;

// The video controller: an index register and the register that it selects; of these, the cursor's
// first and last scan line and its place.
constexpr uint16_t crtindex = 0x3D4;
constexpr uint16_t crtdata = 0x3D5;
constexpr uint8_t crtstart = 10;
constexpr uint8_t crtend = 11;
constexpr uint8_t crthigh = 14;
constexpr uint8_t crtlow = 15;

struct condrv {
    // Opens the console for the keyboard or for the screen, without delay: a descriptor.
    int32_t (*conopen)();
    int32_t (*conclose)(int32_t fd);

    // Turns the event queue on as `mode` asks and says where it lies; null turns it off. From then
    // on the keyboard sends scan codes, until setkbmode, the end of the program or a fatal signal.
    int32_t (*quemode)(int32_t fd, kd_quemode *mode);

    // Moves what the keyboard has sent into the queue's free slots: how many events that were, 0
    // when it has nothing more. Called by the signal's handler.
    int32_t (*drain)();

    // Takes (1) or gives back (0) the video controller's ports. Taking succeeds also where they are
    // not needed, as the screen can be had without them.
    int32_t (*ioports)(int32_t fd, int32_t on);

    int32_t (*getscrnmap)(int32_t fd, unsigned char *map); // scrnmapsize bytes
    int32_t (*setscrnmap)(int32_t fd, const unsigned char *map);

    // Asks whether `fd` is a console at all.
    int32_t (*isconsole)(int32_t fd);

    // Maps the video memory, 4000 bytes of cells at least, to the end of the process, or gives an
    // image that `show` shows on the console: null when this machine has neither.
    unsigned char *(*mapvideo)(int32_t fd);

    int32_t (*setdisplay)(int32_t fd, int32_t mode); // 0 is text
    int32_t (*setkbmode)(int32_t fd, int32_t mode);  // 1 is the mode that quemode found

    // One port of the video controller. After the ports were given back a write changes nothing
    // that can be seen, and a read gives what was written last: a program that ends still moves a
    // cursor.
    void (*portwrite)(uint16_t port, uint8_t value);
    uint8_t (*portread)(uint16_t port);

    // Shows what has changed of the image and of the cursor's registers (`all`: everything), where
    // they are not what the machine shows by itself. From mapvideo or a later opening to the close.
    void (*show)(int32_t all);
};

extern const condrv linuxcondrv;

// The driver in use. Tests put theirs here before the console is opened.
extern const condrv *condriver;

} // namespace plex
