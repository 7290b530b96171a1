// The X console method: a thin layer of console operations over the display.

#include "libunix/console/trm.h"
#include "libunix/console/xdisplay.h"
#include "libunix/screen/screen.h"

namespace plex {
namespace {

int32_t dxopen() {
    return opndsp(nullptr, frzseg());
}

int32_t dxclose() {
    return clsdsp();
}

// A busy loop by design, as on the other consoles; each turn keeps the window up to date.
int32_t dxread() {
    while (kpdsp() == 0) {
    }
    return gkdsp();
}

int32_t dxpress() {
    return kpdsp();
}

void dxupdate(int32_t force) {
    updsp(force);
}

void dxbell(int32_t /*pitch*/) {}

} // namespace

const trmhdl dx11trm = {dxopen, dxclose, dxread, dxpress, dxupdate, dxbell};

} // namespace plex
