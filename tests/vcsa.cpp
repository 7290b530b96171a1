// The system console where the kernel lends its cells. A file stands for the device, a
// pseudo-terminal for the console; what is asked of that is answered here.

#include "libunix/console/vcsa.h"

#include "libsrc/plex.h"
#include "libunix/console/condrv.h"
#include "tests/support.h"

#include <csignal>
#include <cstdarg>
#include <cstring>
#include <linux/kd.h>
#include <linux/vt.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Console {
    int keyboard = K_XLATE;
    int display = KD_TEXT;
};
auto *const console =
    new (mmap(nullptr, sizeof(Console), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        Console;
unsigned short fontbit;
std::vector<unipair> fontmap;

class Vcsa : public ::testing::Test {
protected:
    ~Vcsa() override {
        plex::vcsagive();
        close(device);
        close(master);
        close(slave);
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

    static inline int device = -1;
    static inline int master = -1;
    static inline int slave = -1;
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
    static const plex::condrv driver = [] {
        plex::condrv drv = plex::linuxcondrv;
        drv.conopen = [] { return dup(slave); };
        drv.ioports = [](int32_t, int32_t) { return 0; };
        drv.getscrnmap = [](int32_t, unsigned char *) { return 0; };
        drv.setscrnmap = [](int32_t, const unsigned char *) { return 0; };
        drv.isconsole = [](int32_t) { return 0; };
        drv.mapvideo = [](int32_t fd) { return plex::vcsatake(dup(device), fd); };
        return drv;
    }();
    const auto shown = [] {
        EXPECT_EQ(console->keyboard, K_RAW);
        EXPECT_EQ(cell(0, 0), 0x0778U);
    };
    void (*const ends[])() = {[] { plex::clstrm(), _exit(0); },
                              [] { exit(0); },
                              [] { quick_exit(0); },
                              [] { raise(SIGTERM); },
                              [] { raise(SIGRTMIN); },
                              [] { raise(SIGRTMAX); },
                              [] {
                                  plex::linuxcondrv.setdisplay(slave, 1); // as mapvideo does
                                  raise(SIGHUP);
                              }};
    take(25, 80);
    plex::vcsagive();
    const test::Home home;
    for (const auto &end : ends) {
        *console = {};
        const test::Outcome outcome = test::inchild([&] {
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            plex::condriver = &driver;
            plex::grafbuf = nullptr;
            plex::opntrm(plex::DSP_SYSCON, "test");
            plex::cursact(0); // parked: it is seen all the same
            plex::unxprntf("x");
            shown();
            end();
        });
        EXPECT_EQ(outcome.out + outcome.err, "") << &end - ends;
        EXPECT_EQ(console->keyboard, K_XLATE) << &end - ends;
        EXPECT_EQ(console->display, KD_TEXT) << &end - ends;
        EXPECT_TRUE(all() == found) << &end - ends;
    }
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    const int number = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    switch (request) {
    case KDGKBMODE:
        return *static_cast<int *>(arg) = console->keyboard, 0;
    case KDSKBMODE:
        return console->keyboard = number, 0;
    case KDGETMODE:
        return *static_cast<int *>(arg) = console->display, 0;
    case KDSETMODE:
        return console->display = number, 0;
    case VT_GETHIFONTMASK:
        return *static_cast<unsigned short *>(arg) = fontbit, 0;
    case GIO_UNIMAP: {
        auto *map = static_cast<unimapdesc *>(arg);
        map->entry_ct = static_cast<unsigned short>(fontmap.size());
        std::copy(fontmap.begin(), fontmap.end(), map->entries);
        return fontmap.empty() ? -1 : 0;
    }
    default:
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    }
}
