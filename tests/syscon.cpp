// The system console: sequences of scan codes, the ring, what the driver lends and gets back, and
// what is said when it refuses; the driver for Linux on a terminal without a screen. What a key
// stands for: keyboards.cpp.

#include "libsrc/plex.h"
#include "tests/memcondrv.h"
#include "tests/support.h"

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <linux/kd.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace {

using test::console;

// A console in memory, open, with the translator in its first state and no key waiting.
class Syscon : public ::testing::Test {
protected:
    Syscon() {
        test::plugin();
        plex::dsptyp = plex::DSP_SYSCON;
        EXPECT_EQ(plex::unxwreopen(), 0);
        console.type({0x38, 0xB8, 0xAA});
        keys();
    }
    ~Syscon() override { plex::unxwreclose(); }

    static std::vector<int> keys() {
        std::vector<int> got;
        while (plex::unxwrepress() != 0) {
            got.push_back(plex::unxwreread());
        }
        return got;
    }
};

TEST_F(Syscon, Sequences) {
    // Each row ends with all keys up; the last column is `lastscan` (0: entered by digits).
    const struct {
        const char *what;
        std::vector<int> scans, keys;
        int lastscan;
    } rows[] = {
        {"right shift", {0x36, 0x1E, 0x9E, 0xB6, 0x1E, 0x9E}, {'A', 'a'}, 1},
        {"right ctrl", {0xE0, 0x1D, 0x2E, 0xE0, 0x9D}, {3}, 1},
        {"arrow with its prefix", {0xE0, 0x48, 0xE0, 0xC8}, {0x4800}, 1},
        {"entry of two digits", {0x38, 0x4F, 0xCF, 0x47, 0xC7, 0xB8}, {17}, 0},
        {"a fourth digit is dropped", {0x38, 0x50, 0x51, 0x51, 0x4F, 0xB8}, {233}, 0},
        {"255 is the last", {0x38, 0x50, 0x4C, 0x4C, 0xB8}, {255}, 0},
        {"256 is too many", {0x38, 0x50, 0xB8, 0x38, 0x50, 0x4C, 0x4D, 0xB8}, {2}, 1},
        {"leading zeros", {0x38, 0x52, 0x52, 0x47, 0xB8}, {7}, 0},
        {"a key between digits", {0x38, 0x4F, 0x1E, 0x47, 0xB8}, {0x1E00, 17}, 0},
        {"zero delivers nothing", {0x38, 0x52, 0xB8}, {}, 0},
        {"the digits are gone", {0x38, 0x4F, 0xB8, 0x38, 0x50, 0xB8}, {1, 2}, 0},
        {"ctrl, then alt", {0x1D, 0x38, 0x2E, 0xB8, 0x2E, 0x9D}, {0x2E00, 'c'}, 1},
        {"alt, then ctrl", {0x38, 0x1D, 0x2E, 0x9D, 0x2E, 0xB8}, {0x2E00, 0x2E00}, 1},
        {"shift, then ctrl", {0x2A, 0x1D, 0x2E, 0x9D, 0x2E, 0xAA}, {'C', 'C'}, 1},
        {"shift's release cuts an entry", {0x38, 0x4F, 0xAA, 0xB8, 0x38, 0x50, 0xB8}, {12}, 0},
        {"beyond the table", {0x57, 0x58, 0x54, 0x7F, 0xFF, 0xE1}, {}, 1},
    };
    for (const auto &r : rows) {
        console.type({0x39}); // lastscan 1 before each
        keys();
        console.type(r.scans);
        EXPECT_EQ(keys(), r.keys) << r.what;
        EXPECT_EQ(plex::lascan(), r.lastscan) << r.what;
    }
}

TEST_F(Syscon, OnlyKeyEventsCount) {
    for (int type = 0; type < 256; type++) {
        console.put(0x1E, static_cast<uint8_t>(type));
        if (type % 50 == 49) { // many in one signal; the queue wraps
            console.queue.xq_sigenable = 0;
            raise(SIGUSR2);
            EXPECT_EQ(console.queue.xq_head, console.queue.xq_tail);
            EXPECT_EQ(console.queue.xq_sigenable, 1);
        }
    }
    EXPECT_EQ(keys(), std::vector<int>{'a'});
}

TEST_F(Syscon, TheRingHolds1023) {
    for (int i = 0; i < 1100; i++) {
        console.type({i == 1022 ? 0x30 : i > 1022 ? 0x2E : 0x1E}); // the 1023rd is b, then only c
    }
    std::vector<int> got = keys();
    ASSERT_EQ(got.size(), 1023U);
    EXPECT_EQ(got.back(), 'b');
    EXPECT_EQ(std::count(got.begin(), got.end(), 'a'), 1022);
}

// Indices that lead out of the queue: nothing is taken from there, and the next key comes.
TEST_F(Syscon, AWildQueueIsEmptied) {
    const int32_t rows[][3] = {{-1, 3, 64},      {0, 64, 64},        {64, 0, 64},
                               {1 << 30, 1, 64}, {5, INT32_MIN, 64}, {0, 3, 0},
                               {0, 3, -64},      {0, 100, 4096},     {0, 3, INT32_MAX}};
    auto &q = console.queue;
    for (const auto &r : rows) {
        std::fill(std::begin(q.xq_events), std::end(q.xq_events),
                  std::decay_t<decltype(q.xq_events[0])>{plex::XQ_KEY, 0x1E, 0, 0, 0});
        q.xq_head = r[0];
        q.xq_tail = r[1];
        q.xq_size = r[2];
        raise(SIGUSR2);
        EXPECT_EQ(q.xq_head, q.xq_tail);
        EXPECT_EQ(keys(), std::vector<int>{}) << r[0] << " " << r[1] << " " << r[2];
        q.xq_head = q.xq_tail = 0;
        q.xq_size = plex::xqslots;
        console.type({0x1E});
        EXPECT_EQ(keys(), std::vector<int>{'a'});
    }
}

// The image is the video memory, the cursor the controller's: its place in 14 and 15, its first and
// last line in 10 and 11.
TEST_F(Syscon, ScreenAndCursorAreTheMachines) {
    using writes = std::vector<std::pair<int, int>>;
    const auto wrote = [](const std::function<void()> &call) {
        console.writes.clear();
        call();
        return console.writes;
    };
    EXPECT_EQ(wrote([] { EXPECT_EQ(plex::frzseg(), console.video.data()); }),
              (writes{{10, 13}, {11, 14}}));
    EXPECT_EQ(wrote([] { plex::cursiz(0); }), (writes{{10, 45}, {11, 14}}));
    EXPECT_EQ(wrote([] { plex::cursiz(2); }), (writes{{10, 2}, {11, 12}}));
    EXPECT_EQ(wrote([] { plex::wrcurp(0x184F); }), (writes{{14, 1999 >> 8}, {15, 1999 & 255}}));
    EXPECT_EQ(plex::rdcurp(), 0x184F);
    console.registers[14] = 3; // somebody else moved it
    console.registers[15] = 0x10;
    EXPECT_EQ(plex::rdcurp(), (784 / 80) << 8 | 784 % 80);
    EXPECT_EQ(wrote([] { plex::unxwreclose(); }), (writes{{10, 13}, {11, 14}}));
    const auto none = [](unsigned char byte) { return byte == 0; };
    EXPECT_TRUE(std::all_of(console.video.begin(), console.video.end(), none));
}

// Whatever is refused: what was taken of the machine is given back, but for what it does not take.
TEST(Console, RefusalsAreSaid) {
    const std::string noopen = "Display open failed. Exiting.\n";
    const std::string nomap = "Unable to get current screen mapping table\n";
    const struct {
        std::string refused, said, held;
        int code;
    } rows[] = {
        {"", "", "", 0},
        {"conopen", "Unable to open /dev/console\n" + noopen, "", 1},
        {"quemode", "Cannot set KDQUEMODE" + noopen, "console ", 1}, // its end gives that back
        {"ioports", "Unable to take control of I/O\n" + noopen, "console keyboard ", 1},
        {"getscrnmap", nomap, "", 255},
        {"isconsole", nomap, "", 255},
        {"mapvideo", "Unable to get base position in video memory\n", "", 255},
        {"iooff", "unxwrecons: KDDISABIO failed. Operation not permitted.\n", "ports ", 0},
        {"queoff", "", "", 0},
    };
    for (const auto &r : rows) {
        const test::Outcome end = test::inchild([&r] {
            test::plugin();
            console.refused = r.refused;
            console.map[5] = 99;
            atexit([] {
                console.held.erase("");
                for (const std::string &name : console.held) {
                    printf("%s ", name.c_str());
                }
                printf("%s", console.map[5] == 99 ? "" : "the map is another");
            });
            plex::grafbuf = nullptr;
            plex::opntrm(plex::DSP_SYSCON, "test");
            plex::frzseg();
            console.map[5] = 1;
            plex::clstrm();
            console.refused =
                "conclose"; // a second close is none: the number may be another file's
            exit(plex::unxwretrm.trmcls() == 1 ? 0 : 9);
        });
        EXPECT_EQ(end.err, r.said) << r.refused;
        EXPECT_EQ(end.out, r.held) << r.refused;
        EXPECT_EQ(end.code(), r.code) << r.refused;
    }
}

// The driver for Linux, on a terminal: its keyboard mode is kept here.
int kbmode = K_XLATE;
int display = KD_TEXT;
int master = -1;
int slave = -1;

const plex::condrv terminaldrv = [] {
    plex::condrv drv = plex::linuxcondrv;
    drv.conopen = [] { return dup(slave); };
    drv.ioports = [](int32_t, int32_t) { return 0; };
    return drv;
}();

class LinuxDriver : public ::testing::Test {
protected:
    LinuxDriver() {
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        plex::condriver = &terminaldrv;
        plex::dsptyp = plex::DSP_SYSCON;
    }
    ~LinuxDriver() override {
        close(master);
        close(slave);
    }
};

TEST_F(LinuxDriver, Bursts) {
    ASSERT_EQ(plex::unxwreopen(), 0);
    EXPECT_EQ(kbmode, K_RAW);
    for (const size_t keys : {1, 32, 400}) { // 64 codes fill the queue
        std::string codes;
        for (size_t i = 0; i < keys; i++) {
            codes += std::string("\x1E\x9E");
        }
        EXPECT_EQ(write(master, codes.data(), codes.size()), ssize_t(codes.size()));
        for (size_t i = 0; i < keys; i++) {
            ASSERT_TRUE(test::eventually([] { return plex::unxwrepress() != 0; })) << i;
            ASSERT_EQ(plex::unxwreread(), 'a');
        }
    }
    EXPECT_EQ(plex::unxwrepress(), 0);
    plex::unxwreclose();
    EXPECT_EQ(kbmode, K_XLATE);
}

// However a program ends, the keyboard is as it was found.
TEST_F(LinuxDriver, IsGivenBackByEveryEnd) {
    static unsigned char image[plex::imagebytes];
    void (*const ends[])() = {[] { exit(0); },
                              [] { plex::catastro("x"); },
                              [] { raise(SIGTERM); },
                              [] { raise(SIGSEGV); },
                              [] { plex::condriver->quemode(0, nullptr), _exit(0); },
                              [] {
                                  test::inchild([] { exit(0); }); // not by another process
                                  kbmode == K_RAW ? exit(0) : _exit(0);
                              }};
    termios before = {};
    ASSERT_EQ(tcgetattr(slave, &before), 0);
    const test::Home home;
    for (const auto &end : ends) {
        const auto outcome = test::inchild([&] {
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            plex::grafbuf = image;
            plex::nocore = 1;
            EXPECT_EQ(plex::unxwreopen(), 0);
            end();
        });
        termios after = {};
        ASSERT_EQ(tcgetattr(slave, &after), 0);
        EXPECT_EQ(memcmp(&before, &after, sizeof before), 0) << &end - ends;
        EXPECT_EQ(outcome.out, "raw found ") << &end - ends;
    }
}

TEST_F(LinuxDriver, Refuses) {
    const plex::condrv &drv = plex::linuxcondrv;
    for (const int fd : {slave, -1}) {
        for (const int slots : {65, 1, 0, -1}) {
            plex::kd_quemode mode = {slots, SIGUSR2, nullptr};
            EXPECT_EQ(drv.quemode(fd, &mode), -1);
            EXPECT_EQ(mode.qaddr, nullptr);
        }
        std::array<unsigned char, plex::scrnmapsize> map = {};
        EXPECT_EQ(drv.getscrnmap(fd, map.data()), -1);
        EXPECT_EQ(drv.isconsole(fd) + drv.ioports(fd, 1) + drv.setkbmode(fd, 0), -3);
    }
    display = KD_GRAPHICS; // a graphical session's
    plex::kd_quemode mode = {64, SIGUSR2, nullptr};
    EXPECT_EQ(drv.quemode(slave, &mode), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(drv.drain(), 0);
    // Without its ports the registers remember.
    const int writes[][2] = {{plex::crtindex, 14},
                             {plex::crtdata, 7},
                             {plex::crtindex, 255},
                             {plex::crtdata, 9},
                             {plex::crtindex, 14}};
    for (const auto &w : writes) {
        drv.portwrite(static_cast<uint16_t>(w[0]), static_cast<uint8_t>(w[1]));
    }
    EXPECT_EQ(drv.portread(plex::crtdata), 7);
    EXPECT_EQ(drv.portread(plex::crtindex), 14);
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
    switch (fd < 0 ? 0 : request) {
    case KDGKBMODE:
        *static_cast<int *>(arg) = kbmode;
        return 0;
    case KDGETMODE:
        *static_cast<int *>(arg) = display;
        return 0;
    case KDSKBMODE:
        kbmode = static_cast<int>(reinterpret_cast<intptr_t>(arg));
        return dprintf(1, kbmode == K_RAW ? "raw " : "found ") < 0;
    default:
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    }
}
