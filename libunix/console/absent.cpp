// Methods that this build does not have yet: selecting one fails as an open that fails.

#include "libunix/console/trm.h"

namespace plex {
namespace {

int32_t refuse() {
    return -1;
}

int32_t nothing() {
    return 0;
}

void ignore(int32_t /*value*/) {}

constexpr trmhdl absent = {refuse, nothing, nothing, nothing, ignore, ignore};

} // namespace

const trmhdl unxwretrm = absent;

} // namespace plex
