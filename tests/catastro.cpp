// The fatal-error path and its exploding pop-up, in child processes on the null console.

#include "libsrc/catastro/catastro.h"
#include "libsrc/base/text.h"
#include "libsrc/catastro/explode.h"
#include "libsrc/common/color.h"
#include "libsrc/common/memory.h"
#include "libunix/common/tiles.h"
#include "libunix/console/trm.h"
#include "libunix/plumbing/svr4shm.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"
#include "tests/faults/calls.h"
#include "tests/segments.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <vector>

namespace {

std::vector<std::string> frames; // the screen at each short wait
long waited;                     // microseconds asked for
const char *state = "";

std::string screen() {
    return {reinterpret_cast<char *>(plex::frzseg()), plex::cellbytes};
}

} // namespace

// Every wait of the library ends here: none takes time, and each shows a frame.
extern "C" int select(int, fd_set *, fd_set *, fd_set *, timeval *timeout) {
    waited += static_cast<long>(timeout->tv_sec * 1000000 + timeout->tv_usec);
    frames.push_back(screen());
    return 0;
}

// In place of the library's module.
namespace plex {
const char *catfix1() {
    return state;
}
} // namespace plex

namespace {

using test::inchild;
using test::Outcome;
using test::slurp;

// `text` as the cells of an image from row, column on, with attribute `attr`; '#' is any character.
void expectcells(const std::string &image, int row, int col, const std::string &text, int attr) {
    const auto at = static_cast<size_t>(row * plex::scrcols + col) * 2;
    for (size_t i = 0; i < text.size(); i++) {
        const auto c = static_cast<unsigned char>(image.at(at + 2 * i));
        const auto a = static_cast<unsigned char>(image.at(at + 2 * i + 1));
        ASSERT_TRUE(text[i] == '#' || c == static_cast<unsigned char>(text[i]))
            << row << "," << col + static_cast<int>(i) << " holds " << int{c} << " in " << text;
        ASSERT_EQ(a, attr) << row << "," << col + static_cast<int>(i) << " in " << text;
    }
}

struct Catastrophe : testing::Test {
    // Runs `body` on an open null console; what the screen held in the end is in `image`.
    Outcome run(const std::function<void()> &body) {
        const Outcome o = inchild([&] {
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            plex::opntrm(plex::DSP_NULL, "test");
            plex::nocore = 1;
            atexit([] { test::spew("screen", screen()); });
            body();
        });
        image = slurp("screen");
        return o;
    }

    std::string report() { return slurp("CATASTRO.TXT"); }

    test::Home home;
    std::string image;
};

const char *const stamp = "\n\\d\\d-[A-Z]{3}-\\d\\d \\d\\d:\\d\\d:\\d\\d ";

TEST_F(Catastrophe, IsShownLoggedReportedAndEnds) {
    setenv("BBSLOG", "log", 1);
    test::spew("CATASTRO.TXT", "earlier\n");
    const Outcome o = run([] {
        plex::bgnlog("");
        atexit([] {
            test::spew("waited", std::to_string(waited) + " " + std::to_string(frames.size()));
        });
        plex::catastro("Cannot read %s", "x");
    });
    unsetenv("BBSLOG");
    EXPECT_EQ(o.code(), 90);
    EXPECT_EQ(slurp("log"), "Cannot read x\n");
    EXPECT_TRUE(std::regex_match(report(),
                                 std::regex("earlier\n" + std::string(stamp) + "Cannot read x\n")))
        << report();
    EXPECT_EQ(slurp("waited"), "3000170 18"); // 17 frames, and time to read
    const std::string edge(63, '\xDF');
    expectcells(image, 8, 7, "\xDB" + std::string(65, '\xDF') + "\xDB", 0xDE);
    expectcells(image, 9, 7, "\xDB ", 0xDE);
    expectcells(image, 9, 9, "\xDB" + std::string(61, '\xDF') + "\xDB", 0x4E);
    expectcells(image, 15, 9, "\xDB" + std::string(61, '\xDC') + "\xDB", 0x4E);
    expectcells(image, 16, 7, "\xDB" + std::string(65, '\xDC') + "\xDB", 0xDE);
    expectcells(image, 10, 12, "##-###-## ##:##:##", 0x4F);
    expectcells(image, 11, 12, "Cannot read x ", 0x4F);
    expectcells(image, 14, 12, "Unexpected exit, no recovery method supplied...", 0x4F);
    expectcells(image, 17, 9, std::string(65, '\0'), 0); // the shadow
    expectcells(image, 9, 74, std::string(2, '\0'), 0);
}

TEST_F(Catastrophe, LeavesACoreUnlessToldNotTo) {
    const Outcome o = run([] {
        plex::nocore = 0;
        plex::catastro("x");
    });
    EXPECT_EQ(o.code(), 128 + SIGQUIT);
    // And before any method is chosen.
    EXPECT_EQ(inchild([] {
                  plex::nocore = 1;
                  plex::catastro("early");
              }).code(),
              90);
    EXPECT_TRUE(report().ends_with(" early\n")) << report();
}

TEST_F(Catastrophe, TellsTheState) {
    state = "here";
    Outcome o = run([] {
        plex::catrpt = [](const char *name) {
            printf("%s:%02X:%s", name, plex::curatr.attr, slurp(name).substr(0, 1).c_str());
        };
        plex::catastro("x");
    });
    EXPECT_EQ(o.code(), 90);
    EXPECT_EQ(o.out, "CATASTRO.TXT:CF:\n");
    EXPECT_TRUE(report().ends_with(" x\nhere,\n")) << report();
    expectcells(image, 12, 12, "here, ", 0x4F);
    expectcells(image, 13, 12, std::string(36, ' '), 0x4F); // "One moment please..." is wiped
    remove("CATASTRO.TXT");
    o = run([] {
        plex::catrpt = [](const char *) { printf("called"); };
        plex::memcata();
    });
    state = "";
    EXPECT_EQ(o.code(), 90);
    EXPECT_EQ(o.out, "");
    EXPECT_TRUE(std::regex_match(
        report(), std::regex(stamp + std::string("There is not enough memory to continue.\n"))))
        << report();
    expectcells(image, 8, 7, "\xDB", 0x5E); // not blinking
    expectcells(image, 12, 12, "Please either reduce your memory requirements", 0x4F);
    expectcells(image, 14, 12, "Unexpected exit, no recovery method supplied...", 0x4E);
}

TEST_F(Catastrophe, WithinACatastrophe) {
    const Outcome o = run([] {
        plex::catrpt = [](const char *) { plex::catastro("again"); };
        plex::catastro("first");
    });
    EXPECT_EQ(o.code(), 80);
    EXPECT_EQ(report().find("again"), std::string::npos) << report();
    expectcells(image, 11, 12, "first", 0x4F);
    expectcells(image, 13, 21, "\x10\x10\x10 YOU SHOULD REBOOT YOUR COMPUTER \x11\x11\x11", 0x4E);
}

TEST_F(Catastrophe, AwkwardMessages) {
    run([] { plex::catastro("%s%%%%", "100%% %s%n%*d"); });
    EXPECT_TRUE(report().ends_with(" 100% %s%n%*d%\n")) << report();
    expectcells(image, 11, 12, "100% %s%n%*d% ", 0x4F);
    remove("CATASTRO.TXT");
    EXPECT_EQ(run([] { plex::catastro("%s", std::string(5000, 'y').c_str()); }).code(), 90);
    EXPECT_TRUE(report().ends_with(" " + std::string(1023, 'y') + "\n")) << report().size();
    remove("CATASTRO.TXT");
    mkdir("CATASTRO.TXT", 0700); // a report that cannot be opened
    EXPECT_EQ(run([] { plex::catastro("x"); }).code(), 90);
    expectcells(image, 12, 12, "(Can't open CATASTRO.TXT)", 0x4F);
    expectcells(image, 13, 12, "(Can't re-open CATASTRO.TXT)", 0x4F);
}

TEST_F(Catastrophe, OtherWaysIn) {
    Outcome o = run([] {
        plex::color = 0;
        plex::cataexit();
    });
    EXPECT_EQ(o.code(), 90);
    EXPECT_EQ(report(), "");
    expectcells(image, 8, 7, "\xDB", 0x8F); // bright white on black, blinking
    expectcells(image, 12, 12, "Unexpected exit", 0x0F);
    // No memory, nor any for the report and the pop-up themselves.
    struct {
        void (*body)();
        const char *report;
    } const rows[] = {{[] { plex::alcmem(1); }, "There is not enough memory"},
                      {[] { plex::alctile(1, 1); }, "NOT ENOUGH MEMORY"}};
    for (const auto &r : rows) {
        o = run([&] {
            test::fault("malloc:1:12 malloc:2:12 malloc:3:12 malloc:4:12");
            r.body();
        });
        EXPECT_EQ(o.code(), 90);
        EXPECT_NE(report().find(r.report), std::string::npos) << report();
    }
}

TEST_F(Catastrophe, OfTheSharedSegment) {
    NEED_OWN_SEGMENTS();
    const struct {
        size_t size; // of the segment that there is
        const char *fault;
        void *(*open)(int);
        std::string told;
    } rows[] = {
        {0, "", plex::opncshm, "Client: Could not get shared memory (2 No such file or directory)"},
        {100, "", plex::opnsshm, "Server: Could not get shared memory. (22 Invalid argument)"},
        {4029, "shmat:1:12", plex::opnsshm,
         "Server: Could not attach shared memory (12 Cannot allocate memory)"},
        {4029, "shmat:1:13", plex::opncshm,
         "Client: Could not attach shared memory (13 Permission denied)"},
    };
    for (const auto &r : rows) {
        if (r.size > 0) {
            EXPECT_GE(shmget(test::segmentkey(), r.size, IPC_CREAT | 0600), 0);
        }
        const Outcome o = run([&] {
            test::fault(r.fault);
            r.open(4029);
        });
        test::removesegment();
        EXPECT_EQ(o.code(), 90) << r.told;
        EXPECT_TRUE(report().ends_with(r.told + (r.size == 100 ? "\n\n" : ".\n\n"))) << report();
    }
}

TEST_F(Catastrophe, Explosions) {
    std::string source(plex::cellbytes, '\0');
    for (size_t i = 0; i < source.size(); i++) { // every cell differs from its neighbours
        source[i] = static_cast<char>(i % 2 != 0 ? 0xF8 | (i / 160 & 7) : 1 + i / 2 % 160 % 97);
    }
    const auto cell = [](const std::string &img, int row, int col) {
        return img.substr(static_cast<size_t>(row * plex::scrcols + col) * 2, 2);
    };
    const struct {
        int fux, fuy, flx, fly, tux, tuy;
        size_t frames;
        int shadowcols, shadowrows; // how much of the shadow is on the screen
    } rows[] = {
        {0, 0, 66, 8, 7, 8, 17, 2, 1},  {3, 2, 3, 2, 10, 10, 1, 2, 1},
        {0, 0, 9, 3, 70, 4, 3, 0, 1},   {0, 0, 9, 3, 69, 4, 3, 1, 1},
        {0, 0, 9, 3, 60, 21, 3, 2, 0},  {5, 5, 15, 20, 5, 5, 8, 2, 1},
        {0, 0, 79, 24, 0, 0, 20, 0, 0},
    };
    inchild([&] {
        plex::opntrm(plex::DSP_NULL, "test");
        for (const auto &r : rows) {
            SCOPED_TRACE(std::to_string(r.flx) + "," + std::to_string(r.tux));
            const int width = r.flx - r.fux + 1;
            const int height = r.fly - r.fuy + 1;
            for (const bool animated : {true, false}) {
                memset(plex::frzseg(), 0xFF, plex::cellbytes);
                frames.clear();
                plex::explodem = animated ? 1 : 0;
                plex::explodeto(source.data(), r.fux, r.fuy, r.flx, r.fly, r.tux, r.tuy);
                EXPECT_EQ(frames.size(), animated ? r.frames : 1);
                const std::string img = screen();
                for (int y = 0; y < plex::scrrows; y++) {
                    for (int x = 0; x < plex::scrcols; x++) {
                        const bool in =
                            x >= r.tux && x < r.tux + width && y >= r.tuy && y < r.tuy + height;
                        const bool right = x >= r.tux + width && x < r.tux + width + r.shadowcols &&
                                           y > r.tuy && y < r.tuy + height + r.shadowrows;
                        const bool below = r.shadowrows == 1 && y == r.tuy + height &&
                                           x >= r.tux + 2 && x < r.tux + width;
                        const std::string want =
                            in ? cell(source, y - r.tuy + r.fuy, x - r.tux + r.fux)
                               : std::string("\xFF") + (right || below ? '\x07' : '\xFF');
                        ASSERT_EQ(cell(img, y, x), want) << y << "," << x;
                    }
                }
            }
            if (r.frames > 1) { // the first frame: the corners, two by one, around the centre
                plex::explodem = 1;
                memset(plex::frzseg(), 0xFF, plex::cellbytes);
                frames.clear();
                plex::nsexploto(source.data(), r.fux, r.fuy, r.flx, r.fly, r.tux, r.tuy);
                const int midx = r.tux + width / 2;
                const int midy = r.tuy + height / 2;
                const int oddx = width & 1;
                const int oddy = height & 1;
                EXPECT_EQ(cell(frames[0], midy - 1 + oddy, midx - 2 + oddx),
                          oddy == 1 ? cell(source, r.fly, r.fux) : cell(source, r.fuy, r.fux));
                EXPECT_EQ(cell(frames[0], midy, midx + 1), cell(source, r.fly, r.flx));
                EXPECT_EQ(cell(frames[0], midy, midx + 2), "\xFF\xFF");
                EXPECT_EQ(cell(screen(), r.tuy + height - 1, r.tux), cell(source, r.fly, r.fux));
            }
        }
        plex::explode(source.data(), 10, 5, 20, 8);
        plex::prat(1, 1, "x"); // relative to the window from here on
        EXPECT_EQ(cell(screen(), 6, 11)[0], 'x');
        plex::explodeto(source.data(), 0, 0, 79, 24, 40, 20); // off the screen: left out
        plex::explodeto(source.data(), 0, 0, 79, 24, -40, -20);
        test::spew("done", HasFailure() ? "failed" : "passed");
    });
    EXPECT_EQ(slurp("done"), "passed");
}

} // namespace
