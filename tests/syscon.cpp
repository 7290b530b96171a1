// The system console on a terminal of the test's own, and on a file for the cells that the kernel
// lends. What a key stands for: keyboards.cpp. A real machine: e2e/console-pc.

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
#include <poll.h>
#include <pty.h>
#include <set>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace {

// The machine: a terminal gives scan codes, ioctl below answers for the console.
int master = -1;
int slave = -1;
enum : unsigned long { opening = 1, again, mapping, graphical };
unsigned long refused; // one of these, or the request that fails with EPERM
struct Machine {       // the children's too
    int keyboard, display;
} &machine = *static_cast<Machine *>(
    mmap(nullptr, sizeof(Machine), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
unsigned short fontbit;
std::vector<unipair> fontmap;
int device = -1; // of the cells
std::array<unsigned char, plex::scrnmapsize> map;
std::set<std::string> held; // what a program has taken and not given back
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
    drv.drain = [] {
        const int32_t came = plex::linuxcondrv.drain();
        drained += came;
        return came;
    };
    drv.ioports = [](int32_t fd, int32_t on) { // the real ones would be written to
        return ioctl(fd, on != 0 ? KDENABIO : KDDISABIO, 0);
    };
    drv.mapvideo = [](int32_t fd) {
        return refused == mapping ? nullptr : plex::vcsatake(dup(device), fd);
    };
    return drv;
}();

class Syscon : public ::testing::Test {
protected:
    Syscon() {
        machine = {K_XLATE, KD_TEXT};
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        plex::condriver = &terminaldrv;
        plex::dsptyp = plex::DSP_SYSCON;
    }
    ~Syscon() override {
        plex::unxwreclose();
        plex::vcsagive();
        close(master), close(slave), close(std::exchange(device, -1));
    }

    // A console of so many cells; text and colours stand there already.
    static unsigned char *take(unsigned short rows, unsigned short columns, size_t missing = 0) {
        found = std::string(4 + size_t{2} * rows * columns - missing, '\0');
        for (size_t i = 0; i < found.size(); i++) {
            found[i] = static_cast<char>(i * 7 + i / 256);
        }
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

    static inline std::string found;
};

TEST_F(Syscon, TheRingHoldsNoMore) {
    ASSERT_EQ(plex::unxwreopen(), 0);
    // The keys behind the last that it holds are c.
    const std::string scans = std::string(1022, '\x1E') + '\x30' + std::string(77, '\x2E');
    for (int all = 1100; all <= 2200; all += 1100) {
        EXPECT_EQ(write(master, scans.data(), scans.size()), 1100);
        EXPECT_TRUE(test::eventually([&] { return drained == all; })) << drained;
        std::string keys;
        while (plex::unxwrepress() != 0) {
            keys += static_cast<char>(plex::unxwreread());
        }
        EXPECT_EQ(keys, std::string(1022, 'a') + 'b');
    }
}

// Of each screen the size, where ours stands, its font; there a full block in the attribute 0x9E,
// and the blanks around it.
TEST_F(Syscon, StandsInTheMiddleInTheirFont) {
    const struct {
        unsigned short rows, columns;
        int top, left;
        unsigned short bit;
        std::vector<unipair> map;
        uint16_t block, blank;
    } screens[] = {
        {25, 80, 0, 0, 0, {{' ', 1}, {0x2302, 7}, {0x2588, 7}}, 0x9E07, 0x0701},
        {48, 128, 11, 24, 0, {{'#', 9}, {'^', 9}}, 0x9E09, 0x0720}, // has none; these are like it
        {135, 480, 55, 176, 0x100, {{0x2588, 0x107}}, 0x3D07, 0x0E20},
        {49, 132, 12, 26, 0x800, {{0x2588, 7}}, 0x9607, 0x0720},
        {25, 132, 0, 26, 0, {}, 0x9EDB, 0x0720},
    };
    for (const auto &s : screens) {
        SCOPED_TRACE(&s - screens);
        fontbit = s.bit;
        fontmap = s.map;
        unsigned char *image = take(s.rows, s.columns);
        ASSERT_NE(image, nullptr);
        EXPECT_TRUE(&s == screens || image[2] == 0xDB) << "what was shown before is gone";
        for (size_t i = 0; i < plex::cellbytes; i++) {
            image[i] = i % 2 == 0 ? 0xDB : 0x9E;
        }
        image[0] = s.map.size() > 1 ? 0x7F : 0xDB;
        plex::vcsashow(false, 24 * 80 + 79, plex::vcsacursor::line);
        std::string want = found;
        want[2] = static_cast<char>(s.left + 79);
        want[3] = static_cast<char>(s.top + 24);
        for (int i = 0; i < s.rows * s.columns; i++) {
            const int row = i / s.columns - s.top;
            const int column = i % s.columns - s.left;
            const bool ours = row >= 0 && row < 25 && column >= 0 && column < 80;
            memcpy(&want[4 + 2 * size_t(i)], ours ? &s.block : &s.blank, 2);
        }
        const std::string now = all();
        const auto wrong = std::mismatch(want.begin(), want.end(), now.begin(), now.end()).first;
        EXPECT_TRUE(now == want) << "at " << wrong - want.begin();
        plex::vcsagive();
        EXPECT_TRUE(all() == found);
    }
    EXPECT_EQ(take(48, 128, 2), nullptr); // smaller than the terminal says
}

TEST_F(Syscon, WritesWhatChanged) {
    unsigned char *image = take(25, 80);
    std::string_view("aabbccddee").copy(reinterpret_cast<char *>(image), 10);
    plex::vcsashow(true, 0, plex::vcsacursor::line);
    ASSERT_EQ(pwrite(device, "......", 6, 4), 6); // the kernel's own words
    image[6] = image[7] = 'x';
    plex::vcsashow(false, 5000, plex::vcsacursor::block);
    EXPECT_EQ(all().substr(2, 12), std::string("\x28\x18......xxee"));
    plex::vcsashow(true, 0, plex::vcsacursor::none);
    EXPECT_EQ(all().substr(2, 12), std::string("\0\0aabbccxxee", 12));
    plex::vcsagive();
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
        {graphical, close, noqueue},
        {KDSKBMODE, close, noqueue},
        {KDENABIO, close, "console |Unable to take control of I/O\n" + noopen},
        {KDGKBTYPE, close, nomap},
        {mapping, close, "|Unable to get base position in video memory\n|255"},
        {KDDISABIO, close,
         "0778 ports |unxwrecons: KDDISABIO failed. Operation not permitted.\n|0"},
        {0, close, "0778 ||0"},
        {0, [] { plex::clstrm(), _exit(0); }, "0778 ||0"},
        {0, [] { exit(0); }, "0778 console map ports ||0"},
        {0, [] { quick_exit(0); }, "0778 ||0"},
        {0, [] { raise(SIGTERM); }, "0778 ||143"},
        {0, [] { raise(SIGRTMAX); }, "0778 ||192"},
        // Another process gives nothing back.
        {0, [] { test::inchild([] { exit(0); }), quick_exit(machine.keyboard == K_RAW ? 0 : 9); },
         "0778 ||0"},
    };
    take(25, 80);
    plex::vcsagive();
    termios before = {};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    const test::Home home;
    for (const auto &r : rows) {
        SCOPED_TRACE(&r - rows);
        EXPECT_EQ(test::told([&] {
                      refused = r.refused;
                      map[5] = 99;
                      atexit([] {
                          pollfd typed = {slave, POLLIN, 0}; // it is for who comes next
                          const auto there = [&] { return poll(&typed, 1, test::patience) != 0; };
                          if (machine.keyboard == K_XLATE && write(master, "x\n", 2) == 2 &&
                              !(there() && plex::linuxcondrv.drain() == 0 && there())) {
                              held.insert("typed");
                          }
                          if (map[5] != 99) {
                              held.insert("map");
                          }
                          for (const std::string &name : held) {
                              printf("%s ", name.c_str());
                          }
                      });
                      plex::grafbuf = nullptr;
                      plex::opntrm(plex::DSP_SYSCON, "test");
                      plex::locate(0, 0);
                      plex::cursact(0); // parked: it is seen all the same
                      plex::unxprntf("x");
                      printf("%02hhx%02hhx ", all()[5], all()[4]);
                      fflush(stdout);
                      map[5] = 1;
                      plex::linuxcondrv.setdisplay(slave, 1); // as mapvideo does for a moment
                      r.end();
                  }),
                  r.told);
        termios after = {};
        ASSERT_EQ(tcgetattr(slave, &after), 0);
        EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
        EXPECT_EQ(machine.keyboard, K_XLATE);
        EXPECT_EQ(machine.display, KD_TEXT);
        EXPECT_TRUE(all() == found);
    }
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    const bool ofinput = request == GIO_SCRNMAP || request == PIO_SCRNMAP || request == KDGKBTYPE;
    if (request >> 8 == KDGKBTYPE >> 8 && (request == refused || (fd == 0) != ofinput)) {
        errno = EPERM;
        return -1;
    }
    int &mode = request == KDGKBMODE || request == KDSKBMODE ? machine.keyboard : machine.display;
    switch (request) {
    case KDGKBMODE:
    case KDGETMODE:
        return *static_cast<int *>(arg) = refused == graphical ? KD_GRAPHICS : mode, 0;
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
