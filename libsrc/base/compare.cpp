#include "libsrc/base/compare.h"

#include "libsrc/base/text.h"

#include <cctype>
#include <cstring>

namespace plex {

namespace {

constexpr std::array<unsigned char, 256> lowercase() {
    std::array<unsigned char, 256> map{};
    for (size_t c = 0; c < map.size(); c++) {
        map[c] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 'a' - 'A' : c);
    }
    return map;
}

int upper(char c) {
    return toupper(static_cast<unsigned char>(c));
}

bool alnum(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

} // namespace

constexpr std::array<unsigned char, 256> charmap = lowercase();

int memicmp(const void *s1, const void *s2, size_t n) {
    const auto *a = static_cast<const char *>(s1);
    const auto *b = static_cast<const char *>(s2);
    for (size_t i = 0; i < n; i++) {
        const int diff = upper(a[i]) - upper(b[i]);
        if (diff != 0) {
            return diff;
        }
    }
    return 0;
}

int stricmp(const char *s1, const char *s2) {
    while (upper(*s1) == upper(*s2) && *s1 != '\0') {
        s1++;
        s2++;
    }
    return upper(*s1) - upper(*s2);
}

int strcmpi(const char *s1, const char *s2) {
    return stricmp(s1, s2);
}

int gstricmp(const char *s1, const char *s2) {
    while (upper(*s1) == upper(*s2) && *s1 != '\0') {
        s1++;
        s2++;
    }
    const char a = *s1;
    const char b = *s2;
    if ((b == '_' && alnum(a)) || (a == '_' && alnum(b))) {
        return 1; // whichever side has it: deliberate
    }
    if (islower(static_cast<unsigned char>(a)) != 0 &&
        isupper(static_cast<unsigned char>(b)) != 0) {
        return 1;
    }
    return upper(a) - upper(b);
}

int strcasecmp(const char *s1, const char *s2) {
    return sameas(s1, s2) == 0 ? 1 : 0;
}

int strncasecmp(const char *s1, const char *s2, size_t n) {
    for (size_t i = 0; i < n; i++) {
        const int a = charmap[static_cast<unsigned char>(s1[i])];
        const int b = charmap[static_cast<unsigned char>(s2[i])];
        if (a != b || a == 0) {
            return a - b;
        }
    }
    return 0;
}

char *strlwr(char *str) {
    for (char *p = str; *p != '\0'; p++) {
        *p = static_cast<char>(*p >= 'A' && *p <= 'Z' ? *p + 32 : *p);
    }
    return str;
}

char *strupr(char *str) {
    for (char *p = str; *p != '\0'; p++) {
        *p = static_cast<char>(*p >= 'a' && *p <= 'z' ? *p - 32 : *p);
    }
    return str;
}

void scn2mem(const void *src, void *dst, size_t len) {
    memmove(dst, src, len);
}

void monorcol() {}

void imonorcol() {}

} // namespace plex
