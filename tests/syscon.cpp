// The system console on a terminal of the test's own: the ring, what a program takes of the machine
// and gives back, what is said when it refuses; the cells that the kernel lends, where a file
// stands for the device. What a key stands for: keyboards.cpp. A real machine: e2e/console-pc.

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
unsigned long refused;               // the request that fails, with EPERM
constexpr unsigned long opening = 1; // refused, as a request
constexpr unsigned long again = 2;
constexpr unsigned long mapping = 3;
struct Machine { // the children's too
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
plex::xqEventQueue *queue;
int drained;

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
        plex::vcsagive();
        for (int *const fd : {&master, &slave, &device}) {
            close(std::exchange(*fd, -1));
        }
    }

    // Whatever was typed has been read, and its keys are those.
    static void types(const std::vector<uint8_t> &scans, const std::vector<int> &keys) {
        const int before = drained;
        EXPECT_EQ(write(master, scans.data(), scans.size()), ssize_t(scans.size()));
        EXPECT_TRUE(test::eventually([&] { return drained == before + int(scans.size()); }));
        has(keys);
    }
    static void has(const std::vector<int> &keys) {
        std::vector<int> got;
        while (plex::unxwrepress() != 0) {
            got.push_back(plex::unxwreread());
        }
        EXPECT_EQ(got, keys);
    }

    // A console of so many cells; text and colours stand there already.
    static unsigned char *take(unsigned short rows, unsigned short columns, size_t missing = 0) {
        found = std::string(4 + size_t{2} * rows * columns - missing, '\0');
        for (size_t i = 0; i < found.size(); i++) {
            found[i] = static_cast<char>(i * 7 + i / 256);
        }
        width = columns;
        const winsize size = {rows, columns, 0, 0};
        EXPECT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
        close(device);
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

TEST_F(Syscon, TheRingAndTheQueue) {
    ASSERT_EQ(plex::unxwreopen(), 0);
    types(std::vector<uint8_t>(64, 0x1E), std::vector<int>(64, 'a')); // more than the queue holds
    std::vector<uint8_t> scans(1100, 0x2E); // the 1023rd is b, then c: the ring holds no more
    std::fill_n(scans.begin(), 1022, 0x1E);
    scans[1022] = 0x30;
    std::vector<int> want(1023, 'a');
    want.back() = 'b';
    types(scans, want);
    // Indices that lead out of the queue: nothing is taken from there, and the next key comes.
    const int32_t wild[][3] = {{-1, 3, 64}, {64, 0, 64}, {5, INT32_MIN, 64}, {0, 100, 4096}};
    for (const auto &[head, tail, size] : wild) {
        SCOPED_TRACE(testing::PrintToString(std::vector{head, tail, size}));
        std::fill_n(queue->xq_events, 64, plex::xqEvent{plex::XQ_KEY, 0x1E, 0, 0, 0});
        queue->xq_head = head;
        queue->xq_tail = tail;
        queue->xq_size = size;
        raise(SIGUSR2);
        EXPECT_EQ(queue->xq_head, queue->xq_tail);
        queue->xq_head = queue->xq_tail = 0;
        queue->xq_size = 64;
        types({0x30}, {'b'});
    }
}

// The image is the video memory, the cursor the controller's: its place in 14 and 15, its first and
// last line in 10 and 11. How it moves: screen/21cursor.t.
TEST_F(Syscon, ScreenAndCursorAreTheMachines) {
    const plex::condrv &drv = plex::linuxcondrv;
    ASSERT_EQ(plex::unxwreopen(), 0);
    EXPECT_EQ(plex::frzseg(), video.data());
    plex::wrcurp(0x184F);
    EXPECT_EQ(plex::rdcurp(), 0x184F);
    drv.portwrite(plex::crtindex, 15); // somebody else moved it
    drv.portwrite(plex::crtdata, 0x10);
    EXPECT_EQ(plex::rdcurp(), 22 * 256 + 48);
    plex::cursiz(2);
    plex::unxwreclose();
    for (const int index : {10, 11, 255}) { // there is no such register
        drv.portwrite(plex::crtindex, static_cast<uint8_t>(index));
        EXPECT_EQ(drv.portread(plex::crtdata), index == 10 ? 13 : index == 11 ? 14 : 0);
    }
    EXPECT_EQ(drv.portread(plex::crtindex), 31);
    EXPECT_EQ(std::count(video.begin(), video.end(), 0), plex::imagebytes);
}

TEST_F(Syscon, WhatIsNoConsole) {
    const plex::condrv &drv = plex::linuxcondrv;
    const auto queueing = [&](int fd, int slots) {
        plex::kd_quemode mode = {slots, SIGUSR2, nullptr};
        return drv.quemode(fd, &mode) == -1 && mode.qaddr == nullptr ? errno : 0;
    };
    EXPECT_EQ(queueing(slave, 65) + queueing(slave, 1), 2 * EINVAL);
    EXPECT_EQ(queueing(-1, 64), EPERM);
    EXPECT_EQ(drv.getscrnmap(-1, map.data()) + drv.isconsole(-1) + drv.setkbmode(-1, 0), -3);
    machine->display = KD_GRAPHICS; // a graphical session's
    EXPECT_EQ(queueing(slave, 64), EBUSY);
    EXPECT_EQ(drv.drain(), 0);
}

constexpr auto line = plex::vcsacursor::line;

// Of each screen the size, where ours stands, its font; there a full block in the attribute 0x9E,
// and the blanks around it.
TEST_F(Syscon, StandsInTheMiddleInTheirFont) {
    const struct {
        unsigned short rows, columns;
        int top, left;
        unsigned short bit;
        std::vector<unipair> map;
        unsigned block, blank;
    } screens[] = {
        {25, 80, 0, 0, 0, {{' ', 1}, {0x2302, 7}, {0x2588, 7}}, 0x9E07, 0x0701},
        {48, 128, 11, 24, 0, {{'#', 9}, {'^', 9}}, 0x9E09, 0x0720}, // has none; these are like it
        {26, 81, 0, 0, 0x100, {{0x2588, 7}}, 0x3C07, 0x0E20},
        {135, 480, 55, 176, 0x100, {{0x2588, 0x107}}, 0x3D07, 0x0E20},
        {49, 132, 12, 26, 0x800, {{0x2588, 7}}, 0x9607, 0x0720},
        {50, 80, 12, 0, 0x800, {{0x2588, 0x107}}, 0x9E07, 0x0720},
        {25, 132, 0, 26, 0, {}, 0x9EDB, 0x0720},
    };
    for (const auto &s : screens) {
        SCOPED_TRACE(&s - screens);
        fontbit = s.bit;
        fontmap = s.map;
        unsigned char *image = take(s.rows, s.columns);
        ASSERT_NE(image, nullptr);
        for (size_t i = 0; i < plex::cellbytes; i++) {
            image[i] = i % 2 == 0 ? 0xDB : 0x9E;
        }
        image[0] = s.map.size() > 1 ? 0x7F : 0xDB;
        plex::vcsashow(false, 24 * 80 + 79, line);
        for (int row = 0; row < s.rows; row++) {
            for (int column = 0; column < s.columns; column++) {
                const bool ours =
                    row >= s.top && row < s.top + 25 && column >= s.left && column < s.left + 80;
                ASSERT_EQ(cell(row, column), ours ? s.block : s.blank) << row << " " << column;
            }
        }
        EXPECT_EQ(static_cast<unsigned char>(all()[2]), s.left + 79);
        EXPECT_EQ(all()[3], s.top + 24);
        plex::vcsagive();
        EXPECT_TRUE(all() == found);
    }
    EXPECT_EQ(take(48, 128, 2), nullptr); // smaller than the terminal says
}

TEST_F(Syscon, WritesWhatChanged) {
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

// However a program ends, also when it is refused something: the machine, its keyboard and its
// screen are as they were found. What it has not given back by then it tells.
TEST_F(Syscon, ComesBackByEveryEnd) {
    const std::string noopen = "Display open failed. Exiting.\n|1";
    const std::string noqueue = "console |Cannot set KDQUEMODE" + noopen; // its end closes it
    const std::string nomap = "|Unable to get current screen mapping table\n|255";
    constexpr auto close = [] {
        plex::clstrm();
        const int fd = dup(0); // it may get the console's number
        exit(plex::unxwretrm.trmcls() == 1 && fcntl(fd, F_GETFD) == 0 ? 0 : 9);
    };
    const struct {
        unsigned long refused;
        void (*end)();
        std::string told;
    } rows[] = {
        {opening, close, "|Unable to open /dev/console\n" + noopen},
        {again, close, "|Unable to open /dev/console\n|255"}, // for the screen
        {KDGKBMODE, close, noqueue},
        {KDSKBMODE, close, noqueue},
        {KDENABIO, close, "console |Unable to take control of I/O\n" + noopen},
        {GIO_SCRNMAP, close, nomap},
        {KDGKBTYPE, close, nomap},
        {mapping, close, "|Unable to get base position in video memory\n|255"},
        {KDDISABIO, close,
         "0778 ports |unxwrecons: KDDISABIO failed. Operation not permitted.\n|0"},
        {0, close, "0778 ||0"},
        {0, [] { plex::clstrm(), _exit(0); }, "0778 ||0"},
        {0, [] { exit(0); }, "0778 console map ports ||0"},
        {0, [] { quick_exit(0); }, "0778 ||0"},
        {0, [] { plex::catastro("x"); }, "0778 ||90"},
        {0, [] { raise(SIGTERM); }, "0778 ||143"},
        {0, [] { raise(SIGQUIT); }, "0778 ||131"},
        {0, [] { raise(SIGRTMIN); }, "0778 ||162"},
        {0, [] { raise(SIGRTMAX); }, "0778 ||192"},
        // Another process gives nothing back.
        {0, [] { test::inchild([] { exit(0); }), quick_exit(machine->keyboard == K_RAW ? 0 : 9); },
         "0778 ||0"},
    };
    take(25, 80);
    plex::vcsagive();
    termios before = {};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    const test::Home home;
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        *machine = {};
        EXPECT_EQ(test::told([&] {
                      const rlimit none = {0, 0};
                      setrlimit(RLIMIT_CORE, &none);
                      plex::nocore = 1;
                      refused = r.refused;
                      map[5] = 99;
                      atexit([] {
                          map[5] != 99 ? held.insert("map").second : false;
                          for (const std::string &name : held) {
                              printf("%s ", name.c_str());
                          }
                      });
                      plex::grafbuf = nullptr;
                      plex::opntrm(plex::DSP_SYSCON, "test");
                      plex::locate(0, 0);
                      plex::cursact(0); // parked: it is seen all the same
                      plex::unxprntf("x");
                      printf("%04x ", cell(0, 0));
                      fflush(stdout);
                      map[5] = 1;
                      plex::linuxcondrv.setdisplay(slave, 1); // as mapvideo does for a moment
                      r.end();
                  }),
                  r.told);
        termios after = {};
        ASSERT_EQ(tcgetattr(slave, &after), 0);
        EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
        EXPECT_EQ(machine->keyboard, K_XLATE);
        EXPECT_EQ(machine->display, KD_TEXT);
        EXPECT_TRUE(all() == found);
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
    const bool ofkeys = request == KDGKBMODE || request == KDSKBMODE;
    int &mode = ofkeys ? machine->keyboard : machine->display;
    switch (request) {
    case KDGKBMODE:
    case KDGETMODE:
        return *static_cast<int *>(arg) = mode, 0;
    case KDSKBMODE:
    case KDSETMODE:
        return mode = static_cast<int>(reinterpret_cast<intptr_t>(arg)), 0;
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
