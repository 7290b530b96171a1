// The policy at the end of a fatal error, alone in its module: a program that can recover links one
// of its own, which returns, and goes on where it set `disaster`.

#include "libsrc/catastro/catastro.h"

#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"

#include <csignal>
#include <cstdlib>

namespace plex {
namespace {

constexpr int handled = 90; // exit status

} // namespace

void catachk() {
    if (catact == 0) {
        pupwin(1);
    }
    unxprntf("\n\nUnexpected exit, no recovery method supplied...\n");
    locate(0, exitrow);
    clsisam();
    if (nocore == 0) {
        raise(SIGQUIT);
    }
    exit(handled);
}

} // namespace plex
