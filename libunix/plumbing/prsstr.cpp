// A quote is escaped when the byte before it, as the string stands at that moment, is a backslash;
// only that one byte is looked at, so a quote behind two backslashes is escaped too. An escaped
// quote is no quote to any pass, also for the byte that follows it.

#include "libunix/plumbing/prsstr.h"

#include "libunix/runtime/process.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace plex {
namespace {

constexpr char quote = '"';
constexpr int maxpasses = 41; // a word with more misplaced quotes than that is left as it is

char *buf; // where tokstr resumes

bool blank(char c) {
    return isspace(static_cast<unsigned char>(c)) != 0;
}

// Whether an unescaped quote stands at `p` of the string that begins at `str`.
bool quoteat(const char *str, const char *p) {
    return *p == quote && (p == str || p[-1] != '\\');
}

void removebyte(char *p) {
    memmove(p, p + 1, strlen(p));
}

} // namespace

char *nxtdlm(char *str) {
    char *p = str;
    while (*p != '\0' && !blank(*p) && !quoteat(str, p)) {
        p++;
    }
    return p;
}

int mvrwrd(char *str) {
    bool inquot = false;
    bool afterquot = false;
    int didadj = 0;
    for (char *p = str; *p != '\0';) {
        if (quoteat(str, p)) {
            inquot = !inquot;
            afterquot = true;
            p++;
        } else if (blank(*p) || inquot || !afterquot) {
            afterquot = false;
            p++;
        } else {
            // A word goes on behind its closing quote: the rest of it moves in front.
            char *end = nxtdlm(p);
            memmove(p - 1, p, static_cast<size_t>(end - p));
            end[-1] = quote;
            p = end;
            didadj = 1;
        }
    }
    return didadj;
}

int mvlwrd(char *str) {
    bool inquot = false;
    bool afterquot = false;
    bool afterblank = true; // the first word starts as if behind a blank
    char *word = str;       // null once a quote of this word was moved: one for each word
    int didadj = 0;
    for (char *p = str; *p != '\0';) {
        const bool isquot = quoteat(str, p);
        if (isquot && !afterblank && !afterquot && !inquot && word != nullptr) {
            memmove(word + 1, word, static_cast<size_t>(p - word));
            *word = quote;
            word = nullptr;
            inquot = true;
            didadj = 1;
            continue; // the byte that was moved under the cursor has not been looked at
        }
        inquot = inquot != isquot;
        afterquot = isquot;
        afterblank = blank(*p);
        p++;
        if (afterblank && !blank(*p)) {
            word = p;
        }
    }
    return didadj;
}

int rmdblq(char *str) {
    bool inquot = false;
    int didrm = 0;
    for (char *p = str; *p != '\0';) {
        if (!quoteat(str, p)) {
            p++;
        } else if (p[1] != quote) {
            inquot = !inquot;
            p++;
        } else if (inquot) {
            removebyte(p);
            removebyte(p);
            didrm = 1;
        } else {
            p += 2; // an empty argument
        }
    }
    return didrm;
}

char *rdustr(char *str) {
    for (int pass = 0; pass < maxpasses; pass++) {
        const int right = mvrwrd(str);
        const int left = mvlwrd(str);
        const int joined = rmdblq(str);
        if (right == 0 && left == 0 && joined == 0) {
            break;
        }
    }
    return str;
}

char *tokstr(char *str) {
    char *start = str != nullptr ? str : buf;
    if (start == nullptr) {
        return nullptr;
    }
    bool inquot = false;
    char *p = start;
    for (; *p != '\0'; p++) {
        if (!inquot && blank(*p) && !blank(p[1])) {
            *p++ = '\0';
            break;
        }
        inquot = inquot != quoteat(start, p);
    }
    buf = p;
    return *start != '\0' ? start : nullptr;
}

void rmsurq(char *str) {
    if (*str != quote) {
        return;
    }
    removebyte(str);
    char *last = strrchr(str, quote);
    if (last != nullptr) {
        removebyte(last);
    }
}

void rmbksl(char *str) {
    char *to = str;
    for (const char *from = str; *from != '\0'; from++) {
        if (*from != '\\') {
            *to++ = *from;
        }
    }
    *to = '\0';
}

int dospawn(char *cmdstg) {
    if (cmdstg == nullptr) {
        fputs("dospwn: cmdstg is NULL.\n", stderr);
        return -1;
    }
    rdustr(cmdstg);
    if (tokstr(cmdstg) == nullptr) {
        fprintf(stderr, "dospwn: Invalid cmdstg [%s].\n", cmdstg);
        return -1;
    }
    std::array<char *, MAXWORDS + 1> argv; // the words and a null
    int argc = 0;
    for (char *word = cmdstg; word != nullptr; word = tokstr(nullptr)) {
        if (argc == MAXWORDS) {
            fputs("dospwn: Too many arguments.\n", stderr);
            return -1;
        }
        rmsurq(word);
        rmbksl(word);
        argv[static_cast<size_t>(argc++)] = word;
    }
    argv[static_cast<size_t>(argc)] = nullptr;
    usignal(SIGINT, nullptr);
    usignal(SIGQUIT, nullptr);
    usignal(SIGHUP, nullptr);
    const int result = execv(argv[0], argv.data());
    fprintf(stderr, "dospwn: execv failed: (%d) %s\n", errno, strerror(errno));
    return result;
}

} // namespace plex
