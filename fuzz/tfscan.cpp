// The scanner of text files and the table of languages: an input is "pxhost.cfg".

#include "libsrc/common/tfscan.h"
#include "fuzz/entry.h"
#include "fuzz/survive.h"
#include "libsrc/common/lingo.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using fuzz::require;

constexpr const char *file = "pxhost.cfg";

// A table of millions of places is asked for in good faith, but is too much for this run.
bool modest(const unsigned char *data, size_t size) {
    int digits = 0;
    return std::none_of(data, data + size,
                        [&](int c) { return (digits = isdigit(c) != 0 ? digits + 1 : 0) > 6; });
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::home(file);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    if (!modest(data, size)) {
        return 0;
    }
    FILE *f = fopen(file, "w");
    require(f != nullptr && fwrite(data, 1, size, f) == size && fclose(f) == 0);
    const std::string word(reinterpret_cast<const char *>(data), std::min<size_t>(size, 24));
    fuzz::survives([] {
        plex::tfsopn("*.cfg");
        while (plex::tfsrdl() != 0) {
            if (plex::tfspfx("LNG") != 0) {
                plex::tfsdpr();
                plex::tfspfx("=");
                plex::tfsdpr();
            }
            require(strlen(plex::tfsbuf) < sizeof plex::tfsbuf);
        }
    });
    plex::tfsabt();
    fuzz::survives([&] {
        plex::inilingo();
        require(plex::lngfnd(word.c_str()) < plex::nlingo);
        for (int i = -1; i <= std::min(plex::nlingo, 20); i++) {
            plex::chgspk(i, word.c_str());
            plex::chgprt(i, word.c_str());
            plex::alg1st(i);
            for (int steps = 0; plex::algnxt() != 0; steps++) {
                require(steps < 2);
            }
        }
        if (plex::nlingo > 0) {
            plex::stfext(plex::languages[0], word.c_str());
        }
    });
    plex::tfsabt();
    fuzz::speak({});
    return 0;
}
