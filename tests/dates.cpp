// Packed dates and times, day counts, byte order.

#include "libsrc/base/dates.h"
#include "libunix/common/bytord.h"
#include "tests/support.h"

#include <cstring>

namespace {

constexpr uint16_t date(int year, int month, int day) {
    return static_cast<uint16_t>((year - 1980) * 512 + month * 32 + day);
}

constexpr uint16_t clock(int hour, int minute, int second) {
    return static_cast<uint16_t>(hour * 2048 + minute * 32 + second / 2);
}

TEST(Dates, Texts) {
    const int year = (plex::today() >> 9) + 1980;
    const std::string rows[][2] = {
        {plex::ncdate(date(1995, 3, 7)), "03/07/95"},
        {plex::ncdate(0), ""},
        {plex::ncdate(0xFFFF), "15/31/07"},
        {plex::ncedat(date(1995, 3, 7)), "07-MAR-95"},
        {plex::ncedat(date(2005, 0, 1)), "01-000-05"},
        {plex::nctime(clock(14, 5, 59)), "14:05:58"},
        {plex::nctime(0xFFFF), "31:63:62"},
        {plex::ncudnt(date(year, 3, 7), clock(14, 5, 0)), "Mar  7 14:05"},
        {plex::ncudnt(date(year - 1, 12, 31), 0), "Dec 31  " + std::to_string(year - 1)},
        {plex::ncudnt(0xFFFF, 0xFFFF), "Xxx 31  2107"}};
    for (const auto &r : rows) {
        EXPECT_EQ(r[0], r[1]);
    }
}

TEST(Dates, TextsHaveTheirOwnPlaces) {
    const char *time = plex::nctime(clock(14, 5, 58));
    plex::ncudnt(date(1995, 3, 7), 0);
    EXPECT_STREQ(time, "14:05:58");
}

TEST(Dates, NowIsLocal) {
    setenv("TZ", "XXX-14", 1); // 26 hours ahead of the other: never the same day
    const uint16_t east = plex::today();
    const int eastday = plex::daytoday();
    setenv("TZ", "XXX+12", 1);
    EXPECT_NE(east, plex::today());
    EXPECT_NE(eastday, plex::daytoday());
    const auto minutes = (time(nullptr) / 60 + 720) % 1440;
    const int now = plex::now();
    EXPECT_LT(((now >> 11) * 60 + (now >> 5 & 63) - minutes + 1440) % 1440, 2); // it may turn
    unsetenv("TZ");
}

TEST(Dates, Typed) {
    const auto word = [](int w) { return int{static_cast<int16_t>(w)}; };
    struct {
        const char *text;
        int date, time;
    } const rows[] = {{"12/31/99", date(1999, 12, 31), -1},
                      {"1/1/05", date(2005, 1, 1), -1},
                      {"1/1/79", word(date(2079, 1, 1)), -1},
                      {"1/1/80", date(1980, 1, 1), -1},
                      {"3/7/", date((plex::today() >> 9) + 1980, 3, 7), -1},
                      {"99/99/50", word(70 * 512 + 99 * 32 + 99), -1},
                      {"3", -1, -1},
                      {"23:59", -1, word(clock(23, 59, 0))},
                      {"10:30:59", -1, clock(10, 30, 58)},
                      {"32:1:", -1, 32}};
    for (const auto &r : rows) {
        EXPECT_EQ(plex::dcdate(r.text), r.date) << r.text;
        EXPECT_EQ(plex::dctime(r.text), r.time) << r.text;
    }
    plex::dcdate("2147483647/2147483647/2147483647"); // some word, quietly
    plex::dctime("-2147483648:99999999999999999999:7");
}

TEST(Dates, DayCounts) {
    EXPECT_EQ(plex::cofdat(date(1980, 3, 1)), 60);
    EXPECT_EQ(plex::cofdat(date(2000, 2, 29)), 7364);
    for (uint16_t count = 0; count < 43830; count++) { // to the end of 2099
        ASSERT_EQ(plex::cofdat(plex::datofc(count)), count);
    }
    EXPECT_EQ(plex::datofc(59), date(1980, 2, 29));
    EXPECT_EQ(plex::datofc(8797), date(2004, 2, 1));
    EXPECT_EQ(plex::datofc(43829), date(2099, 12, 31));
    for (unsigned word = 0; word < 0x10000; word++) { // any word is safe
        plex::datofc(plex::cofdat(static_cast<uint16_t>(word)));
    }
}

TEST(ByteOrder, StoredIsLittleEndian) {
    unsigned char bytes[] = {1, 2, 3, 4, 0xFF, 0xFF, 0xFE, 0xFF};
    EXPECT_EQ(plex::lus2n(bytes + 1), 0x0302);
    EXPECT_EQ(plex::lss2n(bytes + 4), -1);
    EXPECT_EQ(plex::lul2n(bytes + 1), 0xFF040302u);
    EXPECT_EQ(plex::lsl2n(bytes + 4), -65537);
    EXPECT_EQ(plex::rev4byt(bytes), bytes);
    EXPECT_EQ(plex::rev2byt(bytes + 1), bytes + 1);
    EXPECT_EQ(memcmp(bytes, "\4\2\3\1", 4), 0);
    const uint16_t us = plex::nus2l(0x0201);
    const uint32_t ul = plex::nul2l(0x04030201);
    EXPECT_EQ(memcmp(&us, "\1\2", 2) | memcmp(&ul, "\1\2\3\4", 4), 0);
    const uint16_t *copy = plex::pnus2l(7);
    EXPECT_EQ(plex::pnus2l(0x0201), copy); // one copy, overwritten
    EXPECT_EQ(memcmp(copy, "\1\2", 2) | memcmp(plex::pnul2l(0x04030201), "\1\2\3\4", 4), 0);
    EXPECT_EQ(memcmp(plex::pnss2l(-2), "\xFE\xFF", 2), 0);
    EXPECT_EQ(plex::pnsl2l(-2), plex::nsl2l(-2)); // the word, not its address
}

} // namespace
