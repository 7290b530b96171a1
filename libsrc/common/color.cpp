#include "libsrc/common/color.h"

#include "libunix/screen/screen.h"

namespace plex {

int color = 1;

int scncolor(int attrib) {
    if (color != 0) {
        return attrib;
    }
    return (attrib & 0x70) == 0x70 ? 0x70 : (attrib & 0x88) | 7;
}

void sstatr(int attrib) {
    setatr(static_cast<unsigned char>(scncolor(attrib)));
}

} // namespace plex
