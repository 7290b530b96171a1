// The screen engine on an image of ours, for the property test and the scripts of screens.
#pragma once

#include "libunix/console/trm.h"
#include "libunix/screen/ansi.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"
#include "libunix/screen/scroll.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace test {

// A buffer for the image amid bytes that nothing may touch: far enough to either side for any
// position word.
class Arena {
public:
    static constexpr size_t margin = 2 * 256 * 81;

    // Every cell is a dot, light grey on black, or each is another; no flag is set.
    explicit Arena(bool alike) : pristine(margin + plex::imagebytes + margin, 0xA5) {
        memset(pristine.data() + margin, 0, plex::imagebytes);
        for (size_t i = 0; i < plex::cellbytes; i += 2) {
            pristine[margin + i] = static_cast<unsigned char>(alike ? '.' : 0x80 | i >> 1);
            pristine[margin + i + 1] = static_cast<unsigned char>(alike ? 7 : i >> 8);
        }
        memory = pristine;
    }

    unsigned char *image() { return memory.data() + margin; }

    bool changed(size_t cell) {
        const size_t at = margin + 2 * cell;
        return memcmp(memory.data() + at, pristine.data() + at, 2) != 0;
    }

    void fill() { memcpy(memory.data(), pristine.data(), memory.size()); }

    bool intact() {
        const size_t behind = margin + plex::imagebytes;
        return memcmp(memory.data(), pristine.data(), margin) == 0 &&
               memcmp(memory.data() + behind, pristine.data() + behind, margin) == 0;
    }

private:
    std::vector<unsigned char> pristine;
    std::vector<unsigned char> memory;
};

// The engine as it is when a program starts, on that image.
inline void restart(Arena &arena, int32_t type) {
    static const plex::scrstate initial = plex::curatr; // before anything was written
    arena.fill();
    memcpy(static_cast<void *>(&plex::curatr), &initial, sizeof initial);
    plex::grafbuf = arena.image();
    plex::updflg = arena.image() + plex::cellbytes;
    plex::dsptyp = plex::DSP_NULL; // the method; what kind of display it is tells the engine
    plex::inittrm();
    plex::dsptyp = type;
    plex::xcursor = 0;
    plex::dx = 0;
    plex::lstctl = 0;
    plex::canscro = 0;
}

// The first cell outside of a rectangle that is not as fill() left it; empty when there is none.
inline std::string changed(Arena &arena, int left, int top, int right, int bottom) {
    for (int i = 0; i < plex::scrrows * plex::scrcols; i++) {
        const int column = i % plex::scrcols;
        const int row = i / plex::scrcols;
        if (arena.changed(static_cast<size_t>(i)) &&
            (column < left || column > right || row < top || row > bottom)) {
            return "column " + std::to_string(column) + " row " + std::to_string(row) + " changed";
        }
    }
    return arena.intact() ? "" : "bytes beside the image changed";
}

} // namespace test
