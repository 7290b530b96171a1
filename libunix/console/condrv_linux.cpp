// The system console under Linux: a virtual terminal in raw keyboard mode. Its screen is a PC's
// text memory, through /dev/mem, and the video controller's ports; where the console is no VGA
// text, or the ports are not ours, it is the terminal's cells as the kernel lends them (vcsa.h).
//
// The kernel has no event queue that it shares with a program. Raw mode makes the terminal deliver
// the keyboard's bytes, asynchronous input makes it signal them, and drain moves them into a queue
// of ours. Extended keys come as 0xE0 and the key; the prefix is an event like any other, and
// stands for nothing.
//
// A virtual terminal keeps its keyboard mode when the program that set it is gone, and a keyboard
// left raw is of no use to anyone. So the mode and the screen come back on close, on exit and on
// every signal that ends a program and that a program can catch. Of two processes only the one that
// took the keyboard gives it back: a child of a fork that exits must not.

#include "libunix/console/condrv.h"

#include "libunix/console/vcsa.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#if defined(__i386__) || defined(__x86_64__)
#include <sys/io.h>
#define PLEX_PORTS 1
#else
#define PLEX_PORTS 0
#endif

namespace plex {
namespace {

xqEventQueue queue;

// What was found, and who has to put it back.
int32_t keyboard = -1; // the descriptor that the queue is fed from
int foundmode;
termios foundterm;
pid_t owner;
volatile sig_atomic_t taken;
volatile sig_atomic_t ports;
bool lent; // the image is of the terminal's cells, and will be when the console is opened again

// The controller's registers as last written, for the time when the ports are not ours.
constexpr size_t registers = 32;
uint8_t selected;
std::array<uint8_t, registers> shadow;
constexpr uint8_t crtoff = 0x20;  // in crtstart: no cursor
constexpr uint8_t blockstart = 8; // a cursor that begins higher than this fills its cell

void outport([[maybe_unused]] uint8_t value, [[maybe_unused]] uint16_t port) {
#if PLEX_PORTS
    outb(value, port);
#endif
}

uint8_t inport([[maybe_unused]] uint16_t port) {
#if PLEX_PORTS
    return inb(port);
#else
    return 0;
#endif
}

void setregister(uint8_t index, uint8_t value) {
    outport(index, crtindex);
    outport(value, crtdata);
}

// Called by signal handlers too.
void giveback() {
    if (!taken || getpid() != owner) {
        return;
    }
    const int saved = errno;
    if (ports) { // the kernel sets the shape anew only when its own idea of it changes
        setregister(crtstart, 13);
        setregister(crtend, 14);
    }
    vcsagive();
    ioctl(keyboard, KDSETMODE, KD_TEXT); // as it was found; mapvideo changes it for a moment
    ioctl(keyboard, KDSKBMODE, foundmode);
    tcflush(keyboard, TCIFLUSH); // scan codes are nothing to read for who comes next
    tcsetattr(keyboard, TCSANOW, &foundterm);
    errno = saved;
    taken = 0; // last: a signal that ends the program in the middle does it all again
}

void die(int signo) {
    giveback();
    raise(signo); // blocked until the handler returns; then the default action takes it
}

// The signals whose default action ends the program. One that the program has a handler for, or
// ignores, is the program's own affair: what its handler ends it with is exit or another of these.
constexpr std::array deadly = {SIGHUP,  SIGINT,  SIGQUIT, SIGILL,  SIGTRAP, SIGABRT,   SIGBUS,
                               SIGFPE,  SIGSEGV, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1,   SIGXCPU,
                               SIGXFSZ, SIGPROF, SIGIO,   SIGPWR,  SIGSYS,  SIGVTALRM, SIGSTKFLT};

void watchfor(int signo) {
    struct sigaction act = {};
    if (sigaction(signo, nullptr, &act) == 0 && act.sa_handler == SIG_DFL) {
        act.sa_handler = die;
        act.sa_flags = static_cast<int>(SA_RESETHAND) | SA_ONSTACK;
        sigaction(signo, &act, nullptr);
    }
}

void watchtheend() {
    static bool watched;
    if (!watched) {
        watched = true;
        atexit(giveback);
        [[maybe_unused]] const int kept = at_quick_exit(giveback);
    }
    // An exhausted stack leaves no room for a handler on it.
    static std::array<char, 65536> handlerstack;
    stack_t stack = {};
    if (sigaltstack(nullptr, &stack) == 0 && (stack.ss_flags & SS_DISABLE) != 0) {
        stack = {};
        stack.ss_sp = handlerstack.data();
        stack.ss_size = handlerstack.size();
        sigaltstack(&stack, nullptr);
    }
    for (const int signo : deadly) {
        watchfor(signo);
    }
    for (int signo = SIGRTMIN; signo <= SIGRTMAX; signo++) {
        watchfor(signo);
    }
}

int32_t isconsole(int32_t fd) {
    char type = 0;
    return ioctl(fd, KDGKBTYPE, &type);
}

// The console is root's, and a server's may be a serial line. Then the terminal that the program
// was started on will do, if that is a virtual one.
int32_t conopen() {
    constexpr int flags = O_RDWR | O_NDELAY | O_NOCTTY | O_CLOEXEC;
    const int console = open("/dev/console", flags);
    if (console != -1 && isconsole(console) == 0) {
        return console;
    }
    const int saved = errno;
    const int own = open("/dev/tty", flags);
    if (own != -1 && isconsole(own) == 0) {
        close(console);
        return own;
    }
    close(own);
    errno = saved;
    return console;
}

int32_t conclose(int32_t fd) {
    giveback();
    keyboard = -1;
    return close(fd);
}

bool makeraw(int32_t fd, int signo) {
    termios raw = foundterm;
    cfmakeraw(&raw);
    const int flags = fcntl(fd, F_GETFL);
    return tcsetattr(fd, TCSANOW, &raw) == 0 && ioctl(fd, KDSKBMODE, K_RAW) == 0 &&
           tcflush(fd, TCIFLUSH) == 0 && fcntl(fd, F_SETOWN, getpid()) == 0 &&
           fcntl(fd, F_SETSIG, signo) == 0 && fcntl(fd, F_SETFL, flags | O_ASYNC | O_NONBLOCK) == 0;
}

int32_t quemode(int32_t fd, kd_quemode *mode) {
    if (mode == nullptr) {
        giveback();
        keyboard = -1;
        return 0;
    }
    if (mode->qsize < 2 || mode->qsize > xqslots) {
        errno = EINVAL;
        return -1;
    }
    int display = KD_TEXT;
    if (ioctl(fd, KDGKBMODE, &foundmode) != 0 || ioctl(fd, KDGETMODE, &display) != 0 ||
        tcgetattr(fd, &foundterm) != 0) {
        return -1;
    }
    if (display != KD_TEXT) { // a graphical session's, which a text program would tear down
        errno = EBUSY;
        return -1;
    }
    queue = {};
    queue.xq_size = mode->qsize;
    keyboard = fd;
    owner = getpid();
    std::atomic_signal_fence(std::memory_order_release);
    taken = 1;
    watchtheend();
    if (!makeraw(fd, mode->signo)) {
        const int saved = errno;
        giveback();
        keyboard = -1;
        errno = saved;
        return -1;
    }
    mode->qaddr = &queue;
    return 0;
}

int32_t drain() {
    const auto within = [](int32_t i) { return i >= 0 && i < queue.xq_size; };
    // Given back, what is typed is for who comes next. Indices that lead nowhere: begin anew.
    if (!taken || !within(queue.xq_head) || !within(queue.xq_tail)) {
        queue.xq_head = queue.xq_tail = 0;
        return 0;
    }
    // One slot stays free, or a full queue would look empty.
    const int32_t used = (queue.xq_tail - queue.xq_head + queue.xq_size) % queue.xq_size;
    std::array<uint8_t, xqslots> codes;
    const ssize_t came =
        read(keyboard, codes.data(), static_cast<size_t>(queue.xq_size - 1 - used));
    if (came <= 0) {
        return 0;
    }
    for (ssize_t i = 0; i < came; i++) {
        queue.xq_events[queue.xq_tail] = {XQ_KEY, codes[static_cast<size_t>(i)], 0, 0, 0};
        queue.xq_tail = (queue.xq_tail + 1) % queue.xq_size;
    }
    return static_cast<int32_t>(came);
}

int32_t askports([[maybe_unused]] int32_t fd, [[maybe_unused]] int request) {
#if PLEX_PORTS
    return ioctl(fd, request, 0);
#else
    errno = ENXIO;
    return -1;
#endif
}

unsigned char *borrow(int32_t fd) {
    const int device = vcsaopen(fd);
    return device == -1 ? nullptr : vcsatake(device, fd);
}

int32_t ioports(int32_t fd, int32_t on) {
    const bool had = ports != 0;
    ports = 0;
    if (on == 0) {
        return had ? askports(fd, KDDISABIO) : 0;
    }
    if (lent) {
        return borrow(fd) != nullptr ? 0 : -1;
    }
    ports = askports(fd, KDENABIO) == 0 ? 1 : 0;
    if (ports == 0) { // needed for a VGA card's text, not for cells that the kernel lends
        const int device = vcsaopen(fd);
        return device == -1 ? -1 : close(device);
    }
    return 0;
}

int32_t getscrnmap(int32_t fd, unsigned char *map) {
    return ioctl(fd, GIO_SCRNMAP, map);
}

int32_t setscrnmap(int32_t fd, const unsigned char *map) {
    return ioctl(fd, PIO_SCRNMAP, map);
}

constexpr off_t textmemory = 0xB8000;
constexpr size_t textlength = 0x1000;
constexpr size_t cells = 80 * 25 * 2;

// Whether the kernel shows its console from `memory`: then its own device for the screen's contents
// has the same cells. A frame buffer's console, another size, another card: something else.
bool shows(const unsigned char *memory) {
    const int fd = open("/dev/vcsa", O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        return true; // nobody to ask
    }
    bool same = false;
    // Lines that come in between the two looks differ; not three times.
    for (int look = 0; look < 3 && !same; look++) {
        std::array<unsigned char, 4 + cells> seen; // rows, columns, cursor; then the cells
        same = pread(fd, seen.data(), seen.size(), 0) == static_cast<ssize_t>(seen.size()) &&
               seen[0] == 25 && seen[1] == 80 && memcmp(seen.data() + 4, memory, cells) == 0;
    }
    close(fd);
    return same;
}

unsigned char *vgatext(int32_t fd) {
    // The kernel scrolls by moving the place in video memory from which the controller shows the
    // screen. Coming back from graphics it shows it from the start, with its contents.
    ioctl(fd, KDSETMODE, KD_GRAPHICS);
    ioctl(fd, KDSETMODE, KD_TEXT);
    const int mem = open("/dev/mem", O_RDWR | O_CLOEXEC);
    if (mem == -1) {
        return nullptr;
    }
    void *memory = mmap(nullptr, textlength, PROT_READ | PROT_WRITE, MAP_SHARED, mem, textmemory);
    close(mem);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    auto *image = static_cast<unsigned char *>(memory);
    if (!shows(image)) {
        munmap(memory, textlength);
        errno = ENODEV;
        return nullptr;
    }
    return image;
}

unsigned char *mapvideo(int32_t fd) {
    unsigned char *image = ports != 0 ? vgatext(fd) : nullptr;
    if (image == nullptr) {
        ioports(fd, 0); // what they move is not on this console
        image = borrow(fd);
        lent = image != nullptr;
    }
    return image;
}

int32_t setdisplay(int32_t fd, int32_t mode) {
    return ioctl(fd, KDSETMODE, mode == 0 ? KD_TEXT : KD_GRAPHICS);
}

int32_t setkbmode(int32_t /*fd*/, int32_t mode) {
    if (mode != 1) {
        errno = EINVAL;
        return -1;
    }
    giveback();
    return 0;
}

void portwrite(uint16_t port, uint8_t value) {
    if (port == crtindex) {
        selected = value % registers;
    } else if (port == crtdata) {
        shadow[selected] = value;
    }
    if (ports) {
        outport(value, port);
    }
}

uint8_t portread(uint16_t port) {
    if (ports) {
        return inport(port);
    }
    return port == crtdata ? shadow[selected] : selected;
}

void show(int32_t all) {
    const uint8_t first = shadow[crtstart];
    vcsashow(all != 0, shadow[crthigh] * 256 + shadow[crtlow],
             (first & crtoff) != 0 ? vcsacursor::none
             : first < blockstart  ? vcsacursor::block
                                   : vcsacursor::line);
}

} // namespace

const condrv linuxcondrv = {conopen,    conclose,   quemode,   drain,    ioports,
                            getscrnmap, setscrnmap, isconsole, mapvideo, setdisplay,
                            setkbmode,  portwrite,  portread,  show};

} // namespace plex
