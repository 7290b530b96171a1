// The screen engine and what is shown on it, by scripts. Images that cannot be had: syscon.cpp.
//
// A line of a script of tests/screen is one or more commands, with " / " between them: routines by
// their names, and what follows here. In texts, \e \n \r \b \f \a \" and \xHH are bytes; a number
// may be repeated, as 0x07*3.
//
//   reset [shared|x|vga|window]     a new engine on a screen of dots; window: columns 10 to 14 of
//                                   rows 5 to 8, the cursor at its start
//   fatal WAY ["TEXT"]              one of `ways` in a child; its last screen, frames and status
//   screen COLUMN ROW |TEXT|...|    these characters stand there, row by row; "#" is any
//   attrs COLUMN ROW NUMBER...      these attributes
//   flags [ROW...]                  these rows are marked, and no others; unmarks them
//   rest LEFT TOP RIGHT BOTTOM      outside of this rectangle nothing has changed
//   frame N                         what follows looks at the screen as it was at the Nth wait
//   crt START END PLACE             what the video controller has of the cursor
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
#include "tests/support.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <sys/mman.h>
#include <sys/select.h>

namespace {

using plex::curatr;
using Numbers = std::vector<int>;

struct Line {
    std::string verb, rest, word, text; // `word` is the first, `text` in double quotes
    Numbers numbers;

    int operator[](size_t i) const { return numbers.at(i); }
    auto u8(size_t i) const { return static_cast<uint8_t>(numbers.at(i)); }
};

test::Arena arena(true);
unsigned char privbuf[plex::cellbytes];
std::string calls;
std::string told; // what a fatal error wrote
int status;
int count;

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

// The null console, but it tells.
const plex::trmhdl plex::nultrm = {
    [] { return 0; },
    [] { return printf("closed "), 1; },
    [] { return 0; },
    [] { return 0; },
    [](int32_t force) { calls += "update:" + std::to_string(force); },
    [](int32_t pitch) { calls += "bell:" + std::to_string(pitch); },
};

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

constexpr const char *nomemory = "malloc:1:12 malloc:2:12 malloc:3:12 malloc:4:12";

// How a program comes to a fatal end: by itself, or with a message behind what it did here.
const std::map<std::string, void (*)()> ways = {
    {"message", [] {}},
    {"early", [] { plex::grafbuf = nullptr, plex::dsptyp = 0; }}, // no method is chosen
    {"core", [] { plex::nocore = 0, signal(SIGQUIT, _exit); }},
    {"told", [] { plex::catrpt = [](auto *name) { printf("%s:%02X:", name, curatr.attr); }; }},
    {"twice", [] { plex::catrpt = [](auto *) { plex::locate(0, 0), plex::catastro("again"); }; }},
    {"exit", [] { plex::cataexit(); }},
    {"memory", [] { test::fault(nomemory), plex::alcmem(1); }},
    {"tiles", [] { test::fault(nomemory), plex::alctile(1, 1); }},
    {"unreported",
     [] { std::filesystem::create_directory("CATASTRO.TXT"); }}, // it cannot be opened
};

void fatal(const Line &line) {
    shots = {};
    const auto outcome = test::inchild([&] {
        test::logout("log");
        plex::nocore = 1;
        atexit(keep);
        ways.at(line.word)();
        plex::catastro("%s", line.text.c_str());
    });
    status = outcome.status;
    told = outcome.out + test::slurp("CATASTRO.TXT") + test::slurp("log");
    std::filesystem::remove("CATASTRO.TXT");
    show(shots.frames);
}

void reset(const Line &line) {
    const std::map<std::string, int32_t> types = {
        {"", 8}, {"window", 1}, {"shared", 1}, {"x", 2}, {"vga", 0x100}};
    test::restart(arena, types.at(line.rest));
    plex::condev = line.rest == "vga" ? &plex::linuxcondrv : nullptr; // without its ports
    calls.clear();
    plex::color = 1;
    plex::explodem = 1;
    plex::ansion(1);
    if (line.rest == "window") {
        plex::setwin(nullptr, 10, 5, 14, 8, 1);
        plex::locate(10, 5);
    }
}

int crt(uint8_t index, int value = -1) {
    plex::linuxcondrv.portwrite(plex::crtindex, index);
    if (value >= 0) {
        plex::linuxcondrv.portwrite(plex::crtdata, static_cast<uint8_t>(value));
    }
    return plex::linuxcondrv.portread(plex::crtdata);
}

// From a screen of letters, a row each of one attribute, in the order of the alphabet.
template <typename Routine> void explode(Routine routine, const Line &n) {
    unsigned char source[plex::cellbytes];
    for (int i = 0; i < plex::scrrows * plex::scrcols; i++) {
        source[2 * i] = static_cast<unsigned char>('A' + i % 80 % 32);
        source[2 * i + 1] = static_cast<unsigned char>(0x10 + i / 80);
    }
    shots.frames = 0;
    routine(source, n[0], n[1], n[2], n[3], n[4], n[5]);
}

void here(const void *image, int left, int top, int right, int bottom, int, int) {
    plex::explode(image, left, top, right, bottom);
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

void look(const Line &line) {
    std::istringstream rows(line.rest.substr(line.rest.find('|') + 1));
    int row = line[1];
    for (std::string expected; std::getline(rows, expected, '|'); row++) {
        expected = decode(expected);
        EXPECT_EQ(like(there(line[0], row, expected.size()), expected), expected) << "row " << row;
    }
}

template <typename... Seen> void same(const Line &line, Seen... seen) {
    EXPECT_EQ(Numbers{seen...}, line.numbers);
}

void flags(const Line &line) {
    Numbers marked;
    for (int i = 0; i < 25; i++) {
        if (std::exchange(plex::updflg[i], 0) != 0) {
            marked.push_back(i);
        }
    }
    EXPECT_EQ(marked, line.numbers);
}

void value(const Line &line) {
    const unsigned char *shown = arena.image() + plex::cellbytes;
    const std::map<std::string, int> values = {
        {"attr", curatr.attr},     {"ansflg", curatr.ansflg},
        {"lstcmd", curatr.lstcmd}, {"rgntop", curatr.rgntop},
        {"rgnbot", curatr.rgnbot}, {"wleft", curatr.wleft},
        {"wright", curatr.wright}, {"wbottom", curatr.wbottom},
        {"wscrol", curatr.wscrol}, {"cursz", curatr.cursz},
        {"row", shown[26]},        {"column", shown[27]},
        {"shown", shown[28]},      {"all", shown[25]},
        {"lstctl", plex::lstctl},  {"private", privbuf[162]},
        {"count", count},          {"status", status},
        {"frames", shots.frames},  {"waited", shots.waited}};
    EXPECT_EQ(values.at(line.word), line[1]);
}

using Command = void (*)(const Line &);
const std::map<std::string, Command> commands = {
    {"reset", reset},
    {"fatal", fatal},
    {"screen", look},
    {"attrs",
     [](auto &l) {
         const Numbers want(l.numbers.begin() + 2, l.numbers.end());
         EXPECT_EQ(there(l[0], l[1], want.size(), 1), std::string(want.begin(), want.end()));
     }},
    {"flags", flags},
    {"is", value},
    {"told", [](auto &l) { EXPECT_EQ(like(told, l.text), l.text); }},
    {"frame", [](auto &l) { show(l[0] - 1); }},
    {"at", [](auto &l) { same(l, plex::curcurx(), plex::curcury()); }},
    {"rest", [](auto &l) { EXPECT_EQ(test::changed(arena, l[0], l[1], l[2], l[3]), ""); }},
    {"crt", [](auto &l) { same(l, crt(10), crt(11), crt(14) * 256 + crt(15)); }},
    {"calls", [](auto &l) { EXPECT_EQ(std::exchange(calls, ""), l.rest); }},
    {"controller", [](auto &l) { crt(14, l[0]), crt(15, l[0]); }},
    {"print", [](auto &l) { count = plex::unxprntf("%s", l.text.c_str()); }},
    {"pat", [](auto &l) { count = plex::pat(l[0], l[1], "%s", l.text.c_str()); }},
    {"prat", [](auto &l) { count = plex::prat(l[0], l[1], "%s", l.text.c_str()); }},
    {"printfat", [](auto &l) { count = plex::printfat(l.u8(0), l.u8(1), "%s", l.text.c_str()); }},
    {"proff", [](auto &l) { plex::proff(l[0], l[1]); }},
    {"setwin", [](auto &l) { plex::setwin(nullptr, l.u8(0), l.u8(1), l.u8(2), l.u8(3), l.u8(4)); }},
    {"setbuf", [](auto &l) { plex::setwin(privbuf, l.u8(0), l.u8(1), l.u8(2), l.u8(3), l.u8(4)); }},
    {"rstwin", [](auto &) { plex::rstwin(); }},
    {"setatr", [](auto &l) { plex::setatr(l.u8(0)); }},
    {"ansion", [](auto &l) { plex::ansion(l[0]); }},
    {"locate", [](auto &l) { plex::locate(l[0], l[1]); }},
    {"rstloc", [](auto &) { plex::rstloc(); }},
    {"cursact", [](auto &l) { plex::cursact(l[0]); }},
    {"cursiz", [](auto &l) { plex::cursiz(l[0]); }},
    {"rstcur", [](auto &) { plex::rstcur(); }},
    {"unfrez", [](auto &) { plex::unfrez(); }},
    {"belper", [](auto &l) { plex::belper(static_cast<uint16_t>(l[0])); }},
    {"clreol", [](auto &) { plex::clreol(); }},
    {"dorevl", [](auto &) { plex::bgnout(), plex::dorevl(), plex::wrcurp(plex::dx); }},
    {"color", [](auto &l) { plex::color = l[0]; }},
    {"animated", [](auto &l) { plex::explodem = l[0]; }},
    {"explode", [](auto &l) { explode(plex::explodeto, l); }},
    {"nsexploto", [](auto &l) { explode(plex::nsexploto, l); }},
    {"explodehere", [](auto &l) { explode(here, l); }},
};

void command(const std::string &line) {
    Line l = {line.substr(0, line.find(' ')), "", "", "", {}};
    l.rest = line.substr(std::min(line.size(), l.verb.size() + 1));
    l.word = l.rest.substr(0, l.rest.find(' '));
    std::istringstream words(l.rest);
    for (std::string word; words >> word;) {
        char *end = nullptr;
        const auto number = static_cast<int>(strtol(word.c_str(), &end, 0));
        l.numbers.insert(l.numbers.end(), *end == '*' ? atoi(end + 1) : 1, number);
    }
    const size_t quote = l.rest.find('"');
    l.text = quote == std::string::npos
                 ? ""
                 : decode(l.rest.substr(quote + 1, l.rest.size() - quote - 2));
    commands.at(l.verb)(l);
}

TEST(Screen, Scripts) {
    const test::Home home;
    const std::filesystem::directory_iterator scripts(SOURCE_DIR "/tests/screen");
    for (const auto &path : std::set<std::filesystem::path>(begin(scripts), end(scripts))) {
        std::ifstream file(path);
        int number = 0;
        for (std::string line; std::getline(file, line);) {
            SCOPED_TRACE(path.filename().string() + ":" + std::to_string(++number) + ": " + line);
            while (!line.empty() && line[0] != '#') {
                const size_t end = line.find(" / ");
                ASSERT_NO_THROW(command(line.substr(0, end))); // the author's own mistake
                line = end == std::string::npos ? "" : line.substr(end + 3);
            }
        }
        EXPECT_GT(number, 0) << path;
    }
}

TEST(Screen, CountsWhatIsTooLong) {
    reset({});
    const std::string longest(70000, 'x');
    EXPECT_EQ(plex::printfat(0, 0, "%s", longest.c_str()), 70000);
    EXPECT_EQ(plex::curcurx(), 16383 % 80);
    EXPECT_EQ(plex::unxprntf("%s", longest.c_str()), 70000 % 65536);
    const std::string toowide = "%99999999999d"; // cannot be formatted
    EXPECT_EQ(plex::unxprntf(toowide.c_str(), 1), 65535);
    EXPECT_EQ(plex::printfat(0, 0, toowide.c_str(), 1), -1);
}

} // namespace
