// How the programs are called: what all of them do with the words they are given, and how they say
// that it went wrong.
#pragma once

namespace plex {

// Wrong use exits with 2, as is usual; a program that passes on the statuses of others has a
// `wronguse` of its own, which is none of theirs.
struct Program {
    const char *name;
    const char *usage; // what --help shows
    int wronguse = 2;
    void (*cleanup)() = nullptr; // called before `fail` and `wronguse` say anything
};

// To be set before anything below is called.
extern Program program;

// The next option, as getopt(3) gives it (`shorts` is written as for that); -1 when there is none.
// --help, -h and --version are answered here, and wrong options refused: both end the program.
// `flag` is one long option more, without a value, given as its first letter.
int nextoption(int argc, char **argv, const char *shorts, const char *flag = nullptr);

// Writes out what went to standard output. Where that fails the program ends with status 1.
void flushoutput();

// Says "NAME: what is wrong" on standard error and ends the program; `wronguse` with its status
// for that, and a word on --help.
[[noreturn]] void fail(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
[[noreturn]] void wronguse(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace plex
