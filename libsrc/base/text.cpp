#include "libsrc/base/text.h"

#include <cctype>
#include <cstring>

namespace plex {
namespace {

int lower(char c) {
    return tolower(static_cast<unsigned char>(c));
}

bool alnum(char c) {
    return isalnum(static_cast<unsigned char>(c)) != 0;
}

constexpr char ctrlz = 26; // ends text files written on PCs

} // namespace

int sameas(const char *stg1, const char *stg2) {
    while (lower(*stg1) == lower(*stg2)) {
        if (*stg1 == '\0') {
            return 1;
        }
        stg1++;
        stg2++;
    }
    return 0;
}

int sameto(const char *shorts, const char *longs) {
    for (; *shorts != '\0'; shorts++, longs++) {
        if (lower(*shorts) != lower(*longs)) {
            return 0;
        }
    }
    return 1;
}

char *stzcpy(char *dst, const char *src, unsigned num) {
    if (num == 0) {
        return dst; // there is no room for a terminator
    }
    const size_t len = strnlen(src, num - 1);
    memmove(dst, src, len);
    memset(dst + len, 0, num - len);
    return dst;
}

char *stzcat(char *dst, const char *src, unsigned num) {
    const auto used = static_cast<unsigned>(strnlen(dst, num));
    stzcpy(dst + used, src, num - used);
    return dst;
}

int strpln(const char *string) {
    size_t len = strlen(string);
    while (len > 0 && (isspace(static_cast<unsigned char>(string[len - 1])) != 0 ||
                       string[len - 1] == ctrlz)) {
        len--;
    }
    return static_cast<int>(len);
}

int depad(char *string) {
    const int len = strpln(string);
    const auto removed = static_cast<int>(strlen(string + len));
    string[len] = '\0';
    return removed;
}

const char *skpwht(const char *cp) {
    while (*cp == ' ') {
        cp++;
    }
    return cp;
}

char *skpwht(char *cp) {
    return const_cast<char *>(skpwht(static_cast<const char *>(cp)));
}

int findstg(const char *stg, const char *body) {
    for (const char *start = body; *start != '\0' && *stg != '\0'; start++) {
        const char *pat = stg;
        const char *at = start;
        for (;;) {
            if (*pat == '-' && *at != '\0' && !alnum(*at)) {
                while (*at != '\0' && !alnum(*at)) {
                    at++;
                }
            } else if (*pat == '\0') {
                return static_cast<int>(at - body);
            } else if (*pat != '-' && *at != '\0' && lower(*pat) == lower(*at)) {
                at++;
            } else {
                break; // a "-" facing a letter, a digit or the end is a difference too
            }
            pat++;
        }
    }
    return 0;
}

const char *fnwext(const char *fulpth) {
    const char *name = nullptr;
    const char *colon = nullptr;
    for (const char *p = fulpth; *p != '\0'; p++) {
        if (*p == '/' || *p == '\\') {
            name = p + 1;
        } else if (*p == ':') {
            colon = p + 1;
        }
    }
    return name != nullptr ? name : colon != nullptr ? colon : fulpth;
}

char *fnwext(char *fulpth) {
    return const_cast<char *>(fnwext(static_cast<const char *>(fulpth)));
}

int fgetstg(char *stg, int n, FILE *stream) {
    for (int i = 0; i < n; i++) {
        const int c = getc(stream);
        if (c == EOF) {
            stg[i] = '\0';
            return 0;
        }
        stg[i] = static_cast<char>(c);
        if (c == '\0') {
            return 1;
        }
        if (i == n - 1) {
            stg[i] = '\0'; // deliberate: this byte is lost
        }
    }
    return 0;
}

} // namespace plex
