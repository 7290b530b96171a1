#include "fuzz/survive.h"

#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

jmp_buf after;

} // namespace

std::string fuzz::said;

void plex::catastro(const char *string, ...) {
    char text[6000];
    va_list args;
    va_start(args, string);
    vsnprintf(text, sizeof text, string, args);
    va_end(args);
    fuzz::said = text;
    longjmp(after, 1);
}

void plex::memcata() {
    catastro("memcata");
}

bool fuzz::survives(const std::function<void()> &body) {
    if (setjmp(after) != 0) {
        return false;
    }
    body();
    return true;
}

void fuzz::speak(const std::vector<std::string> &names) {
    for (int i = 0; plex::languages != nullptr && i < plex::nlingo; i++) {
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
