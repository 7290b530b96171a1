// The screen engine on hostile bytes: whatever holds for any stream.
//
// However a stream is cut, the picture and the state are the same. With one exception, kept on
// purpose: after an erase to the end of the screen the same print call goes on elsewhere, so a call
// may only end where the registers agree.

#include "fuzz/entry.h"
#include "fuzz/properties.h"

#include <random>
#include <vector>

namespace {

using fuzz::require;
using test::Arena;

// Everything that a later byte could meet.
std::string state(Arena &arena) {
    using namespace plex;
    const auto bytes = [](const auto &value) {
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    };
    return std::string(reinterpret_cast<const char *>(arena.image()), imagebytes) + bytes(curatr) +
           bytes(dx) + bytes(xcursor) + bytes(si) + bytes(lstctl) + bytes(canscro);
}

bool agree() {
    const auto cell = static_cast<uintptr_t>((plex::dx >> 8) * 80 + (plex::dx & 0xFF));
    return reinterpret_cast<uintptr_t>(plex::si) ==
           reinterpret_cast<uintptr_t>(plex::iscstt) + 2 * cell;
}

} // namespace

// The first bytes choose window and settings.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *stream, size_t size) {
    static Arena arena(false);
    constexpr size_t settings = 6;
    if (size < settings) {
        return 0;
    }
    const auto setting = [&](size_t i) { return stream[i]; };
    const auto on = [&](int bit) { return (setting(0) & bit) != 0; };
    std::string bytes(reinterpret_cast<const char *>(stream) + settings, size - settings);
    std::replace(bytes.begin(), bytes.end(), '\0', '\1'); // what ends a string
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
    const uint8_t left = setting(1) % 80;
    const uint8_t top = setting(2) % 25;
    const auto right = static_cast<uint8_t>(left + setting(3) % (80 - left));
    const auto bottom = static_cast<uint8_t>(top + setting(4) % (25 - top));
    std::minstd_rand rng(setting(5) + 1U);
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
        test::restart(arena, flags ? plex::DSP_REMOTE : plex::DSP_NULL);
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
        require(arena.intact(), "bytes beside the image changed");
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
        require(run(on(1), most, piece) == expected, "pieces are not as single bytes");
    }
    // On the other kind of display: the same cells.
    const std::string calls = run(!on(1), 60, [&](size_t at, size_t n) {
        while (at + n < bytes.size() && !mayend[at + n - 1]) {
            n++;
        }
        plex::unxprntf("%s", bytes.substr(at, n).c_str());
        return n;
    });
    require(calls.compare(0, plex::cellbytes, expected, 0, plex::cellbytes) == 0,
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
        return 0;
    }
    const plex::scrstate &win = plex::curatr;
    for (int i = 0; i < plex::scrrows; i++) {
        require(plex::updflg[i] == 0 || (i >= win.wtop && i <= win.wbottom),
                "a row outside the window is marked");
    }
    const std::string what = test::changed(arena, win.wleft, win.wtop, win.wright, win.wbottom);
    require(what.empty(), what.c_str());
    return 0;
}
