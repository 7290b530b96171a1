#include "tools/options.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>

namespace plex {

Program program;

namespace {

constexpr int showversion = 0x100; // no character

[[noreturn]] void answer(const std::string &text) {
    fputs(text.c_str(), stdout);
    flushoutput();
    exit(0);
}

void complain(const char *fmt, va_list args, const char *end) {
    if (program.cleanup != nullptr) {
        program.cleanup();
    }
    fprintf(stderr, "%s: ", program.name);
    vfprintf(stderr, fmt, args);
    fputs(end, stderr);
}

} // namespace

int nextoption(int argc, char **argv, const char *shorts, const char *flag) {
    const option longs[] = {{"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, showversion},
                            {flag, no_argument, nullptr, flag != nullptr ? flag[0] : 0},
                            {nullptr, 0, nullptr, 0}};
    const bool ordered = shorts[0] == '+';
    const std::string all = std::string(ordered ? "+:" : ":") + (shorts + (ordered ? 1 : 0)) + "h";
    opterr = 0;
    const int c = getopt_long(argc, argv, all.c_str(), longs, nullptr);
    switch (c) {
    case 'h':
        answer(program.usage);
    case showversion:
        answer(std::string(program.name) + " (vosterd) " PLEX_VERSION "\n");
    case ':':
        wronguse("-%c wants an argument", optopt);
    case '?':
        // The letter, for a letter; of a long option 0, or what it stands for if it takes no value.
        if (optopt != 0 && optopt != 'h' && optopt != showversion) {
            wronguse("unknown option '-%c'", optopt);
        }
        wronguse("unknown option '%s'", argv[optind - 1]);
    default:
        return c;
    }
}

void flushoutput() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        fail(1, "standard output: %s", strerror(errno));
    }
}

void fail(int status, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    complain(fmt, args, "\n");
    va_end(args);
    exit(status);
}

void wronguse(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    complain(fmt, args, (std::string(" (see ") + program.name + " --help)\n").c_str());
    va_end(args);
    exit(program.wronguse);
}

} // namespace plex
