// The file finder, the scanner of text files, the table of languages.

#include "libsrc/common/lingo.h"
#include "libsrc/common/tfscan.h"
#include "libunix/common/fndfil.h"
#include "tests/common.h"
#include "tests/support.h"

#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Names = std::multiset<std::string>;

Names find(const std::string &spec, int attr) {
    Names found;
    plex::fndblk fb;
    for (int more = plex::fnd1st(&fb, spec.c_str(), attr); more != 0; more = plex::fndnxt(&fb)) {
        found.insert(std::string(fb.name) + (fb.attr == 16 ? "/" : fb.attr == 0 ? "" : "?"));
    }
    return found;
}

TEST(Finder, WhatQualifies) {
    const test::Home home;
    const std::string longest(255, 'x');
    std::filesystem::create_directories("d.txt");
    for (const std::string &name : {std::string("a.txt"), std::string("d.txt/A.TXT"), longest}) {
        test::spew(name, "");
    }
    mkfifo("fifo.txt", 0600);
    EXPECT_EQ(symlink("a.txt", "link.txt"), 0);
    EXPECT_EQ(symlink("d.txt", "dlink.txt"), 0);
    EXPECT_EQ(symlink("nowhere", "dangling.txt"), 0);
    const Names files = {"a.txt", "fifo.txt", "link.txt"};
    const std::pair<std::string, Names> rows[] = {
        {"?*.txt/", {"a.txt", "d.txt/", "dlink.txt/", "fifo.txt", "link.txt"}},
        {"d.txt/*", {"A.TXT"}},
        {"/tm?", {"tmp/"}},
        {"/", {}},
        {"", {}},
        {"a.txt/*", {}},
        {"x*" + longest.substr(2), {longest}},
        {std::string(256, '*'), {}}, // too long, like the next one
        {std::string(1023, '/') + "*", {}}};
    for (const auto &[spec, want] : rows) {
        EXPECT_EQ(find(spec, 16), want) << spec.substr(0, 40);
    }
    EXPECT_EQ(find("*.txt", 0), files);
    EXPECT_EQ(find(home.path + "/*.txt", 1), files);
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

TEST(Finder, InAChangingDirectory) {
    const test::Home home;
    for (int i = 0; i < 1000; i++) {
        test::spew(std::to_string(i) + ".f", "");
    }
    const int unused = test::nextfd();
    plex::fndblk fb;
    plex::fndblk other; // several at once
    ASSERT_EQ(plex::fnd1st(&other, "7.f", 0), 1);
    std::set<std::string> old;
    int found = 0;
    for (int more = plex::fnd1st(&fb, "*", 0); more != 0 && ++found < 5000;
         more = plex::fndnxt(&fb)) {
        old.insert(fb.name);
        test::spew(std::to_string(found % 100) + ".new", "");
        found % 2 == 0 ? unlink(fb.name) : 0;
    }
    EXPECT_LT(found, 5000);
    EXPECT_GT(old.size(), 900u);
    std::filesystem::remove_all(home.path);
    EXPECT_EQ(plex::fndnxt(&other), 0);
    EXPECT_EQ(test::nextfd(), unused);
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
        EXPECT_EQ(test::fatal([&] { scan(path); }), len < 1012 ? "" : toolong + path + "\"");
    }
    test::spew("f", "");
    plex::tfsopn("f*");
    unlink("f");
    EXPECT_EQ(test::fatal([] { plex::tfsrdl() == 2 && plex::tfsrdl(); }),
              "TFSCAN: Cannot find \"f\" file");
    // A name that is longer than what the directory leaves of a path, and one that is not.
    const std::string d = std::string(199, 'd') + "/";
    const std::string dir = d + d + d + d;
    const std::string name(1024 - dir.size(), 'f');
    std::filesystem::create_directories(dir);
    test::spew(dir + name, "");
    EXPECT_EQ(test::fatal([&] { scan(dir + "*"); }), toolong + dir + name + "\"");
    std::filesystem::rename(dir + name, dir + name.substr(1));
    EXPECT_EQ(scan(dir + "*"), "1:124");
}

TEST(Languages, TheTable) {
    const test::Home home;
    test::spew("pxhost.cfg",
               "LNG=not yet\nLNGDSC=nor this\nnlingo =9\nnLingo= 2 or so\nNLingo=7\n"
               "LNG=English/ANSI\nLNGDSC=English with colour\nlngext=ans;asc, ibm x\n"
               "LNGEDT=an editor\nLNGYES= yes\nLNGNO=no\nLNGXYZ=x\nLNG=\nOTHER=1\n"
               "LNG=Portuguese/ASCII/long\nLNGYES=0123456789abcdef\nLNGEXT=longest\n");
    test::speak({});
    plex::inilingo();
    ASSERT_EQ(plex::nlingo, 2);
    unlink("pxhost.cfg");
    plex::inilingo(); // read once
    std::string all;
    for (const plex::lingo *lp : {plex::languages[0], plex::languages[1]}) {
        for (const char *field : {lp->name, lp->desc, lp->extans, lp->extasc, lp->extibm,
                                  lp->editor, lp->yes, lp->no}) {
            all += field + std::string("|");
        }
    }
    EXPECT_EQ(all, "English/ANSI|English with colour|ans|asc|ibm|an editor|yes|no|"
                   "Portuguese/ASCI||long|long|long||0123456789ab||");
    plex::stfext(plex::languages[0], "a b");
    EXPECT_STREQ(plex::languages[0]->extibm, "a");
    plex::stfext(plex::languages[0], " ;");
    EXPECT_STREQ(plex::languages[0]->extans, "");
    test::speak({});
}

TEST(Languages, FatalErrors) {
    const test::Home home;
    EXPECT_EQ(test::fatal(plex::inilingo), "CANNOT FIND pxhost.cfg");
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
        EXPECT_EQ(test::fatal(plex::inilingo), r[1]) << r[0];
    }
}

TEST(Languages, LookUpAndAlternates) {
    EXPECT_EQ(plex::lngfnd("") + plex::chgspk(0, "English"), -2); // no table
    test::speak({"English/ANSI", "English/RIP", "French/ANSI", "Plain", "English/A", "French/RIP",
                 "Portuguese/ANSI"});
    const std::string long5000(5000, 'x');
    const int rows[][2] = {{plex::lngfnd("english/ansi"), 0},
                           {plex::lngfnd("ENGLISH"), -1},
                           {plex::lngfnd("pl"), 3},
                           {plex::lngfnd("English/A"), 4},
                           {plex::lngfnd(""), -1},
                           {plex::lngfnd("Plain/"), -1},
                           {plex::chgspk(2, "English"), 0},
                           {plex::chgprt(1, "A"), 4},
                           {plex::chgspk(3, "English"), -1}, // its name has no parts
                           {plex::chgprt(6, "ANSIX"), -1},   // is not what is left when it is cut
                           {plex::chgspk(2, long5000.c_str()), -1},
                           {plex::chgprt(7, "ANSI"), -1},
                           {plex::chgprt(-1, "ANSI"), -1}};
    for (const auto &[got, want] : rows) {
        EXPECT_EQ(got, want) << &got - rows[0];
    }
    const auto walk = [](const char *from) {
        std::string text = std::to_string(plex::alg1st(plex::lngfnd(from)));
        for (int i = 0; i < 3; i++) {
            text += std::to_string(plex::algnxt());
        }
        return text;
    };
    EXPECT_EQ(walk("French/RIP") + walk("French/ANSI") + walk("English/RIP"), "521020001000");
    test::speak({"Dutch/X", "English/RIP", "French/RIP"});
    EXPECT_EQ(walk("French/RIP"), "2100");
    test::speak({"Dutch/X", "French/ANSI", "French/RIP"});
    EXPECT_EQ(walk("French/RIP"), "2100");
    test::speak({});
}

} // namespace
