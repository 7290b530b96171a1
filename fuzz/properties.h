// What holds for any stream of bytes, for the property test and the fuzzer.
//
// However a stream is cut, the picture and the state are the same. With one exception, kept on
// purpose: after an erase to the end of the screen the same print call goes on elsewhere, so a call
// may only end where the registers agree.
#pragma once

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

// Says what does not hold for `stream`, whose first bytes choose window and settings; empty when
// everything does.
inline std::string violated(const std::string &stream) {
    static Arena arena(false);
    constexpr size_t settings = 6;
    if (stream.size() < settings) {
        return "";
    }
    const auto setting = [&](size_t i) { return static_cast<uint8_t>(stream[i]); };
    std::string bytes = stream.substr(settings);
    std::replace(bytes.begin(), bytes.end(), '\0', '\1'); // what ends a string
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
    const size_t len = bytes.size();
    const bool flags = (setting(0) & 1) != 0;
    const uint8_t left = setting(1) % 80;
    const uint8_t top = setting(2) % 25;
    const auto right = static_cast<uint8_t>(left + setting(3) % (80 - left));
    const auto bottom = static_cast<uint8_t>(top + setting(4) % (25 - top));
    std::minstd_rand rng(setting(5) + 1U);
    // A scroll region from before the window, and a cursor that stands anywhere.
    const bool regions = (setting(0) & 16) != 0;
    const bool outside = (setting(0) & 32) != 0;
    const int rgntop = static_cast<int>(rng() % 24);
    const int rgnbot = rgntop + 1 + static_cast<int>(rng() % (24U - static_cast<unsigned>(rgntop)));
    const int column = static_cast<int>(rng() % 256);
    const int row = static_cast<int>(rng() % 256);
    bool intact = true;
    const auto run = [&](bool keepflags, const auto &feed) {
        restart(arena, keepflags ? plex::DSP_REMOTE : plex::DSP_NULL);
        if (regions) {
            plex::ansion(1);
            plex::unxprntf("\33[%d;%dr", rgntop + 1, rgnbot + 1);
        }
        if ((setting(0) & 2) != 0) {
            plex::setwin(nullptr, left, top, right, bottom, (setting(0) & 4) != 0);
        }
        plex::ansion((setting(0) & 8) != 0 ? 0 : 1);
        plex::locate(outside ? column : (plex::curatr.wleft + plex::curatr.wright) / 2,
                     outside ? row : plex::curatr.wtop);
        plex::bgnout();
        feed();
        plex::wrcurp(plex::dx);
        intact = intact && arena.intact();
        return state(arena);
    };
    std::vector<bool> mayend;
    const std::string expected = run(flags, [&] {
        for (const char byte : bytes) {
            const auto c = static_cast<unsigned char>(byte);
            plex::outbyt(c);
            mayend.push_back(agree());
        }
    });
    if (run(flags, [&] { plex::outbuf(data, len); }) != expected) {
        return "the whole stream gives something else than single bytes";
    }
    const std::string pieces = run(flags, [&] {
        for (size_t n = 0, at = 0; at < len; at += n) {
            n = std::min<size_t>(1 + rng() % 40, len - at);
            plex::outbuf(data + at, n);
        }
    });
    if (pieces != expected) {
        return "pieces give something else than single bytes";
    }
    // On the other kind of display: the same cells.
    const std::string calls = run(!flags, [&] {
        for (size_t n = 0, at = 0; at < len; at += n) {
            n = std::min<size_t>(1 + rng() % 60, len - at);
            while (at + n < len && !mayend[at + n - 1]) {
                n++;
            }
            plex::unxprntf("%s", bytes.substr(at, n).c_str());
        }
    });
    if (calls.compare(0, plex::cellbytes, expected, 0, plex::cellbytes) != 0) {
        return "print calls give something else than single bytes";
    }
    run(true, [&] {
        for (const char byte : bytes) {
            const auto c = static_cast<unsigned char>(byte);
            plex::bgnout();
            plex::outbyt(c);
            plex::wrcurp(plex::dx);
        }
    });
    if (!intact) {
        return "bytes beside the image changed";
    }
    // What is written starts outside the window, or a backspace above a scroll region leads out.
    const auto has = [&](char c) { return bytes.find(c) != std::string::npos; };
    if (outside || regions || (has('\b') && has('r'))) {
        return "";
    }
    const plex::scrstate &win = plex::curatr;
    for (int row = 0; row < plex::scrrows; row++) {
        if (plex::updflg[row] != 0 && (row < win.wtop || row > win.wbottom)) {
            return "row " + std::to_string(row) + " outside the window is marked";
        }
    }
    return changed(arena, win.wleft, win.wtop, win.wright, win.wbottom);
}

} // namespace test
