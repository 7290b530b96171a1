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
#include <numeric>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fuzz::speak;

// Runs `body` in a child: the message of the fatal error that ended it, empty when it returned.
std::string fatal(const std::function<void()> &body) {
    const test::Outcome o =
        test::inchild([&] { fuzz::survives(body) || fputs(fuzz::said.c_str(), stdout); });
    return o.status == 0 ? o.out : "status " + std::to_string(o.status) + " " + o.err;
}

// The names that qualify, sorted; those of directories with a "/".
std::string find(const std::string &spec, int attr) {
    std::multiset<std::string> found;
    plex::fndblk fb;
    for (int more = plex::fnd1st(&fb, spec.c_str(), attr); more != 0; more = plex::fndnxt(&fb)) {
        found.insert(fb.name + std::string(fb.attr == 16 ? "/ " : fb.attr == 0 ? " " : "? "));
    }
    return std::accumulate(found.begin(), found.end(), std::string());
}

TEST(Finder, WhatQualifiesAndItsRecord) {
    const test::Home home;
    const std::string longest(255, 'x');
    std::filesystem::create_directories("d.txt");
    for (const std::string &name : {std::string("a.txt"), std::string("d.txt/A.TXT"), longest}) {
        test::spew(name, "");
    }
    mkfifo("fifo.txt", 0600);
    std::filesystem::create_symlink("d.txt", "dlink.txt");
    std::filesystem::create_symlink("nowhere", "dangling.txt");
    const std::tuple<std::string, int, std::string> rows[] = {
        {"?*.txt/", 16, "a.txt d.txt/ dlink.txt/ fifo.txt "},
        {home.path + "/*.txt", 1, "a.txt fifo.txt "},
        {"d.txt/*", 0, "A.TXT "},
        {"/tm?", 16, "tmp/ "},
        {"", 16, ""},
        {"a.txt/*", 16, ""},
        {"x*" + longest.substr(2), 16, longest + " "},
        {std::string(256, '*'), 16, ""}, // too long, like the next one
        {std::string(1023, '/') + "*", 16, ""}};
    plex::fndblk another; // several at once
    ASSERT_EQ(plex::fnd1st(&another, "*.txt", 0), 1);
    for (const auto &[spec, attr, found] : rows) {
        EXPECT_EQ(find(spec, attr), found) << spec.substr(0, 40);
    }
    EXPECT_EQ(plex::fndnxt(&another), 1);
    EXPECT_EQ(plex::fndnxt(&another), 0);
    EXPECT_EQ(plex::fnd1st(&another, "*.txt", 0), 1);
    EXPECT_EQ(plex::fnd1st(&another, std::string(2000, 'x').c_str(), 0), 0);
    EXPECT_EQ(plex::fndnxt(&another), 0); // nothing was begun
    EXPECT_EQ(plex::isfile("d.txt", "A.TXT"), 1);
    EXPECT_EQ(plex::isfile(".", "d.txt") + plex::isfile(".", "fifo.txt"), 0);

    setenv("TZ", "XXX-2", 1);
    test::spew("f", "12345");
    const timespec times[2] = {{0, 0}, {794577659, 0}}; // 1995-03-07 14:00:59 two hours east
    utimensat(AT_FDCWD, "f", times, 0);
    plex::fndblk fb;
    ASSERT_EQ(plex::fndfil(&fb, "f", 0), 1);
    unsetenv("TZ");
    EXPECT_EQ(std::string(fb.dirnam) + " " + fb.filspc + " " + fb.name, ". f f");
    EXPECT_EQ(std::tuple(fb.size, fb.date, fb.time), std::tuple(5, 0x1E67, 0x701D));
    ASSERT_EQ(truncate("f", off_t{INT_MAX} + 9), 0);
    EXPECT_EQ(plex::filstr("f", &fb), 0);
    EXPECT_EQ(fb.size, INT_MAX);
    for (const std::string &name : {std::string("gone"), std::string("."), longest + "x"}) {
        EXPECT_EQ(plex::filstr(name.c_str(), &fb), -1);
    }
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
    for (const auto stop : {plex::tfsabt, +[] { plex::tfsopn("none"); }}) {
        EXPECT_EQ(plex::tfsopn("d/*"), 2);
        EXPECT_EQ(plex::tfsrdl() + plex::tfsrdl(), 2 + 3);
        stop();
        EXPECT_EQ(plex::tfsrdl(), 0);
    }
}

TEST(Scanner, FatalErrors) {
    const test::Home home;
    const std::string toolong = "TFSCAN:  Path too long:\n\"";
    for (const size_t len : {1011u, 1012u, 1023u}) {
        const std::string path = std::string(len - 1, 'd') + "/x";
        EXPECT_EQ(fatal([&] { scan(path); }), len < 1012 ? "" : toolong + path + "\"");
    }
    test::spew("f", "");
    EXPECT_EQ(fatal([] { plex::tfsopn("f"), unlink("f"), plex::tfsrdl(), plex::tfsrdl(); }),
              "TFSCAN: Cannot find \"f\" file");
    const std::string name(255, 'f');
    std::filesystem::create_directory("d");
    test::spew("d/" + name, "");
    for (const size_t at : {768u, 769u}) { // where the name stands in a path
        const std::string dir = "d" + std::string(at - 1, '/');
        EXPECT_EQ(fatal([&] { scan(dir + "*"); }), at < 769 ? "" : toolong + dir + name + "\"");
    }
}

TEST(Languages, TheTableAndItsLookUp) {
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
        all += std::string(l.name) + "|" + l.desc + "|" + l.extans + "|" + l.extasc + "|" +
               l.extibm + "|" + l.editor + "|" + l.yes + "|" + l.no + "|";
    }
    EXPECT_EQ(all, "English/ANSI|English with colour|ans|asc|ibm|an editor|yes|no|"
                   "Portuguese/ASCI||long|long|long||0123456789ab||x||a|b|a||||y||||||||");
    speak({});
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
    // The alternates are walked by tests/plexmsg.py.
    EXPECT_EQ(plex::lngfnd("") + plex::chgspk(0, "English"), -2); // no table
    speak({"English/ANSI", "English/RIP", "French/ANSI", "Plain", "English/A", "French/RIP",
           "Portuguese/ANSI"});
    std::vector<int> found;
    for (const char *name : {"english/ansi", "English/A", "ENGLISH", "pl", "Plain/", ""}) {
        found.push_back(plex::lngfnd(name));
    }
    EXPECT_EQ(found, (std::vector{0, 4, -1, 3, -1, -1}));
    // Its other half; of a name without parts, of what would be one when cut, of none.
    EXPECT_EQ(plex::chgspk(2, "English"), 0);
    EXPECT_EQ(plex::chgprt(1, "A"), 4);
    EXPECT_EQ(plex::chgspk(3, "English") + plex::chgprt(6, "ANSIX"), -2);
    EXPECT_EQ(plex::chgprt(7, "ANSI") + plex::chgprt(-1, "ANSI"), -2);
    speak({});
}

using plex::catfix2;
using plex::msgblk;

// Opens "f.mcv", made of a source.
msgblk *open(const std::string &source) {
    test::spew("f.txt", source);
    EXPECT_EQ(system(BUILD_DIR "/plexmsg compile f.txt f.mcv"), 0);
    return plex::opnmsg("f.mcv");
}

void done() {
    plex::clsmsg(plex::curmbk);
    plex::rstmbk();
}

const std::string text = "message\ntext English/ANSI\n|";
const std::string english = "language English/ANSI\n";

TEST(Messages, OneLanguageAndTheBuffer) {
    const test::Home home;
    EXPECT_EQ(fatal([] { plex::rawmsg(0); }), "INIMSG NOT CALLED");
    open(english), done(); // without a message it is one, too
    open(english + text + "zero\n" + text + "eleven more\n" + text + "no end");
    done();
    std::string file = test::slurp("f.mcv");
    file[18 + 5] = '!'; // where the last text ended
    test::spew("f.mcv", file);
    const msgblk *mb = plex::opnmsg("f.mcv");
    EXPECT_STREQ(catfix2(), "MSG:f.mcv/-1");
    const std::tuple<int, int, const char *, int> rows[] = {{1, 0, "", 1},
                                                            {2, 0, "*", 1},
                                                            {5, 0, "zero", 0},
                                                            {7, 2, "no end!", 0},
                                                            {11, 1, "eleven mo*", 1},
                                                            {8, 1, "eleven mo*", 1},
                                                            {12, 1, "eleven more", 0}};
    for (const auto &[size, msg, shown, cut] : rows) {
        plex::inimsg(size);
        EXPECT_STREQ(plex::rawmsg(msg), shown) << size;
        EXPECT_EQ(std::pair(plex::starit, mb->lstmsg), std::pair(cut, msg)) << size;
    }
    plex::inimsg(5000);
    EXPECT_STREQ(plex::msgbuf, "eleven more"); // what was read stays
    EXPECT_EQ(plex::msgseek(0), 5);
    rename("f.mcv", "abcdefghijklmnop.mcv");
    plex::opnmsg("././././abcdefghijklmnop.mcv");
    EXPECT_STREQ(catfix2(), "MSG:./abcdefghijklmnop.mcv/-1"); // its end, in 30 bytes
    done();
    EXPECT_STREQ(catfix2(), "MSG:f.mcv/1");
    done();
    EXPECT_EQ(fatal([] { plex::msgseek(0); }), "MESSAGE NUMBER 0 OUT OF RANGE IN ");
    const std::string endless(5000, 'n');
    EXPECT_TRUE(fatal([&] { plex::opnmsg(endless.c_str()); }).starts_with("CANNOT FIND \"n"));
}

TEST(Messages, NoMoreIsReadThanIsAskedFor) {
    const test::Home home;
    speak({"English/ANSI", "French/ANSI"});
    open("language A\nlanguage B\nmessage\ntext A\n|a\ntext B\n|b\n");
    done();
    const std::string io = test::slurp("/proc/self/io"); // counts what is read, this too
    plex::opnmsg("f.mcv");
    const long read = atol(test::slurp("/proc/self/io").c_str() + 7) - atol(io.c_str() + 7);
    EXPECT_EQ(read - static_cast<long>(io.size()), 16 + 4 + 8 + 4) << "more than is needed";
    done();
}

TEST(Messages, LanguageLists) {
    const test::Home home;
    const std::string en = "English/ANSI";
    const std::string fr = "French/ANSI";
    speak({en, fr, "Dutch/RIP", "Portuguese/ANSI"});
    using Strings = std::vector<std::string>;
    using Numbers = std::vector<int>;
    // The file's; what the table has of them; whether that is a bad list; names missing at its end.
    const std::tuple<Strings, Numbers, int, int> rows[] = {
        {{"english/ansi", "D", "FRE"}, {0, 2, 1, 0}, 0, 0},
        {{en, "Portuguese/ANSI"}, {0, 0, 0, 1}, 0, 0},
        {{en, fr}, {0, 1, 0, 0}, 1, 1},
        {{fr, en, "Dutch/RIP"}, {0, 0, 2, 0}, 1, 0}, // another default
        {{en, "", fr}, {0, 2, 0, 0}, 1, 0},
        {{en, "Portuguese/ANSI1", fr}, {0, 2, 0, 0}, 1, 0},
        {{en, std::string(1500, 'D'), fr}, {0, 2, 0, 0}, 1, 0}};
    open("language A\nlanguage B\nmessage\ntext A\n|a\ntext B\n|b\n");
    done();
    const std::string made = test::slurp("f.mcv");
    for (const auto &[list, mslidx, badlang, missing] : rows) { // where the trailer was
        std::string file = made.substr(0, made.size() - 16);
        std::string trailer = made.substr(file.size());
        trailer[0] = static_cast<char>(file.size());
        trailer[12] = static_cast<char>(static_cast<int>(list.size()) + missing);
        for (const std::string &name : list) {
            file += name + '\0';
        }
        test::spew("f.mcv", file + trailer);
        plex::badlang = 0;
        const int *got = plex::opnmsg("f.mcv")->mslidx;
        EXPECT_EQ(Numbers(got, got + 4), mslidx) << list[1];
        EXPECT_EQ(plex::badlang, badlang) << list[1];
        done();
    }
    speak({});
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
    msgblk *under = open(english + text + "text");
    msgblk *over = plex::opnmsg("f.mcv");
    plex::clsmsg(over);
    plex::clsmsg(over); // is closed already
    EXPECT_EQ(plex::curmbk, over);
    EXPECT_EQ(fatal([] { plex::msgseek(0); }), "MESSAGE NUMBER 0 OUT OF RANGE IN ");
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

} // namespace
