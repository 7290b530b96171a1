// The null console: a screen image that nobody sees and a keyboard without keys. Reading a key
// never waits.

#include "libunix/console/trm.h"
#include "libunix/screen/screen.h"

namespace plex {
namespace {

int32_t nulopn() {
    frzseg();
    return 0;
}

int32_t nulcls() {
    return 0;
}

int32_t nulget() {
    return 0;
}

int32_t nulprs() {
    return 0;
}

void nulupd(int32_t /*force*/) {}

void nulbel(int32_t /*pitch*/) {}

} // namespace

const trmhdl nultrm = {nulopn, nulcls, nulget, nulprs, nulupd, nulbel};

} // namespace plex
