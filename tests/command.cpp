// Command strings: the passes, the splitting, the execution.

#include "libunix/plumbing/prsstr.h"
#include "tests/support.h"

#include <csignal>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using test::inchild;
using test::Outcome;

// The words that a command string is split into, as they reach the program.
std::vector<std::string> words(std::string text) {
    std::vector<std::string> all;
    plex::rdustr(text.data());
    for (char *w = plex::tokstr(text.data()); w != nullptr; w = plex::tokstr(nullptr)) {
        plex::rmsurq(w);
        plex::rmbksl(w);
        all.emplace_back(w);
    }
    return all;
}

TEST(Command, Words) {
    const struct {
        const char *text;
        std::vector<std::string> words;
    } rows[] = {
        {"/bin/ls -l /tmp", {"/bin/ls", "-l", "/tmp"}},
        {"/usr/bin/grep \"two words\" file", {"/usr/bin/grep", "two words", "file"}},
        {"/bin/echo abc\"def ghi\"", {"/bin/echo", "abcdef ghi"}},
        {"/bin/echo \"abc\"def", {"/bin/echo", "abcdef"}},
        {"/bin/echo \"abc\"\"def\"", {"/bin/echo", "abcdef"}},
        {"/bin/echo a\\\"b", {"/bin/echo", "a\"b"}},
        {"/bin/echo \"\"", {"/bin/echo", ""}},
        {"/bin/echo a\\\\b", {"/bin/echo", "ab"}},
        {"/bin/ls  -l", {"/bin/ls ", "-l"}},
        {" /bin/ls", {}},
        {"", {}},
        {"  /bin/ls", {" ", "/bin/ls"}},
        {"a\tb\n", {"a", "b"}},
        {"a \"b c", {"a", "b c"}}, // never closed: the rest is one word
        {"a x\"b c\"d\"e f\"g", {"a", "xb cde fg"}},
        {"a \"x\\\" y\" z", {"a", "x\" y", "z"}}, // an escaped quote closes nothing
        {"a \"b\"\\\"c d", {"a", "b\"c", "d"}},   // nor does it when a quote is moved across it
        {"a \\\\\"b c", {"a", "\"b", "c"}},       // a quote behind two backslashes is escaped too
        {"a \xA0\xFF b", {"a", "\xA0\xFF", "b"}}};
    for (const auto &r : rows) {
        EXPECT_EQ(words(r.text), r.words) << r.text;
    }
}

TEST(Command, Passes) {
    const struct {
        int (*pass)(char *);
        const char *before, *after;
    } rows[] = {
        {plex::mvrwrd, "\"abc\"def", "\"abcdef\""},
        {plex::mvrwrd, "\"a\"b\"c\"", "\"ab\"\"c\""},
        {plex::mvrwrd, "a\\\"b", "a\\\"b"},
        {plex::mvlwrd, "abc\"def ghi\"", "\"abcdef ghi\""},
        {plex::mvlwrd, "a\"b\"c\"d\"", "\"ab\"c\"d\""}, // one quote for each word
        {plex::mvlwrd, "a\"b c\"d\"e", "\"ab \"c\"de"}, // a blank starts a word inside quotes too
        {plex::rmdblq, "\"abc\"\"def\"", "\"abcdef\""},
        {plex::rmdblq, "\"\" x", "\"\" x"},
    };
    for (const auto &r : rows) {
        std::string text = r.before;
        EXPECT_EQ(r.pass(text.data()), strcmp(r.before, r.after) != 0 ? 1 : 0) << r.before;
        EXPECT_STREQ(text.c_str(), r.after) << r.before;
    }
    char token[] = "\"a\"b\"c\"";
    plex::rmsurq(token);
    EXPECT_STREQ(token, "a\"b\"c"); // the first and the last only
}

TEST(Command, NormalisingIsBounded) {
    // Each pass moves one quote of a word; one with more of them than that is left as it is.
    std::string text = "x";
    for (int i = 0; i < 1000; i++) {
        text += "\"a b\"c";
    }
    const std::string before = text;
    EXPECT_EQ(plex::rdustr(text.data()), text.data());
    EXPECT_EQ(text.size(), before.size());
    EXPECT_NE(text, before);
}

TEST(Command, Execution) {
    std::string fits = "/bin/echo";
    for (int i = 1; i < 49; i++) {
        fits += " " + std::to_string(i);
    }
    const std::string none = "dospwn: execv failed: (2) No such file or directory\n";
    const struct {
        std::string text, out, err;
    } rows[] = {{"/bin/echo \"a b\" c", "a b c\n", ""},
                {"", "", "dospwn: Invalid cmdstg [].\n"},
                {"  ", "", none},
                {"\"\"", "", none},
                {"/tmp", "", "dospwn: execv failed: (13) Permission denied\n"},
                {fits, fits.substr(10) + "\n", ""},
                {fits + " 49", "", "dospwn: Too many arguments.\n"}};
    for (const auto &r : rows) {
        std::string text = r.text;
        const Outcome o = inchild([&] { _exit(plex::dospawn(text.data())); });
        EXPECT_EQ(o.code(), r.err.empty() ? 0 : 255) << r.text;
        EXPECT_EQ(o.out, r.out) << r.text;
        EXPECT_EQ(o.err, r.err) << r.text;
    }
    const Outcome o = inchild([] { _exit(plex::dospawn(nullptr)); });
    EXPECT_EQ(o.code(), 255);
    EXPECT_EQ(o.err, "dospwn: cmdstg is NULL.\n");
}

TEST(Command, SignalsAreReset) {
    for (const int signo : {SIGINT, SIGQUIT, SIGHUP}) {
        const Outcome o = inchild([&] {
            signal(signo, SIG_IGN);
            char text[64];
            snprintf(text, sizeof text, "/bin/sh -c \"ulimit -c 0; kill -%d $$\"", signo);
            plex::dospawn(text);
        });
        EXPECT_EQ(o.code(), 128 + signo);
    }
}

} // namespace
