// What holds for any stream of bytes on the screen, and the guarded image that shows it.
//
// However a stream is cut, the picture and the state are the same. With one exception, kept on
// purpose: after an erase to the end of the screen the same print call goes on elsewhere, so a call
// may only end where the registers agree.
#pragma once

#include "fuzz/entry.h"
#include "libunix/console/trm.h"
#include "libunix/screen/ansi.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"
#include "libunix/screen/scroll.h"

#include <algorithm>
#include <cstring>
#include <random>
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

// Everything that a later byte could meet.
inline std::string state(Arena &arena) {
    using namespace plex;
    const auto bytes = [](const auto &value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    return std::string(reinterpret_cast<const char *>(arena.image()), imagebytes) + bytes(curatr) +
           bytes(dx) + bytes(xcursor) + bytes(si) + bytes(lstctl) + bytes(canscro);
}

inline bool agree() {
    const auto cell = static_cast<uintptr_t>((plex::dx >> 8) * 80 + (plex::dx & 0xFF));
    return reinterpret_cast<uintptr_t>(plex::si) ==
           reinterpret_cast<uintptr_t>(plex::iscstt) + 2 * cell;
}

// Ends the program unless all holds for a stream, whose first bytes choose window and settings.
inline void holds(const uint8_t *stream, size_t size) {
    static Arena arena(false);
    constexpr size_t settings = 6;
    if (size < settings) {
        return;
    }
    const auto on = [&](int bit) { return (stream[0] & bit) != 0; };
    std::string bytes(reinterpret_cast<const char *>(stream) + settings, size - settings);
    std::replace(bytes.begin(), bytes.end(), '\0', '\1'); // what ends a string
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
    const uint8_t left = stream[1] % 80;
    const uint8_t top = stream[2] % 25;
    const auto right = static_cast<uint8_t>(left + stream[3] % (80 - left));
    const auto bottom = static_cast<uint8_t>(top + stream[4] % (25 - top));
    std::minstd_rand rng(stream[5] + 1U);
    const auto below = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    // A scroll region from before the window, and a cursor that stands anywhere.
    const bool regions = on(16);
    const bool outside = on(32);
    const int rgntop = below(24);
    const int rgnbot = rgntop + 1 + below(24 - rgntop);
    const int column = below(256);
    const int row = below(256);
    // Feeds the stream in pieces of `most` bytes at most, of which `feed` may take more.
    const auto run = [&](bool flags, int most, const auto &feed) {
        restart(arena, flags ? plex::DSP_REMOTE : plex::DSP_NULL);
        if (regions) {
            plex::ansion(1);
            plex::unxprntf("\33[%d;%dr", rgntop + 1, rgnbot + 1);
        }
        if (on(2)) {
            plex::setwin(nullptr, left, top, right, bottom, on(4));
        }
        plex::ansion(on(8) ? 0 : 1);
        plex::locate(outside ? column : (plex::curatr.wleft + plex::curatr.wright) / 2,
                     outside ? row : plex::curatr.wtop);
        plex::bgnout();
        for (size_t at = 0; at < bytes.size();) {
            at += feed(at, std::min(static_cast<size_t>(1 + below(most)), bytes.size() - at));
        }
        plex::wrcurp(plex::dx);
        fuzz::require(arena.intact(), "bytes beside the image changed");
        return state(arena);
    };
    std::vector<bool> mayend;
    const auto single = [&](size_t at, size_t /*n*/) {
        plex::outbyt(data[at]);
        mayend.push_back(agree());
        return 1;
    };
    const auto piece = [&](size_t at, size_t n) {
        plex::outbuf(data + at, n);
        return n;
    };
    const std::string expected = run(on(1), 1, single);
    for (const int most : {1 << 30, 40}) {
        fuzz::require(run(on(1), most, piece) == expected, "pieces are not as single bytes");
    }
    // On the other kind of display: the same cells.
    const std::string calls = run(!on(1), 60, [&](size_t at, size_t n) {
        while (at + n < bytes.size() && !mayend[at + n - 1]) {
            n++;
        }
        plex::unxprntf("%s", bytes.substr(at, n).c_str());
        return n;
    });
    fuzz::require(calls.compare(0, plex::cellbytes, expected, 0, plex::cellbytes) == 0,
                  "print calls are not as single bytes");
    run(true, 1, [&](size_t at, size_t /*n*/) {
        plex::bgnout();
        plex::outbyt(data[at]);
        plex::wrcurp(plex::dx);
        return 1;
    });
    // What is written starts outside the window, or a backspace above a scroll region leads out.
    const auto has = [&](char c) { return bytes.find(c) != std::string::npos; };
    if (outside || regions || (has('\b') && has('r'))) {
        return;
    }
    const plex::scrstate &win = plex::curatr;
    for (int i = 0; i < plex::scrrows; i++) {
        fuzz::require(plex::updflg[i] == 0 || (i >= win.wtop && i <= win.wbottom),
                      "a row outside the window is marked");
    }
    const std::string what = changed(arena, win.wleft, win.wtop, win.wright, win.wbottom);
    fuzz::require(what.empty(), what.c_str());
}

} // namespace test
