// Message files: read from files made here byte by byte, and made and shown by plexmsg.

#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"
#include "libsrc/common/msgfile.h"
#include "tests/common.h"
#include "tests/support.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Strings = std::vector<std::string>;
using plex::msgblk;

std::string le(size_t value, size_t size) {
    return size == 0 ? "" : static_cast<char>(value & 0xFF) + le(value >> 8, size - 1);
}

// A message file of messages with a text for each language, as stored: the tables, then the texts,
// then the languages.
std::string mcv(const Strings &languages, const std::vector<Strings> &messages) {
    const size_t l = languages.size();
    const size_t lenlist = (messages.size() + 1) * 4;
    const size_t base = lenlist + (l > 1 ? messages.size() * l * 2 : 0);
    std::string locations;
    std::string lengths;
    std::string rest;
    for (const Strings &texts : messages) {
        locations += le(base + rest.size(), 4);
        for (const std::string &text : texts) {
            lengths += le(text.size(), 2);
            rest += text;
        }
    }
    const std::string end = le(base + rest.size(), 4); // of the texts, where the languages begin
    for (const std::string &name : languages) {
        rest += name + '\0';
    }
    return locations + end + (l > 1 ? lengths : "") + rest + end + le(lenlist, 4) + le(0, 4) +
           le(l, 2) + le(messages.size(), 2);
}

// The file with another number at an offset, counted from its end when negative.
std::string patch(std::string file, int at, int value, size_t size) {
    return file.replace(static_cast<size_t>(at) + (at < 0 ? file.size() : 0), size,
                        le(static_cast<size_t>(value), size));
}

std::string z(const std::string &text) {
    return text + '\0';
}

msgblk *open(const std::string &bytes) {
    test::spew("f.mcv", bytes);
    return plex::opnmsg("f.mcv");
}

void close(msgblk *mb) {
    plex::clsmsg(mb);
    plex::rstmbk();
}

TEST(Messages, OneLanguageAndTheBuffer) {
    const test::Home home;
    msgblk *mb = open(mcv({"English/ANSI"}, {{z("zero")}, {z("eleven more")}, {"no end"}}));
    EXPECT_EQ(mb->lengths, nullptr);
    EXPECT_STREQ(plex::catfix2(), "MSG:f.mcv/-1");
    struct {
        int size, msg;
        const char *text;
        int cut;
    } const rows[] = {{1, 0, "", 1},           {2, 0, "*", 1},           {4, 0, "ze*", 1},
                      {5, 0, "zero", 0},       {6, 2, "no end", 0},      {11, 1, "eleven mo*", 1},
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
    mkdir("directory", 0700);
    rename("f.mcv", "directory/abcdefgh.mcv");
    msgblk *other = plex::opnmsg("././././directory/abcdefgh.mcv");
    EXPECT_STREQ(plex::catfix2(), "MSG:directory/abcdefgh.mcv/-1"); // the end of it, in 30 bytes
    close(other);
    close(mb);
}

TEST(Messages, FallBackAlongTheChain) {
    const test::Home home;
    plex::inimsg(100);
    const std::string file = mcv({"English/ANSI", "French/RIP", "French/ANSI", "English/RIP"},
                                 {{z("0eA"), z("0 French RIP"), z("0fr ANSI"), z("0eRIP")},
                                  {z("1eA"), "", z("1fr ANSI"), z("1eRIP")},
                                  {z("2eA"), "", "", z("2eRIP")},
                                  {z("3eA"), "", "", ""}});
    msgblk *mb = open(file); // no table: the default only
    test::speak({"English/ANSI", "English/RIP", "French/ANSI", "French/RIP", "German/RIP"});
    plex::clingo = 3;
    EXPECT_STREQ(plex::rawmsg(1), "1eA");
    close(mb);
    mb = open(file);
    struct {
        int clingo, msg;
        const char *text;
        int rlingo, mslidx;
    } const rows[] = {{3, 0, "0 French RIP", 3, 1}, {3, 1, "1fr ANSI", 2, 2}, {3, 2, "2eRIP", 1, 3},
                      {3, 3, "3eA", 0, 0},          {4, 0, "0eRIP", 1, 3},    {4, 3, "3eA", 0, 0},
                      {2, 0, "0fr ANSI", 2, 2},     {2, 2, "2eA", 0, 0},      {1, 2, "2eRIP", 1, 3},
                      {0, 0, "0eA", 0, 0},          {99, 0, "0eA", 0, 0},     {-1, 0, "0eA", 0, 0}};
    for (const auto &r : rows) {
        plex::clingo = r.clingo;
        EXPECT_STREQ(plex::rawmsg(r.msg), r.text) << r.clingo;
        EXPECT_EQ(plex::rlingo, r.rlingo) << r.text;
        EXPECT_EQ(plex::mslidx, r.mslidx) << r.text;
    }
    close(mb);
    EXPECT_EQ(plex::badlang, 0);
    test::speak({});
}

TEST(Messages, LanguageLists) {
    const test::Home home;
    const std::string en = "English/ANSI";
    const std::string fr = "French/ANSI";
    test::speak({en, fr, "Dutch/RIP", "Portuguese/ANSI"});
    struct {
        Strings list;
        std::vector<int> mslidx;
        int badlang;
    } const rows[] = {{{"english/ansi", "D", "FRE"}, {0, 2, 1, 0}, 0},
                      {{en, "Portuguese/ANSI"}, {0, 0, 0, 1}, 0},
                      {{fr, en, "Dutch/RIP"}, {0, 0, 2, 0}, 1}, // another default
                      {{en, "", fr}, {0, 2, 0, 0}, 1},
                      {{en, "Portuguese/ANSI1", fr}, {0, 2, 0, 0}, 1},
                      {{en, std::string(1500, 'D'), fr}, {0, 2, 0, 0}, 1}};
    for (const auto &r : rows) {
        plex::badlang = 0;
        msgblk *mb = open(mcv(r.list, {}));
        EXPECT_EQ(std::vector<int>(mb->mslidx, mb->mslidx + 4), r.mslidx) << r.list[1];
        EXPECT_EQ(plex::badlang, r.badlang) << r.list[1];
        close(mb);
    }
    plex::badlang = 0;
    close(open(patch(mcv({en, fr}, {}), -4, 3, 2))); // one name fewer than languages
    EXPECT_EQ(plex::badlang, 1);
    test::speak({});
}

TEST(Messages, FatalErrors) {
    const test::Home home;
    const std::string good = mcv({"A", "B"}, {{z("one"), z("eins")}, {"", ""}});
    const std::string single = mcv({"A"}, {{z("one")}, {std::string(40000, 't')}});
    const std::string many = mcv({"A", "B"}, std::vector<Strings>(16384, {"", ""}));
    const std::string most = mcv(Strings(7, "A"), std::vector<Strings>(4681, Strings(7, z("x"))));
    const std::string variables = "CANNOT READ \"f.mcv\" VARIABLES";
    const std::string pointers = "CANNOT READ \"f.mcv\" POINTER ARRAY";
    const std::string table = "CANNOT READ \"f.mcv\" LENGTH TABLE";
    const std::string seek = "CANNOT SEEK MESSAGE NUMBER 0 (LANGUAGE 0) IN f.mcv\n";
    const std::string read = "CANNOT READ MESSAGE NUMBER 0 (LANGUAGE 0) IN f.mcv";
    struct {
        std::string bytes;
        int msg;
        std::string text;
    } const rows[] = {{good, 0, ""},
                      {good, 1, "CANNOT READ MESSAGE NUMBER 1 (LANGUAGE 0) IN f.mcv"}, // no text
                      {good, 2, "MESSAGE NUMBER 2 OUT OF RANGE IN f.mcv"},
                      {good, -1, "MESSAGE NUMBER -1 OUT OF RANGE IN f.mcv"},
                      {good.substr(0, 15), 0, variables},
                      {patch(good, -16, -1, 4), 0, variables}, // the language list
                      {patch(good, -4, 0, 2), 0, variables},   // how many languages
                      {patch(good, -2, -1, 2), 0, variables},  // and messages
                      {patch(good, -8, -1, 4), 0, pointers},
                      {patch(good, -8, INT32_MAX, 4), 0, pointers},
                      {patch(good, -2, 16000, 2), 0, pointers},
                      {patch(good, -12, -1, 4), 0, table},
                      {patch(good, -12, INT32_MAX, 4), 0, table},
                      {patch(good, 0, -20, 4), 0, seek},
                      {patch(good, 0, static_cast<int>(good.size()) - 2, 4), 0, read},
                      {patch(single, 4, 0, 4), 0, read}, // ends before it begins
                      {patch(mcv({"A"}, {{z("one")}}), 4, INT32_MAX, 4), 0, read},
                      {many, 0, "TOO MANY LANGUAGES (2) & MESSAGES (16384) IN \"f.mcv\""},
                      {most, 4680, ""}};
    for (const auto &r : rows) {
        const auto body = [&] {
            plex::inimsg(INT16_MAX);
            open(r.bytes);
            plex::rawmsg(r.msg);
        };
        EXPECT_EQ(test::fatal(body), r.text) << &r - rows;
    }
    const std::string endless(5000, 'n');
    EXPECT_EQ(test::fatal([] { plex::opnmsg("none"); }), "CANNOT FIND \"none\"");
    EXPECT_EQ(test::fatal([] { plex::opnmsg("./"); }), "CANNOT READ \"./\" VARIABLES");
    EXPECT_TRUE(test::fatal([&] { plex::opnmsg(endless.c_str()); }).starts_with("CANNOT FIND \"n"));
    plex::inimsg(9);
    EXPECT_EQ(test::fatal([] { plex::rawmsg(0); }), "MESSAGE NUMBER 0 OUT OF RANGE IN ");
    plex::clsmsg(open(good));
    EXPECT_EQ(test::fatal([] { plex::rawmsg(0); }), "MESSAGE NUMBER 0 OUT OF RANGE IN ");
    plex::rstmbk();
    EXPECT_EQ(test::fatal([] {
                  plex::msgbuf = nullptr;
                  plex::rawmsg(0);
              }),
              "INIMSG NOT CALLED");
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
    const std::string file = mcv({"A"}, {{z("text")}});
    msgblk *under = open(file);
    msgblk *over = open(file);
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

// The seeks and reads that `body` makes, and a "|" for each call of `mark`.
std::string calls(const std::function<void(void (*mark)())> &body) {
    const pid_t pid = fork();
    if (pid == 0) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        body([] { syscall(SYS_getppid); });
        _exit(0);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    std::string text;
    uint64_t number = 0;
    while (ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFSTOPPED(status)) {
        __ptrace_syscall_info info = {};
        ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info);
        if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
            number = info.entry.nr;
            text += number == SYS_getppid ? "| " : number == SYS_lseek ? "seek " : "";
#ifdef SYS__llseek
            text += number == SYS__llseek ? "seek " : "";
#endif
        } else if (info.op == PTRACE_SYSCALL_INFO_EXIT && number == SYS_read) {
            text += "read:" + std::to_string(info.exit.rval) + " ";
        }
    }
    return text;
}

// What plexmsg does with these words: what it writes, and its status unless that is 0.
std::string plexmsg(Strings args, const std::string &mcvpath = "") {
    args.insert(args.begin(), BUILD_DIR "/plexmsg");
    const test::Outcome outcome = test::Program(args, {"MCVPATH=" + mcvpath}).wait();
    return outcome.out + outcome.err + (outcome.code() != 0 ? std::to_string(outcome.code()) : "");
}

TEST(Messages, OneSeekAndOneRead) {
    const test::Home home;
    test::speak({"English/ANSI", "French/ANSI"});
    plex::inimsg(100);
    test::spew("big.mcv", mcv({"English/ANSI"}, std::vector<Strings>(32767, {z("a message")})));
    test::spew("two.txt", "language English/ANSI\nlanguage French/ANSI\nmessage\n"
                          "text English/ANSI\n|one\ntext French/ANSI\n|une");
    EXPECT_EQ(plexmsg({"compile", "two.txt", "two.mcv"}), "");
    EXPECT_EQ(calls([](auto mark) {
                  plex::clingo = 1;
                  plex::opnmsg("big.mcv");
                  mark();
                  plex::rawmsg(32766);
                  plex::rawmsg(0);
                  mark();
                  plex::opnmsg("two.mcv");
                  mark();
                  plex::rawmsg(0);
              }),
              "seek read:16 seek read:13 seek read:131072 | seek read:10 seek read:10 | "
              "seek read:16 seek read:25 seek read:8 seek read:4 | seek read:4 ");
    test::speak({});
}

TEST(Messages, Directory) {
    const std::string x(79, 'x');
    const std::string rows[][3] = {
        {"/none", "a.mcv", "/none/a.mcv"}, {"/none/", "a.mcv", "/none/a.mcv"},
        {"c:", "a.mcv", "c:a.mcv"},        {"", "a.mcv", "a.mcv"},
        {"/none", "d/a.mcv", "d/a.mcv"},   {"/none", "c:a.mcv", "c:a.mcv"},
        {"/none", "cc:a", "/none/cc:a"},   {x + "yy", "a.mcv", x + "/a.mcv"}};
    for (const auto &r : rows) {
        EXPECT_EQ(plexmsg({"list", r[1]}, r[0]), "plexmsg: CANNOT FIND \"" + r[2] + "\"\n1");
    }
}

TEST(Plexmsg, CompileListShow) {
    const test::Home home;
    test::spew("s.txt", "# two languages\nlanguage English/ANSI\nlanguage French/ANSI\n\n"
                        "message HELLO\ntext French/ANSI\n|Bonjour\\x21\n"
                        "text english/ansi\n|  \\e[1mHello \\\n|there,\n|\n|\\\\ # no comment \r\n"
                        "message 3 BYE\n text English/ANSI \n|Bye\n"
                        "message 2\ntext English/ANSI\n|Two\ntext French/ANSI\n|\n");
    EXPECT_EQ(plexmsg({"compile", "-n", "n.h", "s.txt", "s.mcv"}), "");
    EXPECT_TRUE(
        test::slurp("n.h").ends_with("\nconstexpr int HELLO = 0;\nconstexpr int BYE = 3;\n"));
    EXPECT_EQ(plexmsg({"list", "s.mcv"}),
              "s.mcv: 2 languages, 4 messages\nlanguage 0 English/ANSI\nlanguage 1 French/ANSI\n"
              "message 0 English/ANSI 36 \"  \\x1B[1mHello there,\\n\\n\\\\ # no comment \"\n"
              "message 0 French/ANSI 9 \"Bonjour!\"\nmessage 1 has no text\n"
              "message 2 English/ANSI 4 \"Two\"\nmessage 2 French/ANSI 1 \"\"\n"
              "message 3 English/ANSI 4 \"Bye\"\n");
    const std::pair<Strings, std::string> rows[] = {
        {{"0", "-l", "french"}, "Bonjour!\n"},
        {{"0"}, "  \x1B[1mHello there,\n\n\\ # no comment \n"},
        {{"3", "-l", "f"}, "Bye\nplexmsg: no text in French/ANSI, this is English/ANSI\n"},
        {{"0", "-l", "French/RIP"},
         "Bonjour!\nplexmsg: no text in French/RIP, this is French/ANSI\n"},
        {{"0", "-l", "x"}, "plexmsg: s.mcv has no language \"x\", or several\n1"},
        {{"1x"}, "plexmsg: \"1x\" is not a message number\n1"}};
    for (const auto &[args, want] : rows) {
        Strings words = {"show", "s.mcv"};
        words.insert(words.end(), args.begin(), args.end());
        EXPECT_EQ(plexmsg(words), want);
    }
    EXPECT_EQ(plexmsg({"compile", "s.txt", "none/s.mcv"}),
              "plexmsg: cannot write none/s.mcv: No such file or directory\n1");
    EXPECT_EQ(plexmsg({"compile", ".", "out"}), "plexmsg: cannot read .: Is a directory\n1");
}

TEST(Plexmsg, SourceErrors) {
    const test::Home home;
    test::spew("s", "|x\nlanguage 1234567890123456\nlanguage A\nlanguage a\nlanguage B\nmessage X\n"
                    "text B\n|x\nlanguage C\nmessage 0 a-b\ntext A\nmessage 1x X y\ntext A\n"
                    "|\\q\\x0g\n|\\x00" +
                        std::string(1, '\0') +
                        "\ntext A\n|x\ntext C\nhello\n|x\n"
                        "message 32767\ntext B\n|" +
                        std::string(65535, 'x'));
    EXPECT_EQ(plexmsg({"compile", "s", "out"}),
              "s:1: this line belongs to no text\n"
              "s:2: a language has a name of 1 to 15 bytes\n"
              "s:4: there is a language \"a\" already\n"
              "s:6: this message has no text in the default language\n"
              "s:9: languages come before the first message\n"
              "s:10: \"a-b\" is not a name: letters, digits and \"_\", no digit first\n"
              "s:10: message 0 stands in line 6 already\n"
              "s:11: this text has no lines\n"
              "s:12: \"1x\" is not a message number\n"
              "s:12: there is a message \"X\" already\n"
              "s:12: \"y\" is more than a number and a name\n"
              "s:14: unknown: \\q\n"
              "s:14: \\x takes two hexadecimal digits, not 00\n"
              "s:15: \\x takes two hexadecimal digits, not 00\n"
              "s:15: a text cannot hold a zero byte\n"
              "s:16: message 1 has a text in A already\n"
              "s:18: there is no language \"C\"\n"
              "s:19: not a language, a message, a text, or a line of a text\n"
              "s:21: message numbers go up to 32766\n"
              "s:22: a text belongs to a message\n"
              "s:22: this text is longer than 65534 bytes\n1");
    test::spew("s", "language A\nlanguage B\nmessage 16383\ntext A\n|x\n");
    EXPECT_EQ(plexmsg({"compile", "s", "out"}),
              "s:5: 2 languages times 16384 messages are more than 32767\n1");
    EXPECT_FALSE(test::exists("out"));
}

TEST(Plexmsg, WritesWhereItIsTold) {
    const test::Home home;
    test::spew("s", "\xEF\xBB\xBFlanguage A\r\nmessage\n text A\n\t|x\n"); // a mark, blanks
    const std::string name(250, 'n');
    test::spew("kept", "old");
    chmod("kept", 0640);
    EXPECT_EQ(symlink("kept", "link") | symlink("../kept", "dangling") | mkdir("d", 0700), 0);
    EXPECT_EQ(rename("dangling", "d/dangling") | symlink("to/come", "d/later"), 0);
    mkdir("d/to", 0700);
    for (const std::string &out : {name, std::string("kept"), std::string("link"),
                                   std::string("d/dangling"), std::string("d/later")}) {
        EXPECT_EQ(plexmsg({"compile", "s", out}), "");
        EXPECT_EQ(plexmsg({"show", "./" + out, "0"}), "x\n");
    }
    struct stat st = {};
    EXPECT_TRUE(stat("kept", &st) == 0 && (st.st_mode & 07777) == 0640) << st.st_mode;
    EXPECT_TRUE(lstat("link", &st) == 0 && S_ISLNK(st.st_mode));
    EXPECT_TRUE(test::exists("d/to/come"));
    mkfifo("pipe", 0600);
    const int reading = ::open("pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(plexmsg({"compile", "-n", "/dev/stderr", "s", "pipe"}),
              "// The numbers of the messages. Made by plexmsg.\n#pragma once\n\n");
    EXPECT_TRUE(test::drain(reading) == test::slurp("kept"));
    ::close(reading);
    const std::string refused[][4] = {
        {"s", "./s", "n", "./s"}, {"s", "out", "s", "s"}, {"s", "out", "out", "out"}};
    for (const auto &r : refused) {
        EXPECT_EQ(plexmsg({"compile", "-n", r[2], r[0], r[1]}),
                  "plexmsg: " + r[3] + " cannot be two files at once\n1");
    }
    EXPECT_FALSE(test::exists("out"));
    EXPECT_EQ(plexmsg({"compile", "none", "out"}),
              "plexmsg: cannot read none: No such file or directory\n1");
    test::spew("s", "language A\nmessage class\ntext A\n|x\n");
    EXPECT_EQ(plexmsg({"compile", "s", "out"}), "s:2: \"class\" is a word of C++ itself\n1");
}

TEST(Plexmsg, ManyAndOddLanguages) {
    const test::Home home;
    std::string many;
    for (int i = 0; i < 32768; i++) {
        many += "language English" + std::to_string(i) + "\n";
    }
    test::spew("s", many);
    EXPECT_EQ(plexmsg({"compile", "s", "out"}), "s:32768: 32768 languages are more than 32767\n1");
    test::spew("s",
               many.substr(0, many.find("language English32767")) + "message\ntext English0\n|x");
    EXPECT_EQ(plexmsg({"compile", "s", "many"}), ""); // and well within patience
    EXPECT_EQ(plexmsg({"show", "-l", "English/X", "many", "0"}),
              "x\nplexmsg: no text in English/X, this is English0\n");
    test::spew("odd", mcv({"A\33[2J", "b", "a\33[2J", "B", std::string(20, 'l')},
                          {{z("0"), z("1"), z("2"), z("3"), z("4")}}));
    EXPECT_EQ(plexmsg({"list", "odd"}),
              "odd: 5 languages, 1 messages\nlanguage 0 A\\x1B[2J\n"
              "language 1 b (never found)\nlanguage 2 a\\x1B[2J (never found)\nlanguage 3 B\n"
              "language 4 lllllllllllllll (never found)\n"
              "message 0 A\\x1B[2J 2 \"0\"\nmessage 0 B 2 \"3\"\n");
    const auto full = test::Program({"sh", "-c", BUILD_DIR "/plexmsg list many >/dev/full"}).wait();
    EXPECT_EQ(full.err, "plexmsg: standard output: No space left on device\n");
    EXPECT_EQ(full.code(), 1);
}

} // namespace
