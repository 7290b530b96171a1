// The file finder, the scanner of text files, the table of languages, message files as a program
// has them; what plexmsg shows of them, damaged ones too, tests/plexmsg.py looks at.

#include "fuzz/survive.h"
#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"
#include "libsrc/common/msgfile.h"
#include "libsrc/common/tfscan.h"
#include "libunix/common/fndfil.h"
#include "tests/support.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fuzz::speak;

// Runs `body` in a child: the message of the fatal error that ended it, empty when it returned.
std::string fatal(const std::function<void()> &body) {
    const test::Outcome o =
        test::inchild([&] { fuzz::survives(body) || fputs(fuzz::said.c_str(), stdout); });
    return o.code() == 0 ? o.out : "status " + std::to_string(o.code()) + " " + o.err;
}

// The names that qualify, sorted; those of directories with a "/".
std::string find(const std::string &spec, int attr) {
    const int unused = test::nextfd();
    std::multiset<std::string> found;
    plex::fndblk fb;
    for (int more = plex::fnd1st(&fb, spec.c_str(), attr); more != 0; more = plex::fndnxt(&fb)) {
        found.insert(fb.name + std::string(fb.attr == 16 ? "/ " : fb.attr == 0 ? " " : "? "));
    }
    EXPECT_EQ(test::nextfd(), unused);
    std::string all;
    for (const std::string &name : found) {
        all += name;
    }
    return all;
}

TEST(Finder, WhatQualifies) {
    const test::Home home;
    const std::string longest(255, 'x');
    std::filesystem::create_directories("d.txt");
    for (const std::string &name : {std::string("a.txt"), std::string("d.txt/A.TXT"), longest}) {
        test::spew(name, "");
    }
    mkfifo("fifo.txt", 0600);
    std::filesystem::create_symlink("a.txt", "link.txt");
    std::filesystem::create_symlink("d.txt", "dlink.txt");
    std::filesystem::create_symlink("nowhere", "dangling.txt");
    const std::string files = "a.txt fifo.txt link.txt ";
    plex::fndblk another; // several at once
    ASSERT_EQ(plex::fnd1st(&another, "*.txt", 0), 1);
    const std::tuple<std::string, int, std::string> rows[] = {
        {"?*.txt/", 16, "a.txt d.txt/ dlink.txt/ fifo.txt link.txt "},
        {"*.txt", 0, files},
        {home.path + "/*.txt", 1, files},
        {"d.txt/*", 16, "A.TXT "},
        {"/tm?", 16, "tmp/ "},
        {"/", 16, ""},
        {"", 16, ""},
        {"a.txt/*", 16, ""},
        {"x*" + longest.substr(2), 16, longest + " "},
        {std::string(256, '*'), 16, ""}, // too long, like the next one
        {std::string(1023, '/') + "*", 16, ""}};
    for (const auto &[spec, attr, found] : rows) {
        EXPECT_EQ(find(spec, attr), found) << spec.substr(0, 40);
    }
    EXPECT_EQ(plex::fndnxt(&another) + plex::fndnxt(&another), 2);
    EXPECT_EQ(plex::fndnxt(&another), 0);
    EXPECT_EQ(plex::isfile(".", "link.txt") + plex::isfile("d.txt", "A.TXT"), 2);
    EXPECT_EQ(plex::isfile(".", "d.txt") + plex::isfile(".", "fifo.txt"), 0);
}

TEST(Finder, FillsTheRecord) {
    const test::Home home;
    setenv("TZ", "XXX-2", 1);
    test::spew("f", "12345");
    const timespec times[2] = {{0, 0}, {794577659, 0}}; // 1995-03-07 14:00:59 two hours east
    utimensat(AT_FDCWD, "f", times, 0);
    plex::fndblk fb;
    ASSERT_EQ(plex::fndfil(&fb, "f", 0), 1);
    EXPECT_EQ(std::string(fb.dirnam) + " " + fb.filspc + " " + fb.name, ". f f");
    EXPECT_EQ(fb.size, 5);
    EXPECT_EQ(fb.date, 15 * 512 + 3 * 32 + 7);
    EXPECT_EQ(fb.time, 14 * 2048 + 0 * 32 + 29);
    ASSERT_EQ(truncate("f", off_t{INT_MAX} + 9), 0);
    EXPECT_EQ(plex::filstr("f", &fb), 0);
    EXPECT_EQ(fb.size, INT_MAX);
    EXPECT_EQ(plex::filstr("gone", &fb) + plex::filstr(".", &fb), -2);
    EXPECT_EQ(plex::filstr(std::string(256, 'x').c_str(), &fb), -1);
    unsetenv("TZ");
}

// All that a scan gives: the number of files, and lines among the digits of the other states.
std::string scan(const std::string &spec) {
    std::string text = std::to_string(plex::tfsopn(spec.c_str()));
    text += ":" + std::to_string(plex::tfstate);
    while (plex::tfsrdl() != 0) {
        text += plex::tfstate == 3 ? std::string("[") + plex::tfsbuf + "]"
                                   : std::to_string(plex::tfstate) + plex::tfsbuf;
    }
    return text;
}

TEST(Scanner, Lines) {
    const test::Home home;
    std::filesystem::create_directories("d/dir.x");
    const std::string a(128, 'a');
    const std::string rows[][2] = {{"", "4"},
                                   {"one \t\r\n\n two\x1A\n\x1A", "[one][][ two][]4"},
                                   {a + "\nx", "[" + a + "][][x]4"},
                                   {a + "cc\nx", "[" + a + "][cc][x]4"},
                                   {a.substr(1) + "  c\n", "[" + a.substr(1) + "][ c]4"},
                                   {std::string("a\0b\nc", 5), "[a][c]4"}};
    for (const auto &r : rows) {
        test::spew("d/f.x", r[0]);
        EXPECT_EQ(scan("d/*.x"), "1:12" + r[1]);
    }
    test::spew("d/f.x", "1\n2\n");
    test::spew("d/g.x", "1\n2");
    EXPECT_EQ(scan("d/?.x"), "2:12[1][2]42[1][2]4");
    EXPECT_EQ(std::string(plex::tfspth), std::string("d/") + plex::tfsfb.name);
    EXPECT_EQ(scan("d/*.y"), "0:0");
    const int unused = test::nextfd();
    for (int steps = 0; steps < 4; steps++) { // abandoned at any step
        EXPECT_EQ(plex::tfsopn("d/*"), 2);
        for (int i = 0; i < steps; i++) {
            plex::tfsrdl();
        }
        plex::tfsabt();
        EXPECT_EQ(plex::tfsrdl(), 0);
    }
    EXPECT_EQ(test::nextfd(), unused);
}

TEST(Scanner, FatalErrors) {
    const test::Home home;
    const std::string toolong = "TFSCAN:  Path too long:\n\"";
    for (const size_t len : {1011u, 1012u, 1023u}) {
        const std::string path = std::string(len - 1, 'd') + "/x";
        EXPECT_EQ(fatal([&] { scan(path); }), len < 1012 ? "" : toolong + path + "\"");
    }
    test::spew("f", "");
    plex::tfsopn("f*");
    unlink("f");
    EXPECT_EQ(fatal([] { plex::tfsrdl(), plex::tfsrdl(); }), "TFSCAN: Cannot find \"f\" file");
    const std::string d = std::string(199, 'd') + "/";
    const std::string dir = d + d + d + d;
    const std::string name(1024 - dir.size(), 'f'); // more than what the directory leaves of a path
    std::filesystem::create_directories(dir);
    test::spew(dir + name, "");
    EXPECT_EQ(fatal([&] { scan(dir + "*"); }), toolong + dir + name + "\"");
    std::filesystem::rename(dir + name, dir + name.substr(1));
    EXPECT_EQ(scan(dir + "*"), "1:124");
}

TEST(Languages, TheTable) {
    const test::Home home;
    test::spew("pxhost.cfg", "LNG=not yet\nLNGDSC=nor this\nnlingo =9\nnLingo= 4 or so\nNLingo=7\n"
                             "LNG=English/ANSI\nLNGDSC=English with colour\nlngext=ans;asc, ibm x\n"
                             "LNGEDT=an editor\nLNGYES= yes\nLNGNO=no\nLNGXYZ=x\nLNG=\nOTHER=1\n"
                             "LNG=Portuguese/ASCII/long\nLNGYES=0123456789abcdef\nLNGEXT=longest\n"
                             "LNG=x\nLNGEXT=a b\nLNG=y\nLNGEXT=a\nLNGEXT=;\n");
    speak({});
    plex::inilingo();
    unlink("pxhost.cfg");
    plex::inilingo(); // read once
    std::string all;
    for (int i = 0; i < plex::nlingo; i++) {
        const plex::lingo &l = *plex::languages[i];
        for (const char *field :
             {l.name, l.desc, l.extans, l.extasc, l.extibm, l.editor, l.yes, l.no}) {
            all += field + std::string("|");
        }
    }
    EXPECT_EQ(all, "English/ANSI|English with colour|ans|asc|ibm|an editor|yes|no|"
                   "Portuguese/ASCI||long|long|long||0123456789ab||x||a|b|a||||y||||||||");
    speak({});
}

TEST(Languages, FatalErrors) {
    const test::Home home;
    EXPECT_EQ(fatal(plex::inilingo), "CANNOT FIND pxhost.cfg");
    const std::string missing = "pxhost.cfg IS MISSING THE \"NLingo=\" LINE";
    const std::string first = "FIRST LNGXXX= OPTION IN pxhost.cfg MUST BE LNG=";
    const std::string more = "MORE THAN NLINGO \"LNG=\" LINES IN pxhost.cfg";
    const std::string less = "LESS THAN NLINGO \"LNG=\" LINES IN pxhost.cfg";
    const std::string rows[][2] = {
        {"LNG=a\nNLingo=\n", missing},          {"LNG=a\nNLingo=1\n", less},
        {"NLingo=1\nLNGDSC=x\nLNG=a\n", first}, {"NLingo=1\nLNG=  \nLNG\nLNG=a\n", first},
        {"NLingo=1\nLNG\nLNG=a\n", ""},         {"NLingo=1\nLNG=a\nLNG=b\n", more},
        {"NLingo=-3\nLNG=a\n", more},           {"NLingo=x\n", ""},
        {"NLingo=100000000\nLNG=a\n", less}};
    for (const auto &r : rows) {
        test::spew("pxhost.cfg", r[0]);
        EXPECT_EQ(fatal(plex::inilingo), r[1]) << r[0];
    }
}

// The alternates are walked by tests/plexmsg.py.
TEST(Languages, LookUp) {
    EXPECT_EQ(plex::lngfnd("") + plex::chgspk(0, "English"), -2); // no table
    speak({"English/ANSI", "English/RIP", "French/ANSI", "Plain", "English/A", "French/RIP",
           "Portuguese/ANSI"});
    const std::pair<const char *, int> names[] = {{"english/ansi", 0}, {"English/A", 4},
                                                  {"ENGLISH", -1},     {"pl", 3},
                                                  {"Plain/", -1},      {"", -1}};
    for (const auto &[name, want] : names) {
        EXPECT_EQ(plex::lngfnd(name), want) << name;
    }
    // Its other half; of a name without parts, of what would be one when cut, of none.
    EXPECT_EQ(plex::chgspk(2, "English"), 0);
    EXPECT_EQ(plex::chgprt(1, "A"), 4);
    EXPECT_EQ(plex::chgspk(3, "English") + plex::chgprt(6, "ANSIX"), -2);
    EXPECT_EQ(plex::chgspk(2, std::string(5000, 'x').c_str()), -1);
    EXPECT_EQ(plex::chgprt(7, "ANSI") + plex::chgprt(-1, "ANSI"), -2);
    speak({});
}

using plex::catfix2;
using plex::msgblk;

// Makes "f.mcv" of a source.
void make(const std::string &source) {
    test::spew("f.txt", source);
    EXPECT_EQ(test::Program({BUILD_DIR "/plexmsg", "compile", "f.txt", "f.mcv"}).wait().code(), 0);
}

void done(msgblk *mb) {
    plex::clsmsg(mb);
    plex::rstmbk();
}

const std::string text = "message\ntext English/ANSI\n|";
const std::string english = "language English/ANSI\n";

TEST(Messages, OneLanguageAndTheBuffer) {
    const test::Home home;
    make(english + text + "zero\n" + text + "eleven more\n" + text + "no end");
    std::string file = test::slurp("f.mcv");
    file[18 + 5] = '!'; // where the last text ended
    test::spew("f.mcv", file);
    msgblk *mb = plex::opnmsg("f.mcv");
    EXPECT_EQ(mb->lengths, nullptr);
    EXPECT_STREQ(catfix2(), "MSG:f.mcv/-1");
    struct {
        int size, msg;
        const char *text;
        int cut;
    } const rows[] = {{1, 0, "", 1},           {2, 0, "*", 1},           {4, 0, "ze*", 1},
                      {5, 0, "zero", 0},       {7, 2, "no end!", 0},     {11, 1, "eleven mo*", 1},
                      {8, 1, "eleven mo*", 1}, {12, 1, "eleven more", 0}};
    for (const auto &r : rows) {
        plex::inimsg(r.size);
        EXPECT_STREQ(plex::rawmsg(r.msg), r.text) << r.size;
        EXPECT_EQ(plex::starit, r.cut) << r.size;
        EXPECT_EQ(mb->lstmsg, r.msg);
    }
    plex::inimsg(5000);
    EXPECT_STREQ(plex::msgbuf, "eleven more");
    EXPECT_EQ(plex::msgseek(0), 5);
    EXPECT_STREQ(catfix2(), "MSG:f.mcv/1");
    rename("f.mcv", "abcdefghijklmnop.mcv");
    msgblk *other = plex::opnmsg("././././abcdefghijklmnop.mcv");
    EXPECT_STREQ(catfix2(), "MSG:./abcdefghijklmnop.mcv/-1"); // its end, in 30 bytes
    done(other);
    done(mb);
}

TEST(Messages, LanguageLists) {
    const test::Home home;
    const std::string en = "English/ANSI";
    const std::string fr = "French/ANSI";
    speak({en, fr, "Dutch/RIP", "Portuguese/ANSI"});
    struct {
        std::vector<std::string> list;
        std::vector<int> mslidx;
        int badlang, missing; // names at the list's end
    } const rows[] = {{{"english/ansi", "D", "FRE"}, {0, 2, 1, 0}, 0, 0},
                      {{en, "Portuguese/ANSI"}, {0, 0, 0, 1}, 0, 0},
                      {{en, fr}, {0, 1, 0, 0}, 1, 1},
                      {{fr, en, "Dutch/RIP"}, {0, 0, 2, 0}, 1, 0}, // another default
                      {{en, "", fr}, {0, 2, 0, 0}, 1, 0},
                      {{en, "Portuguese/ANSI1", fr}, {0, 2, 0, 0}, 1, 0},
                      {{en, std::string(1500, 'D'), fr}, {0, 2, 0, 0}, 1, 0}};
    make("language A\nlanguage B\nmessage\ntext A\n|a\ntext B\n|b\n");
    const std::string made = test::slurp("f.mcv");
    for (const auto &r : rows) { // another list, where the trailer was
        std::string file = made.substr(0, made.size() - 16);
        std::string trailer = made.substr(file.size());
        trailer[0] = static_cast<char>(file.size());
        trailer[12] = static_cast<char>(r.list.size() + static_cast<size_t>(r.missing));
        for (const std::string &name : r.list) {
            file += name + '\0';
        }
        test::spew("f.mcv", file + trailer);
        plex::badlang = 0;
        msgblk *mb = plex::opnmsg("f.mcv");
        EXPECT_EQ(std::vector<int>(mb->mslidx, mb->mslidx + 4), r.mslidx) << r.list[1];
        EXPECT_EQ(plex::badlang, r.badlang) << r.list[1];
        done(mb);
    }
    speak({});
}

TEST(Messages, FatalErrors) {
    const test::Home home;
    const std::string endless(5000, 'n');
    EXPECT_TRUE(fatal([&] { plex::opnmsg(endless.c_str()); }).starts_with("CANNOT FIND \"n"));
    EXPECT_EQ(fatal([] { plex::msgbuf = nullptr, plex::rawmsg(0); }), "INIMSG NOT CALLED");
    plex::inimsg(9);
    const std::string range = "MESSAGE NUMBER 0 OUT OF RANGE IN ";
    EXPECT_EQ(fatal([] { plex::rawmsg(0); }), range);
    make(english);
    plex::clsmsg(plex::opnmsg("f.mcv"));
    EXPECT_EQ(fatal([] { plex::msgseek(0); }), range);
    plex::rstmbk();
}

TEST(Messages, TheStack) {
    const test::Home home;
    static msgblk blocks[11];
    for (msgblk &mb : blocks) {
        mb.lstmsg = 5;
        plex::setmbk(&mb);
        EXPECT_EQ(mb.lstmsg, -1);
    }
    for (const int i : {9, 8, 7, 6, 5, 4, 3, 2, 1, 1}) { // the eleventh is lost, the tenth stays
        plex::rstmbk();
        EXPECT_EQ(plex::curmbk, &blocks[i]);
    }
    plex::inimsg(100);
    make(english + text + "text");
    msgblk *under = plex::opnmsg("f.mcv");
    msgblk *over = plex::opnmsg("f.mcv");
    plex::clsmsg(over);
    plex::clsmsg(over); // is closed already
    EXPECT_EQ(plex::curmbk, over);
    strcpy(plex::mfbuff, "as it was");
    EXPECT_STREQ(catfix2(), "as it was");
    plex::rstmbk();
    EXPECT_STREQ(plex::rawmsg(0), "text");
    plex::setmbk(&blocks[0]);
    plex::clsmsg(under); // not the current one; it goes when these push it off the far end
    for (msgblk &mb : blocks) {
        plex::setmbk(&mb);
    }
}

// How many bytes `body` reads, as the kernel counts; it counts this look at its "rchar: N" as well.
long reads(const std::function<void()> &body) {
    const std::string io = test::slurp("/proc/self/io");
    body();
    const long after = atol(test::slurp("/proc/self/io").c_str() + 7);
    return after - atol(io.c_str() + 7) - static_cast<long>(io.size());
}

TEST(Messages, NoMoreIsReadThanIsAskedFor) {
    const test::Home home;
    plex::inimsg(100);
    make(english + "language Dutch/ANSI\n" + text + "a message\ntext Dutch/ANSI\n|one\n" + text +
         "x");
    speak({"English/ANSI", "Dutch/ANSI"});
    plex::clingo = 1;
    EXPECT_EQ(reads([] { plex::opnmsg("f.mcv"); }), 16 + 24 + 12 + 8);
    EXPECT_EQ(reads([] { plex::rawmsg(0); }), 4);
    EXPECT_EQ(reads([] { plex::rawmsg(1); }), 2);
    done(plex::curmbk);
    speak({});
}

} // namespace
