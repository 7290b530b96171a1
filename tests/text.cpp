// Strings, dates, byte order, memory, command strings: a row for what goes in and what comes out.

#include "libsrc/base/text.h"
#include "libsrc/base/compare.h"
#include "libsrc/base/dates.h"
#include "libsrc/common/color.h"
#include "libsrc/common/memory.h"
#include "libunix/common/bytord.h"
#include "libunix/common/tiles.h"
#include "libunix/common/tmpfil.h"
#include "libunix/common/wildcard.h"
#include "libunix/plumbing/prsstr.h"
#include "tests/support.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace {

using namespace plex;
using namespace std::string_literals;

// What calls returned, and what they must.
void same(std::initializer_list<std::pair<int, int>> rows) {
    for (const auto &r : rows) {
        EXPECT_EQ(r.first, r.second) << "row " << &r - rows.begin();
    }
}

int sign(int n) {
    return (n > 0) - (n < 0);
}

constexpr uint16_t date(int year, int month, int day) {
    return static_cast<uint16_t>((year - 1980) * 512 + month * 32 + day);
}

constexpr uint16_t clock(int hour, int minute, int second) {
    return static_cast<uint16_t>(hour * 2048 + minute * 32 + second / 2);
}

TEST(Text, Comparisons) {
    const std::tuple<const char *, const char *, int, int, int, int> rows[] = {
        {"", "", 1, 1, 0, 0},      {"ABC", "abc", 1, 1, 0, 0},   {"", "abc", 0, 1, -1, -1},
        {"abc", "ab", 0, 0, 1, 1}, {"abc", "abd", 0, 0, -1, -1}, {"x\xE9", "xz", 0, 0, 1, 1},
        {"a_", "aB", 0, 0, 1, 1},  {"aB", "a_", 0, 0, -1, 1},    {"a", "B", 0, 0, -1, 1}};
    for (const auto &[a, b, same, start, order, gorder] : rows) {
        EXPECT_EQ(sameas(a, b) * 2 + sameto(a, b), same * 2 + start) << a << " : " << b;
        EXPECT_EQ(sign(plex::stricmp(a, b)), order) << a << " : " << b;
        EXPECT_EQ(sign(plex::strcmpi(a, b)), order) << a << " : " << b;
        EXPECT_EQ(sign(gstricmp(a, b)), gorder) << a << " : " << b;
        EXPECT_EQ(plex::strcasecmp(a, b), 1 - same) << a << " : " << b;
    }
    const auto less = plex::strncasecmp;
    same({{plex::stricmp("a", "C"), 'A' - 'C'}, {memicmp("ab\0c", "AB\0D", 4), 'C' - 'D'}});
    same({{memicmp("abx", "aby", 2), 0}, {less("bb", "ax", 0), 0}, {less("ab", "ab", 99), 0}});
    same({{less("AZC", "azd", 3), 'c' - 'd'}, {less("[", "{", 1), '[' - '{'}});
}

TEST(Text, Changes) {
    char s[] = "aZ[@`{\xC4\xE4 \t\r\n";
    EXPECT_EQ(depad(s), 4);
    EXPECT_EQ(depad(s), 0);
    EXPECT_STREQ(strlwr(s), "az[@`{\xC4\xE4");
    EXPECT_STREQ(strupr(s), "AZ[@`{\xC4\xE4");
    const std::tuple<const char *, int, std::string> rows[] = {
        {"abcdef", 4, "abc\0####"s}, {"a", 4, "a\0\0\0####"s}, {"a", 0, "########"}};
    char dst[8];
    for (const auto &[text, size, bytes] : rows) {
        memset(dst, '#', sizeof dst);
        EXPECT_EQ(stzcpy(dst, text, size), dst);
        EXPECT_EQ(std::string(dst, sizeof dst), bytes);
    }
    stzcpy(dst, "ab", 8);
    EXPECT_STREQ(stzcat(dst, "cdefghij", 8), "abcdefg");
    EXPECT_STREQ(stzcat(dst, "x", 8), "abcdefg");
    scn2mem(dst, dst + 1, 4);
    EXPECT_STREQ(dst, "aabcdfg");
}

TEST(Text, Finds) {
    EXPECT_STREQ(skpwht(static_cast<const char *>("  \t x")), "\t x");
    same({{strpln(" \x1A \v\f"), 0}, {strpln(" a\x1A"), 2}});
    const char *const paths[][2] = {
        {"c:\\d/u\\f.txt", "f.txt"}, {"a:f", "f"}, {"d/a:b", "a:b"}, {"a/", ""}};
    for (const auto &[path, name] : paths) {
        EXPECT_STREQ(fnwext(path), name);
    }
    const std::tuple<const char *, const char *, int> finds[] = {
        {"ne-yo", "NE  YO", 6}, {"ne-yo", "in ne.yo!", 8},
        {"ne-yo", "neyo", 0},   {"", "abc", 0},
        {"abc", "ab", 0},       {"a-", "a", 0},
        {"a-", "xa..", 4},      {"-", "ab", 0},
        {"aab", "aaab", 4},     {"/", "Engl/ANSI", 5}};
    for (const auto &[words, text, at] : finds) {
        EXPECT_EQ(findstg(words, text), at) << words << " in " << text;
    }
    const std::tuple<const char *, const char *, int> patterns[] = {
        {"*.m", "ab.m", 0}, {"a?c", "abc", 0},   {"*", "", 0},      {"a*", "a", 0},
        {"a**", "ab", 0},   {"*a*b", "xaxb", 0}, {"*ab", "aab", 0}, {"", "", 0},
        {"abc", "ABC", 1},  {"a**", "a", 1},     {"*a", "ab", 1},   {"", "a", 1},
        {"?", "", 1},       {"a", "", 1},        {nullptr, "", 1},  {"", nullptr, 1}};
    for (const auto &row : patterns) {
        const auto &[pattern, name, differs] = row;
        EXPECT_EQ(matches(pattern, name), differs) << "pattern " << &row - patterns;
    }
    const std::string as(4000, 'a'); // trying every split would not end in our lifetime
    EXPECT_EQ(matches("*a*a*a*a*a*a*a*a*a*a*b", as.c_str()), 1);
    std::string stored = "abc\0defgh\0ij"s;
    FILE *f = fmemopen(stored.data(), stored.size(), "r");
    const std::tuple<int, int, const char *> rows[] = {
        {5, 1, "abc"}, {4, 0, "def"}, {5, 1, "h"}, {5, 0, "ij"}}; // "g" is lost
    for (const auto &[size, whole, text] : rows) {
        char buf[5];
        EXPECT_EQ(fgetstg(buf, size, f), whole) << text;
        EXPECT_STREQ(buf, text);
    }
    fclose(f);
}

TEST(Memory, BlocksTilesAndAttributes) {
    char *p = alcdup("hello");
    p = static_cast<char *>(alcrsz(p, 6, 3));
    void *q = alcrsz(p, 0, 8); // neither copied nor freed
    auto *z = static_cast<char *>(alczer(3));
    EXPECT_EQ(std::string(p, 3) + std::string(z, 3), "hel\0\0\0"s);
    free(p);
    free(q);
    free(z);
    free(alcmem(0));
    const unsigned sizes[][2] = {{8, 12}, {9, 12}, {11, 12}};
    for (const auto &[size, stride] : sizes) {
        auto *tiles = static_cast<char *>(alctile(10, size));
        EXPECT_EQ(static_cast<char *>(ptrtile(tiles, 2)) - tiles, 2 * stride) << size;
        memset(tiles, 1, size_t{10} * stride);
        free(tiles - 4);
    }
    color = 0;
    same({{scncolor(0x1F), 0x0F}, {scncolor(0x70), 0x70}, {scncolor(0xF1), 0x70}});
    same({{scncolor(0x9E), 0x8F}, {scncolor(0x07), 0x07}});
    color = 1;
    EXPECT_EQ(scncolor(0x9E), 0x9E);
}

TEST(Memory, TemporaryNamesAreNew) {
    const test::Home home;
    char name[128];
    char rest[64];
    snprintf(rest, sizeof rest, "%04X.tmp", static_cast<unsigned>(static_cast<int16_t>(getpid())));
    EXPECT_EQ(tmpfil(".", "tmp", name), "./0001"s + rest);
    for (int i = 2; i < 258; i++) { // the next 256 are taken
        snprintf(name, sizeof name, "%04X%s", i, rest);
        test::spew(name, "");
    }
    EXPECT_EQ(tmpfil(".", "tmp", name), nullptr);
    EXPECT_EQ(tmpfil(".", "tmp", name), "./0102"s + rest);
}

TEST(Dates, TextsBothWays) {
    const int year = (today() >> 9) + 1980;
    const char *time = nctime(clock(14, 5, 58)); // stays while another text is made
    const std::string texts[][2] = {
        {ncdate(date(1995, 3, 7)), "03/07/95"},
        {ncdate(0), ""},
        {ncdate(0xFFFF), "15/31/07"},
        {ncedat(date(1995, 3, 7)), "07-MAR-95"},
        {ncedat(date(2005, 0, 1)), "01-000-05"},
        {ncudnt(date(year, 3, 7), clock(14, 5, 0)), "Mar  7 14:05"},
        {ncudnt(date(year - 1, 12, 31), 0), "Dec 31  " + std::to_string(year - 1)},
        {ncudnt(0xFFFF, 0xFFFF), "Xxx 31  2107"},
        {time, "14:05:58"},
        {nctime(0xFFFF), "31:63:62"}};
    for (const auto &[got, want] : texts) {
        EXPECT_EQ(got, want);
    }
    const auto word = [](int w) { return int{static_cast<int16_t>(w)}; };
    const std::tuple<const char *, int, int, int> dates[] = {
        {"12/31/99", 1999, 12, 31}, {"1/1/05", 2005, 1, 1}, {"1/1/79", 2079, 1, 1},
        {"99/99/50", 2050, 99, 99}, {"1/1/80", 1980, 1, 1}, {"3/7/", year, 3, 7}};
    for (const auto &[text, y, m, d] : dates) {
        EXPECT_EQ(dcdate(text), word(date(y, m, d))) << text;
    }
    EXPECT_EQ(dcdate("3"), -1);
    same({{dctime("32:1:"), 32}, {dctime("23:59"), word(clock(23, 59, 0))}});
    same({{dctime("10:30:59"), clock(10, 30, 58)}, {dctime("3"), -1}});
    dcdate("2147483647/2147483647/2147483647"); // some word, quietly
    dctime("-2147483648:99999999999999999999:7");
}

TEST(Dates, NowIsLocal) {
    setenv("TZ", "XXX-14", 1); // 26 hours ahead of the other: never the same day
    const uint16_t east = today();
    const int eastday = daytoday();
    const int easthour = now() >> 11;
    setenv("TZ", "XXX+12", 1);
    EXPECT_NE(east, today());
    EXPECT_NE(eastday, daytoday());
    EXPECT_LE((easthour - (now() >> 11) + 23) % 24, 1); // two hours, or one when it turns
    unsetenv("TZ");
}

TEST(Dates, DayCounts) {
    for (uint16_t count = 0; count < 43830; count++) { // to the end of 2099
        ASSERT_EQ(cofdat(datofc(count)), count);
    }
    same({{datofc(59), date(1980, 2, 29)}, {datofc(60), date(1980, 3, 1)}});
    same({{datofc(8797), date(2004, 2, 1)}, {datofc(43829), date(2099, 12, 31)}});
    for (unsigned word = 0; word < 0x10000; word++) { // any word is safe
        datofc(cofdat(static_cast<uint16_t>(word)));
    }
}

TEST(ByteOrder, StoredIsLittleEndian) {
    unsigned char bytes[] = {1, 2, 3, 4, 0xFF, 0xFF, 0xFE, 0xFF};
    same({{lus2n(bytes + 1), 0x0302}, {lss2n(bytes + 4), -1}, {lsl2n(bytes + 4), -65537}});
    EXPECT_EQ(lul2n(bytes + 1), 0xFF040302u);
    EXPECT_TRUE(rev4byt(bytes) == bytes && rev2byt(bytes + 1) == bytes + 1);
    EXPECT_EQ(memcmp(bytes, "\4\2\3\1", 4), 0);
    const auto raw = [](auto v) { return std::string(reinterpret_cast<char *>(&v), sizeof v); };
    EXPECT_EQ(raw(nus2l(0x0201)) + raw(nss2l(-2)) + raw(nul2l(0x04030201)) + raw(nsl2l(-2)),
              "\1\2\xFE\xFF\1\2\3\4\xFE\xFF\xFF\xFF");
    const uint16_t *copy = pnus2l(7);
    EXPECT_EQ(pnus2l(0x0201), copy); // overwritten; the last one is no pointer
    EXPECT_EQ(raw(*copy) + raw(*pnss2l(-2)) + raw(*pnul2l(1)) + raw(pnsl2l(-2)),
              "\1\2\xFE\xFF\1\0\0\0\xFE\xFF\xFF\xFF"s);
}

// Where there are quotes (here '); without them, and what always holds: fuzz/command.cpp. A quote
// that is never closed takes the rest. An escaped one closes nothing, also when a quote is moved
// across it, or when a second backslash stands before it.
TEST(Command, Words) {
    const char *const rows[][2] = {{"e 'a b' c", "e|a b|c|"},   {"e 'ab''c'", "e|abc|"},
                                   {"e 'ab'c", "e|abc|"},       {"e a\\'b", "e|a'b|"},
                                   {"e ''a'", "e|a|"},          {"e ''", "e||"},
                                   {"e a'd e'", "e|ad e|"},     {"a x'b c'd'e f'g", "a|xb cde fg|"},
                                   {"a 'b c", "a|b c|"},        {"a 'x\\' y' z", "a|x' y|z|"},
                                   {"a 'b'\\'c d", "a|b'c|d|"}, {"a \\\\'b c", "a|'b|c|"},
                                   {"'a b' c", "a b|c|"}};
    for (const auto &[line, words] : rows) {
        std::string text = line;
        std::string got;
        std::replace(text.begin(), text.end(), '\'', '"');
        rdustr(text.data());
        for (char *w = tokstr(text.data()); w != nullptr; w = tokstr(nullptr)) {
            rmsurq(w);
            rmbksl(w);
            got += w + "|"s;
        }
        std::replace(got.begin(), got.end(), '"', '\'');
        EXPECT_EQ(got, words) << line;
    }
}

TEST(Command, Failures) {
    std::string fits = "/bin/echo";
    for (int i = 1; i < 49; i++) {
        fits += " " + std::to_string(i);
    }
    const auto run = [](std::string line) { return test::told([&] { dospawn(line.data()); }); };
    EXPECT_EQ(run(fits), fits.substr(10) + "\n||0");
    EXPECT_EQ(run(fits + " 49"), "|dospwn: Too many arguments.\n|0");
    EXPECT_EQ(test::told([] { _exit(dospawn(nullptr)); }), "|dospwn: cmdstg is NULL.\n|255");
}

} // namespace
