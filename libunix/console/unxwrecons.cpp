// The driver signals when the keyboard has sent scan codes; the handler translates them on the spot
// and leaves key codes in a ring, from which the program takes them when it likes. The ring needs
// no lock: the handler alone writes `head` and the slots, the program alone writes `tail`, and each
// is read and written in one access. The slot at `tail` is the one last read, so a full ring holds
// one key less than it has slots.
//
// Deliberately a failed open undoes nothing: the program ends at once, and its end puts the
// keyboard back as it does for every other way to end.

#include "libunix/console/unxwrecons.h"

#include "libunix/console/condrv.h"
#include "libunix/console/keys.h"
#include "libunix/console/trm.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/screen.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace plex {

const condrv *condriver = &linuxcondrv;
const condrv *condev;
int32_t kbdfd = -1;

namespace {

constexpr int16_t ringsize = 1024;

kd_quemode xqueMode;
xqEventQueue *XqueQaddr;

volatile int32_t chrque[ringsize];
volatile int16_t head; // the slot last written
volatile int16_t tail; // the slot last read

int32_t curscn; // the scan code of the last event, 0 when it delivered nothing
int32_t curchr; // the key that it delivered

std::array<unsigned char, scrnmapsize> scrntab;
bool mapsaved;
bool isopen; // kbdfd keeps its value after the close, when it may be another file's number

int16_t after(int16_t slot) {
    return static_cast<int16_t>((slot + 1) % ringsize);
}

bool within(int32_t index, const xqEventQueue &queue) {
    return index >= 0 && index < queue.xq_size;
}

// Takes all events out of the queue. Indices that point outside it lead nowhere: such events are
// dropped.
void consume(xqEventQueue &queue) {
    if (queue.xq_size <= xqslots && within(queue.xq_head, queue) && within(queue.xq_tail, queue)) {
        for (int32_t i = queue.xq_head; i != queue.xq_tail; i = (i + 1) % queue.xq_size) {
            const xqEvent &event = queue.xq_events[i];
            if (event.xq_type != XQ_KEY) {
                continue;
            }
            curscn = event.xq_code;
            curchr = scn2chr(event.xq_code);
            if (curchr != 0) {
                add2q(curchr);
            } else {
                curscn = 0;
            }
        }
    }
    queue.xq_head = queue.xq_tail;
}

} // namespace

int32_t unxwreopen() {
    kbdfd = condriver->conopen();
    if (kbdfd == -1) {
        fputs("Unable to open /dev/console\n", stderr);
        return -1;
    }
    isopen = true;
    usignal(SIGUSR2, sigpress);
    xqueMode.qsize = xqslots;
    xqueMode.signo = SIGUSR2;
    condriver->quemode(kbdfd, nullptr);
    if (condriver->quemode(kbdfd, &xqueMode) < 0) {
        fputs("Cannot set KDQUEMODE", stderr); // deliberately without a line end
        return -1;
    }
    XqueQaddr = xqueMode.qaddr;
    XqueQaddr->xq_sigenable = 1;
    if (condriver->ioports(kbdfd, 1) < 0) {
        fputs("Unable to take control of I/O\n", stderr);
        return -1;
    }
    condev = condriver;
    return 0;
}

int32_t unxwreclose() {
    if (kbdfd == -1 || !isopen) {
        return 1;
    }
    isopen = false;
    cursiz(1);
    if (mapsaved) {
        condriver->setscrnmap(STDIN_FILENO, scrntab.data());
        mapsaved = false;
    }
    condriver->setdisplay(kbdfd, 0);
    kbdoff();
    if (condriver->ioports(kbdfd, 0) < 0) {
        fprintf(stderr, "unxwrecons: KDDISABIO failed. %s.\n", strerror(errno));
    }
    condriver->conclose(kbdfd);
    return 1;
}

int32_t unxwreread() {
    while (head == tail) {
        // A nap between two looks keeps the machine free; the signal of a key ends it early.
        delay(1000);
    }
    tail = after(tail);
    return chrque[tail];
}

int32_t unxwrepress() {
    return tail != head ? 1 : 0;
}

void unxwreupdate(int32_t force) {
    if (isopen) {
        condriver->show(force);
    }
}

void unxwrebell(int32_t /*pitch*/) {}

void sigpress(int /*signo*/) {
    const int saved = errno;
    if (XqueQaddr != nullptr) { // null when the signal is not the driver's
        int32_t came = 0;
        do {
            came = condriver->drain();
            consume(*XqueQaddr);
        } while (came > 0); // what is left behind would wait for the next key's signal
        XqueQaddr->xq_sigenable = 1;
    }
    usignal(SIGUSR2, sigpress);
    errno = saved;
}

void add2q(int32_t key) {
    const int16_t slot = static_cast<int16_t>(upq());
    if (slot == tail) {
        return;
    }
    chrque[slot] = key;
    head = slot;
}

int32_t upq() {
    return after(head);
}

void kbdon() {}

void kbdoff() {
    condriver->setkbmode(kbdfd, 1);
}

int32_t getcfnt() {
    mapsaved = condriver->getscrnmap(STDIN_FILENO, scrntab.data()) >= 0;
    return mapsaved && condriver->isconsole(STDIN_FILENO) >= 0 ? 1 : 0;
}

const trmhdl unxwretrm = {unxwreopen,  unxwreclose,  unxwreread,
                          unxwrepress, unxwreupdate, unxwrebell};

} // namespace plex
