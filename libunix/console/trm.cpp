#include "libunix/console/trm.h"

#include "libsrc/base/text.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace plex {

int32_t dsptyp;
const char *xapnam;
int32_t lastscan = 1;

namespace {

// The chosen method's table. Until one is chosen the null console stands in: a program that dies
// that early has its last words all the same.
const trmhdl *trm = &nultrm;

struct method {
    int32_t bit;
    const trmhdl *table;
    const scrhdl *screen;
};

// In the order in which their bits are tested: of a combined value the first one is taken.
constexpr std::array methods = {
    method{DSP_REMOTE, &rx11trm, &rx11scn},
    method{DSP_X11, &dx11trm, &ownscreen},
    method{DSP_NULL, &nultrm, &ownscreen},
    method{DSP_SYSCON, &unxwretrm, &unxwrescn},
};

const method *chosen(int32_t type) {
    const auto *m = std::find_if(methods.begin(), methods.end(),
                                 [type](const method &each) { return (type & each.bit) != 0; });
    return m != methods.end() ? m : nullptr;
}

// A window, for the host itself through the viewer.
int32_t window(const char *name) {
    return name != nullptr && sameas(name, "plexhost") != 0 ? DSP_REMOTE : DSP_X11;
}

int32_t choose(const char *name) {
    xapnam = getoption("BBSDISP");
    if (xapnam == nullptr) {
        return window(name);
    }
    if (sameas(xapnam, "nullcon") != 0) {
        return DSP_NULL;
    }
    if (sameas(xapnam, "xwindow") != 0) {
        return window(name);
    }
    if (sameas(xapnam, "unixcon") != 0) {
        return DSP_SYSCON;
    }
    return dsptyp; // any other word names no method, which inittrm says
}

} // namespace

void inittrm() {
    const method *m = chosen(dsptyp);
    if (m == nullptr) {
        inform("FATAL ERROR: screen/keyboard method not specified!\n");
        exit(1);
    }
    trm = m->table;
}

const scrhdl &screenof(int32_t type) {
    const method *m = chosen(type);
    return m != nullptr ? *m->screen : ownscreen;
}

void opntrm(int32_t type, const char *name) {
    dsptyp = type != 0 ? type : choose(name);
    inittrm();
    xapnam = name;
    giveupown();
    if (trm->trmopn() == -1) {
        fputs("Display open failed. Exiting.\n", stderr);
        exit(1);
    }
}

void clstrm() {
    trm->trmcls();
}

int32_t getchc() {
    return trm->trminp();
}

int32_t getch() {
    return getchc();
}

int32_t kbhit() {
    return trm->trmhit();
}

void updtrm(int32_t force) {
    trm->trmupd(force);
}

void trmbel(int32_t pitch) {
    trm->trmbel(pitch);
}

int32_t lascan() {
    return lastscan;
}

} // namespace plex
