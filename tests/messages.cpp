// What a program gets of message files, which plexmsg makes here. What plexmsg itself shows of
// them, damaged ones too, tests/plexmsg.py looks at.

#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"
#include "libsrc/common/msgfile.h"
#include "tests/common.h"

#include <cstdlib>
#include <cstring>

namespace {

using plex::msgblk;

// Makes "f.mcv" of a source.
void make(const std::string &source) {
    test::spew("f.txt", source);
    EXPECT_EQ(test::Program({BUILD_DIR "/plexmsg", "compile", "f.txt", "f.mcv"}).wait().code(), 0);
}

void close(msgblk *mb) {
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
    EXPECT_STREQ(plex::catfix2(), "MSG:f.mcv/-1");
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
    EXPECT_STREQ(plex::catfix2(), "MSG:f.mcv/1");
    rename("f.mcv", "abcdefghijklmnop.mcv");
    msgblk *other = plex::opnmsg("././././abcdefghijklmnop.mcv");
    EXPECT_STREQ(plex::catfix2(), "MSG:./abcdefghijklmnop.mcv/-1"); // its end, in 30 bytes
    close(other);
    close(mb);
}

TEST(Messages, LanguageLists) {
    const test::Home home;
    const std::string en = "English/ANSI";
    const std::string fr = "French/ANSI";
    test::speak({en, fr, "Dutch/RIP", "Portuguese/ANSI"});
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
        std::string trailer = made.substr(made.size() - 16);
        trailer[0] = static_cast<char>(made.size() - 16);
        trailer[12] = static_cast<char>(r.list.size() + static_cast<size_t>(r.missing));
        std::string file = made.substr(0, made.size() - 16);
        for (const std::string &name : r.list) {
            file += name + '\0';
        }
        test::spew("f.mcv", file + trailer);
        plex::badlang = 0;
        msgblk *mb = plex::opnmsg("f.mcv");
        EXPECT_EQ(std::vector<int>(mb->mslidx, mb->mslidx + 4), r.mslidx) << r.list[1];
        EXPECT_EQ(plex::badlang, r.badlang) << r.list[1];
        close(mb);
    }
    test::speak({});
}

TEST(Messages, FatalErrors) {
    const test::Home home;
    EXPECT_EQ(test::fatal([] { plex::opnmsg("none"); }), "CANNOT FIND \"none\"");
    const std::string endless(5000, 'n');
    EXPECT_TRUE(test::fatal([&] { plex::opnmsg(endless.c_str()); }).starts_with("CANNOT FIND \"n"));
    EXPECT_EQ(test::fatal([] {
                  plex::msgbuf = nullptr;
                  plex::rawmsg(0);
              }),
              "INIMSG NOT CALLED");
    plex::inimsg(9);
    const std::string range = "MESSAGE NUMBER 0 OUT OF RANGE IN ";
    EXPECT_EQ(test::fatal([] { plex::rawmsg(0); }), range);
    make(english);
    plex::clsmsg(plex::opnmsg("f.mcv"));
    EXPECT_EQ(test::fatal([] { plex::msgseek(0); }), range);
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
    EXPECT_STREQ(plex::catfix2(), "as it was");
    plex::rstmbk();
    EXPECT_STREQ(plex::rawmsg(0), "text");
    plex::setmbk(&blocks[0]);
    plex::clsmsg(under); // not the current one; it goes when these push it off the far end
    for (msgblk &mb : blocks) {
        plex::setmbk(&mb);
    }
}

// How many calls read how many bytes in `body`, as the kernel counts.
std::pair<long, long> reads(const std::function<void()> &body) {
    std::string io;
    const auto counted = [&] {
        io = test::slurp("/proc/self/io");
        return std::pair(atol(io.c_str() + io.find("syscr:") + 6), atol(io.c_str() + 6));
    };
    const long idle = counted().first;
    const auto before = counted();
    const auto own = static_cast<long>(io.size()); // looking counts as well
    body();
    const auto after = counted();
    return {after.first - before.first - (before.first - idle), after.second - before.second - own};
}

TEST(Messages, NoMoreIsReadThanIsAskedFor) {
    const test::Home home;
    plex::inimsg(100);
    make(english + "language French/ANSI\n" + text + "a message\ntext French/ANSI\n|one\n" + text +
         "x");
    test::speak({"English/ANSI", "French/ANSI"});
    plex::clingo = 1;
    msgblk *mb = nullptr;
    EXPECT_EQ(reads([&] { mb = plex::opnmsg("f.mcv"); }), std::pair(4L, 16L + 25 + 12 + 8));
    EXPECT_EQ(reads([] { plex::rawmsg(0); }), std::pair(1L, 4L));
    EXPECT_EQ(reads([] { plex::rawmsg(1); }), std::pair(1L, 2L));
    close(mb);
    test::speak({});
}

} // namespace
