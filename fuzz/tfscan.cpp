// The scanner of text files and the table of languages: an input is "pxhost.cfg".

#include "libsrc/common/tfscan.h"
#include "fuzz/survive.h"
#include "libsrc/common/lingo.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

constexpr const char *file = "pxhost.cfg";

char dir[] = "/tmp/plexfuzz.XXXXXX";
int before = -1;  // the fuzzer's own directory, which its paths are relative to
std::string word; // some bytes of the input, as a name to look up

void tidy() {
    if (chdir(dir) == 0) {
        unlink(file);
        rmdir(dir);
    }
}

void enter() {
    if (before < 0) {
        before = open(".", O_RDONLY | O_DIRECTORY);
        if (mkdtemp(dir) == nullptr) {
            abort();
        }
        atexit(tidy);
    }
    if (chdir(dir) != 0) {
        abort();
    }
}

void scan() {
    plex::tfsopn("*.cfg");
    while (plex::tfsrdl() != 0) {
        if (plex::tfspfx("LNG") != 0) {
            plex::tfsdpr();
            plex::tfspfx("=");
            plex::tfsdpr();
        }
        if (strlen(plex::tfsbuf) >= sizeof plex::tfsbuf) {
            abort();
        }
    }
}

void lookup() {
    plex::inilingo();
    const int found = plex::lngfnd(word.c_str());
    if (found >= plex::nlingo) {
        abort();
    }
    for (int i = -1; i <= std::min(plex::nlingo, 20); i++) {
        plex::chgspk(i, word.c_str());
        plex::chgprt(i, word.c_str());
        plex::alg1st(i);
        int steps = 0;
        while (plex::algnxt() != 0) {
            if (++steps > 2) {
                abort();
            }
        }
    }
    if (plex::nlingo > 0) {
        plex::stfext(plex::languages[0], word.c_str());
    }
}

// A table of millions of places is asked for in good faith, but is too much for this run.
bool modest(const unsigned char *data, size_t size) {
    int digits = 0;
    return std::none_of(data, data + size, [&](unsigned char c) {
        digits = isdigit(c) != 0 ? digits + 1 : 0;
        return digits > 6;
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    if (!modest(data, size)) {
        return 0;
    }
    enter();
    FILE *f = fopen(file, "w");
    if (f == nullptr || fwrite(data, 1, size, f) != size || fclose(f) != 0) {
        abort();
    }
    word.assign(reinterpret_cast<const char *>(data), std::min<size_t>(size, 24));
    fuzz::survives(scan);
    plex::tfsabt();
    fuzz::survives(lookup);
    plex::tfsabt();
    fuzz::speak({});
    return fchdir(before);
}
