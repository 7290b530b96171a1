// The system console: keys from scan codes, the ring, the requests made of the driver and what is
// said when it refuses.

#include "libsrc/plex.h"
#include "tests/memcondrv.h"
#include "tests/support.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <pthread.h>
#include <pty.h>
#include <thread>
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

// The tables against the keyboard's own regularities: letters and their control characters, scan
// codes in the high byte, the runs of function keys.
TEST(Keys, TablesAreThoseOfAKeyboard) {
    std::array<std::array<uint32_t, 4>, plex::scancodes> want = {}; // the others stand for nothing
    const auto run = [&](uint32_t scan, const char *normal, const char *shift) {
        for (; *normal != '\0'; scan++, normal++, shift++) {
            const auto n = static_cast<uint32_t>(*normal);
            const bool letter = n >= 'a' && n <= 'z';
            want[scan] = {n, static_cast<uint32_t>(*shift), letter ? n - 'a' + 1 : n,
                          letter ? scan << 8 : n};
        }
    };
    run(0x01, "\0331234567890-=\b\t", "\033!@#$%^&*()_+\b");
    run(0x10, "qwertyuiop[]\r", "QWERTYUIOP{}\r");
    run(0x1E, "asdfghjkl;'`", "ASDFGHJKL:\"~");
    run(0x2B, "\\zxcvbnm,./", "|ZXCVBNM<>?");
    run(0x39, " ", " ");
    want[0x0F][1] = 0x0F00;
    for (uint32_t i = 0; i < 10; i++) {
        want[0x02 + i][3] = (0x78 + i) << 8;
        want[0x3B + i] = {(0x3B + i) << 8, (0x54 + i) << 8, (0x5E + i) << 8, (0x68 + i) << 8};
    }
    const uint32_t pad[][3] = {// scan, with Ctrl, digit
                               {0x47, 0x77, 7}, {0x48, 0x8D, 8}, {0x49, 0x84, 9},
                               {0x4B, 0x73, 4}, {0x4D, 0x74, 6}, {0x4F, 0x75, 1},
                               {0x50, 0x91, 2}, {0x51, 0x76, 3}, {0x52, 0x52, 0}};
    for (const auto &key : pad) {
        want[key[0]] = {key[0] << 8, key[0] << 8, key[1] << 8, 0x200 + key[2]};
    }
    want[0x4C][3] = 0x205;
    want[0x53] = {0x5300, 0x5300, 0x5300, 0x5300};
    want[0x2A] = want[0x36] = {0x600, 0, 0, 0};
    want[0x1D] = {0x700, 0, 0, 0};
    want[0x38] = {0x800, 0, 0x800, 0};
    for (size_t scan = 0; scan < plex::scancodes; scan++) {
        const std::array<uint32_t, 4> row = {plex::nmltbl[scan], plex::sfhtbl[scan],
                                             plex::ctltbl[scan], plex::alttbl[scan]};
        EXPECT_EQ(row, want[scan]) << std::hex << scan;
    }
}

TEST_F(Syscon, Sequences) {
    // Each row ends with all keys up; the last column is `lastscan` (0: entered by digits).
    const struct {
        const char *what;
        std::vector<int> scans, keys;
        int lastscan;
    } rows[] = {
        {"shift", {0x2A, 0x1E, 0x9E, 0xAA, 0x1E, 0x9E}, {'A', 'a'}, 1},
        {"ctrl", {0x1D, 0x2E, 0xAE, 0x9D, 0x2E}, {3, 'c'}, 1},
        {"right ctrl", {0xE0, 0x1D, 0x2E, 0xE0, 0x9D}, {3}, 1},
        {"alt", {0x38, 0x1E, 0x9E, 0xB8, 0x1E}, {0x1E00, 'a'}, 1},
        {"arrow with its prefix", {0xE0, 0x48, 0xE0, 0xC8}, {0x4800}, 1},
        {"entry of two digits", {0x38, 0x4F, 0xCF, 0x47, 0xC7, 0xB8}, {17}, 0},
        {"a fourth digit is dropped", {0x38, 0x50, 0x51, 0x51, 0x4F, 0xB8}, {233}, 0},
        {"255 is the last", {0x38, 0x50, 0x4C, 0x4C, 0xB8}, {255}, 0},
        {"256 is too many", {0x38, 0x50, 0x4C, 0x4D, 0xB8}, {}, 1},
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

// Keys arrive while the program reads: another thread signals without pause, at any moment, and the
// handler takes a few keys each time, as many as the ring can hold. Each arrives once and in order.
TEST_F(Syscon, NoKeyIsLostOrDoubledWhileReading) {
    constexpr int total = 100000;
    const auto scan = [](int i) { return 0x10 + i * 7 % 10; };
    volatile int sent = 0;
    volatile int received = 0;
    int signals = 0;
    int burst = 0;
    console.typing = [&] {
        signals++;
        const int room = std::min(total - sent, 1023 - (sent - received));
        // A handler runs until the keyboard has no more.
        const int want = burst > 0 ? 0 : std::min(room, 1 + signals % 60);
        for (burst = 0; burst < want; burst++) {
            console.put(scan(sent));
            sent = sent + 1;
        }
        return burst;
    };
    std::atomic<bool> done = false;
    std::thread keyboard([&done, reader = pthread_self()] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        while (!done) {
            pthread_kill(reader, SIGUSR2);
        }
    });
    int wrong = 0;
    for (int i = 0; i < total; i++) {
        wrong += plex::unxwreread() != "qwertyuiop"[scan(i) - 0x10] ? 1 : 0;
        received = i + 1;
    }
    done = true;
    keyboard.join();
    console.typing = nullptr;
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(plex::unxwrepress(), 0);
}

TEST(Console, OpensAndPutsBack) {
    test::plugin();
    plex::dsptyp = plex::DSP_SYSCON;
    console.map[5] = 99;
    EXPECT_EQ(plex::unxwretrm.trmopn(), 0);
    EXPECT_EQ(console.queue.xq_sigenable, 1);
    EXPECT_EQ(plex::getcfnt(), 1);
    console.map[5] = 1;
    for (int times = 0; times < 2; times++) { // then the descriptor may be another file's
        EXPECT_EQ(plex::unxwretrm.trmcls(), 1);
    }
    EXPECT_EQ(console.requests, "conopen queoff quemode ioports getscrnmap isconsole "
                                "setscrnmap text kbmode iooff conclose ");
    EXPECT_EQ(console.map[5], 99);
    EXPECT_EQ(plex::kbdfd, 77);
    console.type({0x1E}); // a signal that was under way
    EXPECT_EQ(plex::unxwretrm.trminp(), 'a');
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

TEST(Console, RefusalsAreSaid) {
    const std::string noopen = "Display open failed. Exiting.\n";
    const std::string nomap = "Unable to get current screen mapping table\n";
    // Requested up to `last`; what was open is put back.
    const std::string all = "conopen queoff quemode ioports conopen getscrnmap isconsole mapvideo ";
    const struct {
        std::string refused, said, last;
        int code;
    } rows[] = {
        {"conopen", "Unable to open /dev/console\n" + noopen, "conopen ", 1},
        {"quemode", "Cannot set KDQUEMODE" + noopen, "quemode ", 1},
        {"ioports", "Unable to take control of I/O\n" + noopen, "ioports ", 1},
        {"getscrnmap", nomap, "getscrnmap ", 255},
        {"isconsole", nomap, "isconsole ", 255},
        {"mapvideo", "Unable to get base position in video memory\n", "mapvideo ", 255},
        {"iooff", "unxwrecons: KDDISABIO failed. Operation not permitted.\n", "mapvideo ", 0},
        {"queoff", "", "mapvideo ", 0},
    };
    for (const auto &r : rows) {
        const test::Outcome end = test::inchild([&r] {
            test::plugin();
            console.refused = r.refused;
            atexit([] { printf("%s", console.requests.c_str()); });
            plex::grafbuf = nullptr;
            plex::opntrm(plex::DSP_SYSCON, "test");
            plex::frzseg();
            plex::clstrm();
            exit(0);
        });
        const bool open = r.code != 1;
        const std::string closing = r.last == "getscrnmap " ? "" : "setscrnmap ";
        const std::string want = all.substr(0, all.find(r.last) + r.last.size());
        EXPECT_EQ(end.err, r.said) << r.refused;
        EXPECT_EQ(end.out, want + (open ? closing + "text kbmode iooff conclose " : ""))
            << r.refused;
        EXPECT_EQ(end.code(), r.code) << r.refused;
    }
}

// The Linux driver where there is no console: refused, the registers remember, nothing faults.
TEST(LinuxDriver, WithoutAConsole) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    const plex::condrv &drv = plex::linuxcondrv;
    for (const int fd : {slave, -1}) {
        for (const int slots : {64, 65, 1, 0, -1}) {
            plex::kd_quemode mode = {slots, SIGUSR2, nullptr};
            EXPECT_EQ(drv.quemode(fd, &mode), -1);
            EXPECT_EQ(mode.qaddr, nullptr);
        }
        std::array<unsigned char, plex::scrnmapsize> map = {};
        EXPECT_EQ(drv.getscrnmap(fd, map.data()), -1);
        EXPECT_EQ(drv.isconsole(fd), -1);
        EXPECT_EQ(drv.ioports(fd, 1), -1);
        EXPECT_EQ(drv.setkbmode(fd, 0), -1);
    }
    EXPECT_EQ(drv.drain(), 0);
    const int writes[][2] = {{plex::crtindex, 14},
                             {plex::crtdata, 7},
                             {plex::crtindex, 255},
                             {plex::crtdata, 9},
                             {plex::crtindex, 14}};
    for (const auto &w : writes) {
        drv.portwrite(static_cast<uint16_t>(w[0]), static_cast<uint8_t>(w[1]));
    }
    EXPECT_EQ(drv.portread(plex::crtdata), 7);
    close(master);
    close(slave);
}

} // namespace
