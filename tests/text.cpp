// Strings, comparisons, wildcards.

#include "libsrc/base/text.h"
#include "libsrc/base/compare.h"
#include "libsrc/common/color.h"
#include "libsrc/common/memory.h"
#include "libunix/common/tiles.h"
#include "libunix/common/tmpfil.h"
#include "libunix/common/wildcard.h"
#include "tests/support.h"

#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

pid_t process; // the id that the tests want to have

} // namespace

extern "C" pid_t getpid() noexcept {
    return process != 0 ? process : static_cast<pid_t>(syscall(SYS_getpid));
}

namespace {

using namespace std::string_literals;

int sign(int n) {
    return (n > 0) - (n < 0);
}

TEST(Text, Comparisons) {
    struct {
        const char *a, *b;
        int sameas, sameto, stricmp, gstricmp, strcasecmp;
    } const rows[] = {
        {"", "", 1, 1, 0, 0, 0},           {"ABC", "abc", 1, 1, 0, 0, 0},
        {"", "abc", 0, 1, -1, -1, 1},      {"abc", "ab", 0, 0, 1, 1, 1},
        {"ab", "abc", 0, 1, -1, -1, 1},    {"abc", "abd", 0, 0, -1, -1, 1},
        {"a_", "aB", 0, 0, 1, 1, 1},       {"aB", "a_", 0, 0, -1, 1, 1}, // deliberately
        {"x\xE9", "x\xE8", 0, 0, 1, 1, 1}, {"x\xE9", "xz", 0, 0, 1, 1, 1}};
    for (const auto &r : rows) {
        SCOPED_TRACE(std::string(r.a) + " : " + r.b);
        EXPECT_EQ(plex::sameas(r.a, r.b), r.sameas);
        EXPECT_EQ(plex::sameto(r.a, r.b), r.sameto);
        EXPECT_EQ(sign(plex::stricmp(r.a, r.b)), r.stricmp);
        EXPECT_EQ(sign(plex::strcmpi(r.a, r.b)), r.stricmp);
        EXPECT_EQ(sign(plex::gstricmp(r.a, r.b)), r.gstricmp);
        EXPECT_EQ(plex::strcasecmp(r.a, r.b), r.strcasecmp);
    }
    EXPECT_EQ(plex::stricmp("a", "C"), 'A' - 'C');
    EXPECT_EQ(plex::memicmp("ab\0c", "AB\0D", 4), 'C' - 'D');
    EXPECT_EQ(plex::strncasecmp("ab", "ax", 0) + plex::memicmp("abx", "aby", 2), 0);
    EXPECT_EQ(plex::strncasecmp("abC", "aBd", 3), 'c' - 'd');
    EXPECT_EQ(plex::strncasecmp("ab", "ab", 99), 0);
    EXPECT_EQ(plex::strncasecmp("[", "{", 1), '[' - '{'); // only letters fold
    char s[] = "aZ[@`{\xC4\xE4";
    EXPECT_STREQ(plex::strlwr(s), "az[@`{\xC4\xE4");
    EXPECT_STREQ(plex::strupr(s), "AZ[@`{\xC4\xE4");
}

TEST(Text, BoundedCopies) {
    struct {
        const char *text;
        int size;
        std::string bytes;
    } const rows[] = {{"abcdef", 4, "abc\0####"s}, {"a", 4, "a\0\0\0####"s}, {"a", 0, "########"}};
    char dst[8];
    for (const auto &r : rows) {
        memset(dst, '#', sizeof dst);
        EXPECT_EQ(plex::stzcpy(dst, r.text, r.size), dst);
        EXPECT_EQ(std::string(dst, sizeof dst), r.bytes);
    }
    plex::stzcpy(dst, "ab", 8);
    EXPECT_STREQ(plex::stzcat(dst, "cdefghij", 8), "abcdefg");
    EXPECT_STREQ(plex::stzcat(dst, "x", 8), "abcdefg");
    plex::scn2mem(dst, dst + 1, 4);
    EXPECT_STREQ(dst, "aabcdfg");
}

TEST(Text, Parts) {
    char s[] = "text \t\r\n";
    EXPECT_EQ(plex::depad(s), 4);
    EXPECT_EQ(plex::depad(s), 0);
    EXPECT_STREQ(s, "text");
    EXPECT_EQ(plex::strpln(" \x1A \v\f"), 0);
    EXPECT_EQ(plex::strpln(" a\x1A"), 2);
    EXPECT_STREQ(plex::skpwht(static_cast<const char *>("  \t x")), "\t x");
    const char *const rows[][2] = {
        {"c:\\dir/sub\\file.txt", "file.txt"}, {"a:file", "file"}, {"dir/a:b", "a:b"}, {"a/", ""}};
    for (const auto &r : rows) {
        EXPECT_STREQ(plex::fnwext(r[0]), r[1]) << r[0];
    }
}

TEST(Text, FindWithSeparators) {
    struct {
        const char *pattern, *body;
        int offset;
    } const rows[] = {{"new-york", "NEW  YORK", 9},
                      {"new-york", "in new...york!", 13},
                      {"new-york", "newyork", 0},
                      {"", "abc", 0},
                      {"abc", "ab", 0},
                      {"a-", "a", 0},
                      {"a-", "xa..", 4},
                      {"-", "ab", 0},
                      {"aab", "aaab", 4},
                      {"/", "English/ANSI", 8}};
    for (const auto &r : rows) {
        EXPECT_EQ(plex::findstg(r.pattern, r.body), r.offset) << r.pattern << " in " << r.body;
    }
}

TEST(Text, Wildcards) {
    struct {
        const char *pattern, *string;
        bool match;
    } const rows[] = {{"*.msg", "abc.msg", true},
                      {"a?c", "abc", true},
                      {"abc", "ABC", false},
                      {"*", "", true},
                      {"a*", "a", true},
                      {"a**", "a", false}, // no try
                      {"a**", "ab", true},
                      {"*a*b", "xaxb", true},
                      {"*ab", "aab", true},
                      {"*a", "ab", false},
                      {"", "", true},
                      {"", "a", false},
                      {"?", "", false},
                      {nullptr, "a", false},
                      {"a", nullptr, false}};
    for (const auto &r : rows) {
        EXPECT_EQ(plex::matches(r.pattern, r.string) == 0, r.match) << &r - rows;
    }
    // Bounded work: trying every split of this one would not end in our lifetime.
    const std::string as(4000, 'a');
    EXPECT_NE(plex::matches("*a*a*a*a*a*a*a*a*a*a*b", as.c_str()), 0);
}

TEST(Text, StoredStrings) {
    const test::Home home;
    test::spew("f", "abc\0defgh\0ij"s);
    FILE *f = fopen("f", "r");
    struct {
        int size, whole;
        const char *text;
    } const rows[] = {{5, 1, "abc"}, {4, 0, "def"}, {5, 1, "h"}, {5, 0, "ij"}}; // "g" is lost
    for (const auto &r : rows) {
        char buf[5];
        EXPECT_EQ(plex::fgetstg(buf, r.size, f), r.whole) << r.text;
        EXPECT_STREQ(buf, r.text);
    }
    fclose(f);
}

TEST(Text, MonochromeAttributes) {
    plex::color = 0;
    const int rows[][2] = {{0x1F, 0x0F}, {0x70, 0x70}, {0xF1, 0x70}, {0x9E, 0x8F}, {0x07, 0x07}};
    for (const auto &r : rows) {
        EXPECT_EQ(plex::scncolor(r[0]), r[1]) << r[0];
    }
    plex::color = 1;
    EXPECT_EQ(plex::scncolor(0x9E), 0x9E);
}

TEST(Memory, BlocksAndTiles) {
    char *p = plex::alcdup("hello");
    p = static_cast<char *>(plex::alcrsz(p, 6, 3));
    auto *q = static_cast<char *>(plex::alcrsz(p, 0, 8)); // neither copied nor freed
    EXPECT_EQ(std::string(p, 3), "hel");
    auto *z = static_cast<char *>(plex::alczer(3));
    EXPECT_EQ(std::string(z, 3), "\0\0\0"s);
    for (void *block : {static_cast<void *>(p), static_cast<void *>(q), static_cast<void *>(z),
                        plex::alcmem(0)}) {
        free(block);
    }
    const unsigned rows[][2] = {{8, 12}, {9, 12}, {11, 12}, {0, 4}};
    for (const auto &r : rows) {
        auto *tiles = static_cast<char *>(plex::alctile(10, r[0]));
        EXPECT_EQ(static_cast<char *>(plex::ptrtile(tiles, 2)) - tiles, 2 * r[1]) << r[0];
        memset(tiles, 1, size_t{10} * r[1]);
        free(tiles - 4);
    }
}

TEST(Memory, TemporaryNamesAreNew) {
    const test::Home home;
    for (const auto &[pid, hex] : {std::pair{7, "0007"}, {0x1234, "1234"}, {0x8ABC, "FFFF8ABC"}}) {
        const auto outcome = test::inchild([&, number = pid, digits = hex] {
            process = number;
            char name[64];
            printf("%s ", plex::tmpfil(".", "tmp", name));
            for (int i = 2; i < 258; i++) { // the next 256 are taken
                snprintf(name, sizeof name, "%04X%s.tmp", i, digits);
                test::spew(name, "");
            }
            printf("%d ", plex::tmpfil(".", "tmp", name) == nullptr);
            printf("%s", plex::tmpfil(".", "tmp", name));
        });
        EXPECT_EQ(outcome.out, "./0001" + std::string(hex) + ".tmp 1 ./0102" + hex + ".tmp");
    }
}

} // namespace
