#include "tests/common.h"

#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"
#include "tests/support.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int fatalstatus = 77; // of no other end

} // namespace

void plex::catastro(const char *string, ...) {
    va_list args;
    va_start(args, string);
    vprintf(string, args);
    va_end(args);
    fflush(stdout);
    _exit(fatalstatus);
}

void plex::memcata() {
    catastro("memcata");
}

std::string test::fatal(const std::function<void()> &body) {
    const Outcome outcome = inchild(body);
    if (outcome.code() == 0) {
        return "";
    }
    return outcome.code() == fatalstatus
               ? outcome.out
               : "status " + std::to_string(outcome.code()) + " " + outcome.err;
}

void test::speak(const std::vector<std::string> &names) {
    for (int i = 0; i < plex::nlingo; i++) {
        free(plex::languages[i]);
    }
    free(plex::languages);
    plex::languages = nullptr;
    plex::clingo = 0;
    plex::nlingo = static_cast<int>(names.size());
    if (plex::nlingo > 0) {
        plex::alclng();
    }
    for (size_t i = 0; i < names.size(); i++) {
        plex::languages[i] = static_cast<plex::lingo *>(calloc(1, sizeof(plex::lingo)));
        strcpy(plex::languages[i]->name, names[i].c_str());
    }
}
