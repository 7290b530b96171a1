// The system console on a terminal of the test's own: sequences of scan codes, the ring, what a
// program takes of the machine and gives back, what is said when it refuses; the cells that the
// kernel lends, where a file stands for the device. What a key stands for: keyboards.cpp.

#include "libunix/console/vcsa.h"

#include "libsrc/plex.h"
#include "libunix/console/condrv.h"
#include "tests/support.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <linux/vt.h>
#include <pty.h>
#include <set>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace {

// The machine: a terminal gives scan codes, ioctl below answers for the console.
int master = -1;
int slave = -1;
unsigned long refused; // the request that fails, with EPERM
struct Machine {       // the children's too
    int keyboard = K_XLATE;
    int display = KD_TEXT;
};
auto *const machine =
    new (mmap(nullptr, sizeof(Machine), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        Machine;
unsigned short fontbit;
std::vector<unipair> fontmap;
int device = -1; // where cells are lent, else the video memory is had
std::array<unsigned char, plex::scrnmapsize> map;
std::set<std::string> held; // what a program has taken and not given back
std::array<unsigned char, plex::imagebytes> video;
std::vector<std::pair<int, int>> writes; // the controller's ports and values
plex::xqEventQueue *queue;
int drained;

constexpr unsigned long opening = 1; // refused, as a request
constexpr unsigned long again = 2;
constexpr unsigned long mapping = 3;

const plex::condrv terminaldrv = [] {
    plex::condrv drv = plex::linuxcondrv;
    drv.conopen = [] {
        if (refused == opening || (refused == again && held.count("console") != 0)) {
            return -1;
        }
        held.insert("console");
        return dup(slave);
    };
    drv.conclose = [](int32_t fd) {
        held.erase("console");
        return plex::linuxcondrv.conclose(fd);
    };
    drv.quemode = [](int32_t fd, plex::kd_quemode *mode) {
        const int32_t result = plex::linuxcondrv.quemode(fd, mode);
        queue = mode != nullptr ? mode->qaddr : nullptr;
        return result;
    };
    drv.drain = [] {
        const bool wild = queue == nullptr || queue->xq_size != 64; // a test's own
        const int32_t came = wild ? 0 : plex::linuxcondrv.drain();
        drained += came;
        return came;
    };
    drv.ioports = [](int32_t fd, int32_t on) { // the real ones would be written to
        return ioctl(fd, on != 0 ? KDENABIO : KDDISABIO, 0);
    };
    drv.mapvideo = [](int32_t fd) {
        return refused == mapping ? nullptr
               : device < 0       ? video.data()
                                  : plex::vcsatake(dup(device), fd);
    };
    drv.portwrite = [](uint16_t port, uint8_t value) {
        writes.emplace_back(port, value);
        plex::linuxcondrv.portwrite(port, value);
    };
    return drv;
}();

class Syscon : public ::testing::Test {
protected:
    Syscon() {
        *machine = {};
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        plex::condriver = &terminaldrv;
        plex::dsptyp = plex::DSP_SYSCON;
    }
    ~Syscon() override {
        plex::unxwreclose();
        close(master);
        close(slave);
    }

    // The translator is in its first state, and no key waits.
    static void open() {
        ASSERT_EQ(plex::unxwreopen(), 0);
        type({0x38, 0xB8, 0xAA});
        keys();
    }
    static void type(const std::vector<uint8_t> &scans) {
        const int before = drained;
        EXPECT_EQ(write(master, scans.data(), scans.size()), ssize_t(scans.size()));
        EXPECT_TRUE(test::eventually([&] { return drained == before + int(scans.size()); }));
    }
    static std::vector<int> keys() {
        std::vector<int> got;
        while (plex::unxwrepress() != 0) {
            got.push_back(plex::unxwreread());
        }
        return got;
    }
};

TEST_F(Syscon, Sequences) {
    open();
    // Each row ends with all keys up; the last column is `lastscan` (0: entered by digits).
    const struct {
        const char *what;
        std::vector<uint8_t> scans;
        std::vector<int> keys;
        int lastscan;
    } rows[] = {
        {"right shift", {0x36, 0x1E, 0x9E, 0xB6, 0x1E, 0x9E}, {'A', 'a'}, 1},
        {"right ctrl", {0xE0, 0x1D, 0x2E, 0xE0, 0x9D}, {3}, 1},
        {"arrow with its prefix", {0xE0, 0x48, 0xE0, 0xC8}, {0x4800}, 1},
        {"entry of two digits", {0x38, 0x4F, 0xCF, 0x47, 0xC7, 0xB8}, {17}, 0},
        {"a fourth digit is dropped", {0x38, 0x50, 0x51, 0x51, 0x4F, 0xB8}, {233}, 0},
        {"255 is the last", {0x38, 0x50, 0x4C, 0x4C, 0xB8, 0x38, 0x50, 0x4C, 0x4D, 0xB8}, {255}, 1},
        {"leading zeros", {0x38, 0x52, 0x52, 0x47, 0xB8}, {7}, 0},
        {"a key between digits", {0x38, 0x4F, 0x1E, 0x47, 0xB8}, {0x1E00, 17}, 0},
        {"zero delivers nothing", {0x38, 0x52, 0xB8}, {}, 0},
        {"ctrl, then alt", {0x1D, 0x38, 0x2E, 0xB8, 0x2E, 0x9D}, {0x2E00, 'c'}, 1},
        {"alt, then ctrl", {0x38, 0x1D, 0x2E, 0x9D, 0x2E, 0xB8}, {0x2E00, 0x2E00}, 1},
        {"shift, then ctrl", {0x2A, 0x1D, 0x2E, 0x9D, 0x2E, 0xAA}, {'C', 'C'}, 1},
        {"shift's release cuts an entry", {0x38, 0x4F, 0xAA, 0xB8, 0x38, 0x50, 0xB8}, {12}, 0},
        {"beyond the table", {0x57, 0x58, 0x54, 0x7F, 0xFF, 0xE1}, {}, 1},
    };
    for (const auto &r : rows) {
        type({0x39}); // lastscan 1 before each
        keys();
        type(r.scans);
        EXPECT_EQ(keys(), r.keys) << r.what;
        EXPECT_EQ(plex::lascan(), r.lastscan) << r.what;
    }
}

TEST_F(Syscon, TheRingAndTheQueue) {
    open();
    type(std::vector<uint8_t>(64, 0x1E)); // more than the queue holds
    EXPECT_EQ(keys(), std::vector<int>(64, 'a'));
    std::vector<uint8_t> scans(1100, 0x2E); // the 1023rd is b, then c: the ring holds no more
    std::fill_n(scans.begin(), 1023, 0x1E);
    scans[1022] = 0x30;
    type(scans);
    std::vector<int> want(1023, 'a');
    want.back() = 'b';
    EXPECT_EQ(keys(), want);
    // Indices that lead out of the queue: nothing is taken from there, and the next key comes.
    const int32_t wild[][3] = {{-1, 3, 64}, {0, 64, 64}, {64, 0, 64},    {5, INT32_MIN, 64},
                               {0, 3, 0},   {0, 3, -64}, {0, 100, 4096}, {0, 3, INT32_MAX}};
    for (const auto &[head, tail, size] : wild) {
        std::fill_n(queue->xq_events, 64, plex::xqEvent{plex::XQ_KEY, 0x1E, 0, 0, 0});
        queue->xq_head = head;
        queue->xq_tail = tail;
        queue->xq_size = size;
        raise(SIGUSR2);
        EXPECT_EQ(queue->xq_head, queue->xq_tail);
        queue->xq_head = queue->xq_tail = 0;
        queue->xq_size = 64;
        type({0x30});
        EXPECT_EQ(keys(), std::vector<int>{'b'}) << head << " " << tail << " " << size;
    }
    // Of the events only keys count.
    queue->xq_head = 60;
    queue->xq_tail = 4;
    for (int i = 0; i < 8; i++) {
        queue->xq_events[(60 + i) % 64] = {uint8_t(i), 0x1E, 0, 0, 0};
    }
    queue->xq_sigenable = 0;
    raise(SIGUSR2);
    EXPECT_EQ(keys(), std::vector<int>{'a'});
    EXPECT_EQ(queue->xq_sigenable, 1);
}

// The image is the video memory, the cursor the controller's: its place in 14 and 15, its first and
// last line in 10 and 11. How it moves: screen/21cursor.t.
TEST_F(Syscon, ScreenAndCursorAreTheMachines) {
    open();
    const std::vector<std::pair<int, int>> shape = {
        {plex::crtindex, 10}, {plex::crtdata, 13}, {plex::crtindex, 11}, {plex::crtdata, 14}};
    writes.clear();
    EXPECT_EQ(plex::frzseg(), video.data());
    EXPECT_EQ(writes, shape);
    plex::wrcurp(0x184F);
    EXPECT_EQ(plex::rdcurp(), 0x184F);
    plex::linuxcondrv.portwrite(plex::crtindex, 15); // somebody else moved it
    plex::linuxcondrv.portwrite(plex::crtdata, 0x10);
    EXPECT_EQ(plex::rdcurp(), ((7 * 256 + 16) / 80) << 8 | (7 * 256 + 16) % 80);
    EXPECT_EQ(writes[7], std::pair(int{plex::crtdata}, 0xCF));
    writes.clear();
    plex::unxwreclose();
    EXPECT_EQ(writes, shape);
    plex::linuxcondrv.portwrite(plex::crtindex, 255); // there is no such register
    EXPECT_EQ(plex::linuxcondrv.portread(plex::crtindex), 31);
    EXPECT_EQ(std::count(video.begin(), video.end(), 0), 4029);
}

// Whatever is refused: what was taken of the machine is given back.
TEST_F(Syscon, RefusalsAreSaid) {
    const std::string noopen = "Display open failed. Exiting.\n|1";
    const std::string noqueue = "console |Cannot set KDQUEMODE" + noopen; // its end closes it
    const std::string nomap = "|Unable to get current screen mapping table\n|255";
    const std::pair<unsigned long, std::string> rows[] = {
        {0, "||0"},
        {opening, "|Unable to open /dev/console\n" + noopen},
        {again, "|Unable to open /dev/console\n|255"}, // for the screen
        {KDGKBMODE, noqueue},
        {KDSKBMODE, noqueue},
        {KDENABIO, "console |Unable to take control of I/O\n" + noopen},
        {GIO_SCRNMAP, nomap},
        {KDGKBTYPE, nomap},
        {mapping, "|Unable to get base position in video memory\n|255"},
        {KDDISABIO, "ports |unxwrecons: KDDISABIO failed. Operation not permitted.\n|0"},
    };
    for (const auto &[request, want] : rows) {
        EXPECT_EQ(test::told([number = request] {
                      refused = number;
                      map[5] = 99;
                      atexit([] {
                          for (const std::string &name : held) {
                              printf("%s ", name.c_str());
                          }
                          printf("%s", map[5] == 99 && machine->display == KD_TEXT
                                           ? ""
                                           : "not as it was");
                      });
                      plex::grafbuf = nullptr;
                      plex::opntrm(plex::DSP_SYSCON, "test");
                      plex::frzseg();
                      map[5] = 1;
                      machine->display = KD_GRAPHICS;
                      plex::clstrm();
                      const int fd = dup(0); // it may get the console's number
                      exit(plex::unxwretrm.trmcls() == 1 && fcntl(fd, F_GETFD) == 0 ? 0 : 9);
                  }),
                  want);
        EXPECT_EQ(machine->keyboard, K_XLATE) << request;
    }
}

TEST_F(Syscon, WhatIsNoConsole) {
    const plex::condrv &drv = plex::linuxcondrv;
    const auto queueing = [&](int fd, int slots) {
        plex::kd_quemode mode = {slots, SIGUSR2, nullptr};
        const int result = drv.quemode(fd, &mode);
        EXPECT_EQ(mode.qaddr, nullptr);
        return result;
    };
    EXPECT_EQ(queueing(slave, 65) + queueing(slave, 1) + queueing(-1, 64), -3);
    EXPECT_EQ(drv.getscrnmap(-1, map.data()) + drv.isconsole(-1) + drv.setkbmode(-1, 0), -3);
    machine->display = KD_GRAPHICS; // a graphical session's
    EXPECT_EQ(queueing(slave, 64), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(drv.drain(), 0);
}

class Vcsa : public Syscon {
protected:
    ~Vcsa() override {
        plex::vcsagive();
        close(std::exchange(device, -1));
    }

    // A console of so many cells; text and colours stand there already.
    static unsigned char *take(unsigned short rows, unsigned short columns, size_t missing = 0) {
        found = std::string(4 + size_t{2} * rows * columns - missing, '\0');
        for (size_t i = 0; i < found.size(); i++) {
            found[i] = static_cast<char>(i * 7 + i / 256);
        }
        width = columns;
        const winsize size = {rows, columns, 0, 0};
        for (const int fd : {device, master, slave}) {
            close(fd);
        }
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, &size), 0);
        device = memfd_create("vcsa", MFD_CLOEXEC);
        EXPECT_EQ(write(device, found.data(), found.size()), ssize_t(found.size()));
        return plex::vcsatake(dup(device), slave);
    }

    static std::string all() {
        std::string now(found.size() + 1, '\0');
        now.resize(static_cast<size_t>(pread(device, now.data(), now.size(), 0)));
        return now;
    }

    static unsigned cell(int row, int column) {
        uint16_t word = 0;
        EXPECT_EQ(pread(device, &word, 2, 4 + 2 * (row * width + column)), 2);
        return word;
    }

    static inline int width;
    static inline std::string found;
};

constexpr auto line = plex::vcsacursor::line;

TEST_F(Vcsa, StandsInTheMiddle) {
    const struct {
        unsigned short rows, columns;
        int top, left;
    } screens[] = {{25, 80, 0, 0}, {48, 128, 11, 24}, {26, 81, 0, 0}, {135, 480, 55, 176}};
    for (const auto &s : screens) {
        unsigned char *image = take(s.rows, s.columns);
        ASSERT_NE(image, nullptr);
        memset(image, 'x', plex::cellbytes);
        plex::vcsashow(false, 24 * 80 + 79, line);
        for (int row = 0; row < s.rows; row++) {
            for (int column = 0; column < s.columns; column++) {
                const bool ours =
                    row >= s.top && row < s.top + 25 && column >= s.left && column < s.left + 80;
                ASSERT_EQ(cell(row, column), ours ? 0x7878U : 0x0720U) << row << " " << column;
            }
        }
        EXPECT_EQ(static_cast<unsigned char>(all()[2]), s.left + 79);
        EXPECT_EQ(all()[3], s.top + 24);
        plex::vcsagive();
        EXPECT_TRUE(all() == found);
    }
    EXPECT_EQ(take(48, 128, 2), nullptr); // smaller than the terminal says
}

TEST_F(Vcsa, WritesWhatChanged) {
    unsigned char *image = take(25, 80);
    std::string_view("aabbccddee").copy(reinterpret_cast<char *>(image), 10);
    plex::vcsashow(true, 0, line);
    ASSERT_EQ(pwrite(device, "......", 6, 4), 6); // the kernel's own words
    image[6] = image[7] = 'x';
    plex::vcsashow(false, 5000, plex::vcsacursor::block);
    EXPECT_EQ(all().substr(2, 12), std::string("\x28\x18......xxee"));
    plex::vcsashow(true, 0, plex::vcsacursor::none);
    EXPECT_EQ(all().substr(2, 12), std::string("\0\0aabbccxxee", 12));
    plex::vcsagive();
    plex::vcsashow(true, 0, line);
    EXPECT_TRUE(all() == found);
    EXPECT_EQ(test::expect(master, "\033[?0c"), "\033[?2c\033[?2c\033[?6c\033[?1c\033[?0c");
}

// A full block is wanted, in the attribute 0x9E.
TEST_F(Vcsa, FindsItsGlyphs) {
    const struct {
        unsigned short bit;
        unsigned want;
        std::vector<unipair> map;
    } fonts[] = {{0, 0x9EDB, {}},
                 {0, 0x9E07, {{' ', 1}, {0x2588, 7}}},
                 {0, 0x9E09, {{'#', 9}}}, // has none; this is like it
                 {0x100, 0x3C07, {{0x2588, 7}}},
                 {0x100, 0x3D07, {{0x2588, 0x107}}},
                 {0x800, 0x9607, {{0x2588, 7}}},
                 {0x800, 0x9E07, {{0x2588, 0x107}}}};
    for (const auto &font : fonts) {
        fontbit = font.bit;
        fontmap = font.map;
        unsigned char *image = take(25, 80);
        image[0] = 0xDB;
        image[1] = 0x9E;
        plex::vcsashow(false, 0, line);
        EXPECT_EQ(cell(0, 0), font.want) << &font - fonts;
        plex::vcsagive();
    }
    fontbit = 0;
    fontmap = {};
}

// However a program ends: the keyboard, the display's mode and the screen are as they were found.
TEST_F(Vcsa, ComesBackByEveryEnd) {
    void (*const ends[])() = {[] { plex::clstrm(), _exit(0); },
                              [] { exit(0); },
                              [] { quick_exit(0); },
                              [] { plex::catastro("x"); },
                              [] { raise(SIGTERM); },
                              [] { raise(SIGQUIT); },
                              [] { raise(SIGRTMIN); },
                              [] { raise(SIGRTMAX); },
                              [] {
                                  plex::linuxcondrv.setdisplay(slave, 1); // as mapvideo does
                                  raise(SIGHUP);
                              },
                              [] {
                                  test::inchild([] { exit(0); }); // not by another process
                                  machine->keyboard == K_RAW ? exit(0) : _exit(0);
                              }};
    take(25, 80);
    plex::vcsagive();
    termios before = {};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    const test::Home home;
    for (const auto &end : ends) {
        *machine = {};
        const auto outcome = test::inchild([&] {
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            plex::nocore = 1;
            plex::grafbuf = nullptr;
            plex::opntrm(plex::DSP_SYSCON, "test");
            plex::locate(0, 0);
            plex::cursact(0); // parked: it is seen all the same
            plex::unxprntf("x");
            printf("%d %04x", machine->keyboard, cell(0, 0));
            fflush(stdout);
            end();
        });
        termios after = {};
        ASSERT_EQ(tcgetattr(slave, &after), 0);
        EXPECT_EQ(memcmp(&before, &after, sizeof before), 0) << &end - ends;
        EXPECT_EQ(outcome.out + outcome.err, "0 0778") << &end - ends;
        EXPECT_EQ(machine->keyboard, K_XLATE) << &end - ends;
        EXPECT_EQ(machine->display, KD_TEXT) << &end - ends;
        EXPECT_TRUE(all() == found) << &end - ends;
    }
}

} // namespace

// A wait for nothing is not waited for.
extern "C" int select(int, fd_set *, fd_set *, fd_set *, timeval *) {
    return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    const bool ofinput = request == GIO_SCRNMAP || request == PIO_SCRNMAP || request == KDGKBTYPE;
    if (request >> 8 == KDGKBTYPE >> 8 && (request == refused || fd < 0 || (fd == 0) != ofinput)) {
        errno = EPERM;
        return -1;
    }
    const int number = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    switch (request) {
    case KDGKBMODE:
        return *static_cast<int *>(arg) = machine->keyboard, 0;
    case KDSKBMODE:
        return machine->keyboard = number, 0;
    case KDGETMODE:
        return *static_cast<int *>(arg) = machine->display, 0;
    case KDSETMODE:
        return machine->display = number, 0;
    case GIO_SCRNMAP:
        return memcpy(arg, map.data(), map.size()) == nullptr;
    case PIO_SCRNMAP:
        return memcpy(map.data(), arg, map.size()) == nullptr;
    case KDENABIO:
        return held.insert("ports").second ? 0 : 1;
    case KDDISABIO:
        return held.erase("ports") == 1 ? 0 : 1;
    case KDGKBTYPE:
        return 0;
    case VT_GETHIFONTMASK:
        return *static_cast<unsigned short *>(arg) = fontbit, 0;
    case GIO_UNIMAP: {
        auto *pairs = static_cast<unimapdesc *>(arg);
        pairs->entry_ct = static_cast<unsigned short>(fontmap.size());
        std::copy(fontmap.begin(), fontmap.end(), pairs->entries);
        return fontmap.empty() ? -1 : 0;
    }
    default:
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    }
}
