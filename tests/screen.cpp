// The screen engine and what is shown on it, by scripts. Images that cannot be had: syscon.cpp.
//
// A line of a script of tests/screen is one or more commands, with " / " between them. In texts,
// \e \n \r \b \f \a \" and \xHH are bytes. Attributes are hexadecimal, other numbers decimal.
//
//   reset [shared|x|vga|window]     a new engine on a screen of dots; window: columns 10 to 14 of
//                                   rows 5 to 8, the cursor at its start
//   print "TEXT"                    one print call
//   ROUTINE NUMBER...               one of `routines`
//   fatal WAY ["TEXT"]              one of `ways` in a child; its last screen, frames and status
//   at COLUMN ROW                   the cursor stands there
//   screen COLUMN ROW |TEXT|...|    these characters stand there, row by row; "#" is any
//   attrs COLUMN ROW HH[*N]...      these attributes
//   flags [ROW...]                  these rows are marked, and no others; unmarks them
//   rest LEFT TOP RIGHT BOTTOM      outside of this rectangle nothing has changed
//   frame N                         what follows looks at the screen as it was at the Nth wait
//   is NAME NUMBER                  one of `values` or `results`
//   calls CALL...                   what console and video controller were told since the last look
//   told "TEXT"                     the fatal error's standard output, report and log, then removed

#include "fuzz/properties.h"
#include "libsrc/catastro/catastro.h"
#include "libsrc/catastro/explode.h"
#include "libsrc/common/color.h"
#include "libsrc/common/memory.h"
#include "libunix/common/tiles.h"
#include "libunix/console/condrv.h"
#include "libunix/console/unxwrecons.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/log.h"
#include "tests/faults/calls.h"
#include "tests/support.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>

namespace {

using plex::curatr;

std::string calls;

void call(const char *format, int a, int b = 0) {
    char text[32];
    snprintf(text, sizeof text, format, a, b);
    calls += (calls.empty() ? "" : " ") + std::string(text);
}

uint8_t selected;
uint8_t crt[16];

const plex::condrv controller = [] {
    plex::condrv c = {}; // the cursor's part
    c.portwrite = [](uint16_t port, uint8_t value) {
        if (port == plex::crtindex) {
            selected = value;
        } else {
            call("%02X=%02X", selected, value);
            crt[selected] = value;
        }
    };
    c.portread = [](uint16_t) { return crt[selected]; };
    c.show = [](int32_t) {};
    return c;
}();

} // namespace

// The null console, but it tells.
const plex::trmhdl plex::nultrm = {
    [] { return 0; },
    [] { return 1; },
    [] { return 0; },
    [] { return 0; },
    [](int32_t force) { call("update(%d)", force); },
    [](int32_t pitch) { call("bell(%d)", pitch); },
};

namespace {

test::Arena arena(true);
unsigned char privbuf[plex::cellbytes];
int status;

// The cells at each wait, by a child too.
struct Shots {
    int waited; // microseconds asked for
    int frames;
    char cells[64][plex::cellbytes];
} &shots = *static_cast<Shots *>(
    mmap(nullptr, sizeof(Shots), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

void keep() {
    memcpy(shots.cells[shots.frames], arena.image(), plex::cellbytes);
}

void show(int frame) {
    memcpy(arena.image(), shots.cells[frame], plex::cellbytes);
}

} // namespace

// Every wait of the library ends here: none takes time.
extern "C" int select(int, fd_set *, fd_set *, fd_set *, timeval *timeout) {
    shots.waited += static_cast<int>(timeout->tv_sec * 1000000 + timeout->tv_usec);
    keep();
    shots.frames++;
    return 0;
}

// In place of the library's module.
const char *plex::catfix1() {
    return catrpt == dftrpt ? "" : "here";
}

namespace {

using Numbers = std::vector<int>;

void setwin(unsigned char *buf, const Numbers &n) {
    const auto u8 = [&](size_t i) { return static_cast<uint8_t>(n.at(i)); };
    plex::setwin(buf, u8(0), u8(1), u8(2), u8(3), u8(4));
}

// From a screen of letters, a row each of one attribute, in the order of the alphabet.
template <typename Routine> void explode(Routine routine, const Numbers &n) {
    unsigned char source[plex::cellbytes];
    for (int i = 0; i < plex::scrrows * plex::scrcols; i++) {
        source[2 * i] = static_cast<unsigned char>('A' + i % 80 % 32);
        source[2 * i + 1] = static_cast<unsigned char>(0x10 + i / 80);
    }
    shots.frames = 0;
    routine(source, n.at(0), n.at(1), n.at(2), n.at(3), n.at(4), n.at(5));
}

const std::map<std::string, void (*)(const Numbers &)> routines = {
    {"setwin", [](auto &n) { setwin(nullptr, n); }},
    {"setbuf", [](auto &n) { setwin(privbuf, n); }},
    {"rstwin", [](auto &) { plex::rstwin(); }},
    {"setatr", [](auto &n) { plex::setatr(static_cast<uint8_t>(n[0])); }},
    {"ansion", [](auto &n) { plex::ansion(n[0]); }},
    {"locate", [](auto &n) { plex::locate(n[0], n[1]); }},
    {"rstloc", [](auto &) { plex::rstloc(); }},
    {"cursact", [](auto &n) { plex::cursact(n[0]); }},
    {"cursiz", [](auto &n) { plex::cursiz(n[0]); }},
    {"rstcur", [](auto &) { plex::rstcur(); }},
    {"unfrez", [](auto &) { plex::unfrez(); }},
    {"belper", [](auto &n) { plex::belper(static_cast<uint16_t>(n[0])); }},
    {"clreol", [](auto &) { plex::clreol(); }},
    {"color", [](auto &n) { plex::color = n[0]; }},
    {"animated", [](auto &n) { plex::explodem = n[0]; }},
    {"explode", [](auto &n) { explode(plex::explodeto, n); }},
    {"nsexploto", [](auto &n) { explode(plex::nsexploto, n); }},
    {"within",
     [](auto &n) {
         explode(
             [](auto *p, int a, int b, int c, int d, int, int) { plex::explode(p, a, b, c, d); },
             n);
         plex::prat(1, 1, "#"); // relative to it from here on
     }},
    {"dorevl", [](auto &) { plex::bgnout(), plex::dorevl(), plex::wrcurp(plex::dx); }},
    {"controller",
     [](auto &n) { plex::wrcurp(0), crt[14] = crt[15] = static_cast<uint8_t>(n[0]); }},
};

const std::map<std::string, const uint8_t *> values = {
    {"attr", &curatr.attr},           {"ansflg", &curatr.ansflg},
    {"lstcmd", &curatr.lstcmd},       {"rgntop", &curatr.rgntop},
    {"rgnbot", &curatr.rgnbot},       {"wleft", &curatr.wleft},
    {"wright", &curatr.wright},       {"wbottom", &curatr.wbottom},
    {"wscrol", &curatr.wscrol},       {"cursz", &curatr.cursz},
    {"all", &arena.image()[4025]},    {"row", &arena.image()[4026]},
    {"column", &arena.image()[4027]}, {"shown", &arena.image()[4028]},
    {"lstctl", &plex::lstctl},        {"private", &privbuf[162]},
};

const std::map<std::string, const int *> results = {
    {"frames", &shots.frames}, {"status", &status}, {"waited", &shots.waited}};

constexpr const char *nomemory = "malloc:1:12 malloc:2:12 malloc:3:12 malloc:4:12";

// How a program comes to a fatal end: by itself, or with a message behind what it did here.
const std::map<std::string, void (*)()> ways = {
    {"message", [] {}},
    {"early", [] { plex::grafbuf = nullptr, plex::dsptyp = 0; }}, // no method is chosen
    {"core", [] { plex::nocore = 0; }},
    {"told", [] { plex::catrpt = [](auto *name) { printf("%s:%02X:", name, curatr.attr); }; }},
    {"twice", [] { plex::catrpt = [](auto *) { plex::catastro("again"); }; }},
    {"exit", [] { plex::cataexit(); }},
    {"memory", [] { test::fault(nomemory), plex::alcmem(1); }},
    {"tiles", [] { test::fault(nomemory), plex::alctile(1, 1); }},
    {"unreported", [] { mkdir("CATASTRO.TXT", 0700); }}, // it cannot be opened
};

std::string told; // what a fatal error wrote

void fatal(const std::string &way, const std::string &text) {
    shots = {};
    const auto outcome = test::inchild([&] {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_CORE, &none);
        setenv("BBSLOG", "log", 1);
        plex::bgnlog("");
        plex::nocore = 1;
        atexit(keep);
        ways.at(way)();
        plex::catastro("%s", text.c_str());
    });
    status = outcome.code();
    told = outcome.out + test::slurp("CATASTRO.TXT") + test::slurp("log");
    std::filesystem::remove("CATASTRO.TXT");
    show(shots.frames);
}

std::string decode(const std::string &line) {
    const std::string names = "e\33n\nr\rb\bf\fa\a\"\"";
    std::string text;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] != '\\') {
            text += line[i];
        } else if (line[++i] == 'x') {
            text += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            text += names.at(names.find(line[i]) + 1);
        }
    }
    return text;
}

void reset(const std::string &how) {
    const std::map<std::string, int32_t> types = {
        {"", 8}, {"window", 1}, {"shared", 1}, {"x", 2}, {"vga", 0x100}};
    test::restart(arena, types.at(how));
    plex::condev = how == "vga" ? &controller : nullptr;
    calls.clear();
    plex::color = 1;
    plex::explodem = 1;
    plex::ansion(1);
    if (how == "window") {
        plex::setwin(nullptr, 10, 5, 14, 8, 1);
        plex::locate(10, 5);
    }
}

// `seen`, but a "#" where any character is as good.
std::string like(std::string seen, const std::string &expected) {
    for (size_t i = 0; i < std::min(seen.size(), expected.size()); i++) {
        seen[i] = expected[i] == '#' ? '#' : seen[i];
    }
    return seen;
}

// The characters (or attributes) from there on.
std::string there(int column, int row, size_t n, int attributes = 0) {
    std::string seen;
    for (const unsigned char *p = arena.image() + 2 * (row * 80 + column); seen.size() < n;
         p += 2) {
        seen += static_cast<char>(p[attributes]);
    }
    return seen;
}

struct Line {
    std::string verb, rest, text; // `text` in double quotes
    Numbers numbers;
};

void look(Line &line) {
    std::istringstream rows(line.rest.substr(line.rest.find('|') + 1));
    for (std::string expected; std::getline(rows, expected, '|'); line.numbers[1]++) {
        expected = decode(expected);
        EXPECT_EQ(like(there(line.numbers[0], line.numbers[1], expected.size()), expected),
                  expected)
            << "row " << line.numbers[1];
    }
}

void attributes(Line &line) {
    std::istringstream words(line.rest);
    std::string word;
    std::string expected;
    for (words >> word >> word; words >> word;) {
        const size_t star = word.find('*');
        expected.append(star == std::string::npos ? 1 : std::stoul(word.substr(star + 1)),
                        static_cast<char>(std::stoi(word, nullptr, 16)));
    }
    EXPECT_EQ(testing::PrintToString(there(line.numbers[0], line.numbers[1], expected.size(), 1)),
              testing::PrintToString(expected));
}

void flags(Line &line) {
    Numbers marked;
    for (int i = 0; i < 25; i++) {
        if (std::exchange(plex::updflg[i], 0) != 0) {
            marked.push_back(i);
        }
    }
    EXPECT_EQ(marked, line.numbers);
}

const std::map<std::string, void (*)(Line &)> verbs = {
    {"reset", [](auto &l) { reset(l.rest); }},
    {"print", [](auto &l) { plex::unxprntf("%s", l.text.c_str()); }},
    {"fatal", [](auto &l) { fatal(l.rest.substr(0, l.rest.find(' ')), l.text); }},
    {"told", [](auto &l) { EXPECT_EQ(like(told, l.text), l.text); }},
    {"frame", [](auto &l) { show(l.numbers.at(0) - 1); }},
    {"at",
     [](auto &l) {
         EXPECT_EQ(Numbers({plex::curcurx(), plex::curcury()}), l.numbers);
     }},
    {"screen", look},
    {"attrs", attributes},
    {"flags", flags},
    {"rest",
     [](auto &l) {
         const auto &n = l.numbers;
         EXPECT_EQ(test::changed(arena, n.at(0), n.at(1), n.at(2), n.at(3)), "");
     }},
    {"is",
     [](auto &l) {
         const std::string name = l.rest.substr(0, l.rest.find(' '));
         const auto value = values.find(name);
         EXPECT_EQ(value != values.end() ? *value->second : *results.at(name), l.numbers.at(1));
     }},
    {"calls", [](auto &l) { EXPECT_EQ(std::exchange(calls, ""), l.rest); }},
};

void command(const std::string &line) {
    Line l = {line.substr(0, line.find(' ')), "", "", {}};
    l.rest = line.substr(std::min(line.size(), l.verb.size() + 1));
    std::istringstream words(l.rest);
    for (std::string word; words >> word;) {
        l.numbers.push_back(atoi(word.c_str()));
    }
    const size_t quote = l.rest.find('"');
    l.text = quote == std::string::npos
                 ? ""
                 : decode(l.rest.substr(quote + 1, l.rest.size() - quote - 2));
    const auto verb = verbs.find(l.verb);
    verb != verbs.end() ? verb->second(l) : routines.at(l.verb)(l.numbers);
}

std::vector<std::string> scripts() {
    std::vector<std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(SOURCE_DIR "/tests/screen")) {
        names.push_back(file.path().stem());
    }
    return names;
}

class Screen : public testing::TestWithParam<std::string> {
    test::Home home;
};

TEST_P(Screen, Script) {
    std::ifstream file(SOURCE_DIR "/tests/screen/" + GetParam() + ".t");
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        SCOPED_TRACE(GetParam() + ".t:" + std::to_string(++number) + ": " + line);
        while (!line.empty() && line[0] != '#') {
            const size_t end = line.find(" / ");
            ASSERT_NO_THROW(command(line.substr(0, end))); // the author's own mistake
            line = end == std::string::npos ? "" : line.substr(end + 3);
        }
    }
    EXPECT_GT(number, 0);
}

INSTANTIATE_TEST_SUITE_P(Scripts, Screen, testing::ValuesIn(scripts()),
                         [](const auto &info) { return info.param; });

TEST(ScreenImage, StartsEmptyAndCounts) {
    reset("x");
    EXPECT_EQ(plex::unxprntf("%d%%", 50), 3);
    EXPECT_EQ(calls, "update(0)");
    EXPECT_EQ(plex::unxprntf("%s", ""), 0);
    EXPECT_EQ(plex::curcurx(), 3);
    plex::proff(10, 5);
    EXPECT_EQ(plex::prat(2, 3, "%s", "100%% %d %"), 9); // formatted twice, the second time bare
    EXPECT_EQ(there(12, 8, 10), "100% %d %.");
    EXPECT_EQ(plex::printfat(70, 24, "%s", "100%% wraps here"), 16);
    EXPECT_EQ(there(70, 23, 10) + there(0, 24, 8), "100%% wraps here  ");
    plex::rstloc();
    EXPECT_EQ(plex::curcurx() + 100 * plex::curcury(), 821);
    EXPECT_EQ(plex::pat(0, 0, "%s", "top"), 3);
    const std::string longest(70000, 'x');
    EXPECT_EQ(plex::printfat(0, 0, "%s", longest.c_str()), 70000);
    EXPECT_EQ(plex::curcurx(), 16383 % 80);
    EXPECT_EQ(plex::unxprntf("%s", longest.c_str()), 70000 % 65536);
    const std::string toowide = "%99999999999d"; // cannot be formatted
    EXPECT_EQ(plex::unxprntf(toowide.c_str(), 1), 65535);
    EXPECT_EQ(plex::printfat(0, 0, toowide.c_str(), 1), -1);
    EXPECT_EQ(plex::auxcrt(), 0);
    reset("");
    plex::grafbuf = nullptr;
    const unsigned char *image = plex::frzseg();
    EXPECT_EQ(plex::frzseg(), image);
    EXPECT_EQ(plex::updflg, image + 4000);
    EXPECT_EQ(std::count(image, image + 4029, 0), 4029);
    EXPECT_EQ(plex::curcurs() + plex::prfspd(9) + plex::speedy, 19);
}

} // namespace
