// How fast the screen engine takes text, in one run with what it is held against: the screen layer
// of libvterm, where that is installed, and a bare loop that does no more than touch the memory
// that the densest stream must touch.
//
// Times are of the processor, not of the clock, and each figure is the median of five rounds that
// take turns, so that what else the machine does falls on all of them.

#include "libunix/screen/screen.h"
#include "libunix/console/trm.h"
#include "libunix/screen/print.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

#ifdef HAVE_VTERM
#include <vterm.h>
#endif

namespace {

constexpr size_t streamsize = 8 << 20;
constexpr size_t piecesize = 4000;
constexpr int rounds = 5;

using Pieces = std::vector<std::string>; // what one print call takes

std::minstd_rand rng(1);

int pick(int from, int to) {
    return std::uniform_int_distribution(from, to)(rng);
}

std::string letters(int n) {
    std::string text;
    for (int i = 0; i < n; i++) {
        text += static_cast<char>(pick('a', 'z'));
    }
    return text;
}

std::string text() {
    return letters(pick(10, 78)) + "\r\n";
}

std::string dense() {
    return letters(80);
}

std::string colours() {
    std::string line;
    for (int i = 0; i < 40; i++) {
        line += "\33[" + std::to_string(pick(0, 1)) + ";3" + std::to_string(pick(0, 7)) + ";4" +
                std::to_string(pick(0, 7)) + "m" + letters(1);
    }
    return line + "\r\n";
}

std::string places() {
    std::string move =
        "\33[" + std::to_string(pick(1, 25)) + ";" + std::to_string(pick(1, 80)) + "H";
    return move + letters(pick(1, 6)) + (pick(0, 9) == 0 ? "\33[K" : "");
}

Pieces cut(std::string (*make)()) {
    std::string all;
    while (all.size() < streamsize) {
        all += make();
    }
    Pieces pieces;
    for (size_t at = 0; at < all.size(); at += piecesize) {
        pieces.push_back(all.substr(at, piecesize));
    }
    return pieces;
}

double seconds() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Contender {
    const char *name;
    std::function<void(const Pieces &)> feed;
};

void engine(int32_t type, const Pieces &pieces) {
    plex::dsptyp = type; // the method stays the null console: what is measured is the engine
    for (const std::string &piece : pieces) {
        plex::unxprntf("%s", piece.c_str());
    }
}

// Per byte: the character, the attribute, the row's flag; per line: every row but one moved up.
void physical(const Pieces &pieces) {
    static unsigned char image[4029];
    unsigned char *flags = image + 4000;
    unsigned char *cell = image + 3840;
    for (const std::string &piece : pieces) {
        for (const char c : piece) {
            cell[0] = static_cast<unsigned char>(c);
            cell[1] = 7;
            cell += 2;
            flags[24] = 1;
            if (cell == flags) {
                memmove(image, image + 160, 3840);
                cell = image + 3840;
            }
        }
    }
}

#ifdef HAVE_VTERM
void libvterm(const Pieces &pieces) {
    VTerm *vt = vterm_new(25, 80);
    VTermScreen *screen = vterm_obtain_screen(vt);
    vterm_screen_reset(screen, 1);
    for (const std::string &piece : pieces) {
        vterm_input_write(vt, piece.data(), piece.size());
    }
    vterm_free(vt);
}
#endif

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main() {
    plex::opntrm(plex::DSP_NULL, "bench");
    plex::ansion(1);
    const struct {
        const char *name;
        Pieces pieces;
        double atleast; // times libvterm
    } streams[] = {
        {"text", cut(text), 10},
        {"dense", cut(dense), 10},
        {"colours", cut(colours), 5},
        {"places", cut(places), 5},
    };
    const std::vector<Contender> contenders = {
        {"null", [](const Pieces &p) { engine(plex::DSP_NULL, p); }},
        {"shared", [](const Pieces &p) { engine(plex::DSP_REMOTE, p); }},
        {"X", [](const Pieces &p) { engine(plex::DSP_X11, p); }},
        {"bare loop", physical},
#ifdef HAVE_VTERM
        {"libvterm", libvterm},
#endif
    };
    printf("MB/s; 8 MiB a stream, pieces of %zu bytes, medians of %d\n\n%-10s", piecesize, rounds,
           "");
    for (const Contender &c : contenders) {
        printf("%11s", c.name);
    }
    puts("");
    for (const auto &stream : streams) {
        std::vector<std::vector<double>> speeds(contenders.size());
        for (int round = 0; round < rounds; round++) {
            for (size_t i = 0; i < contenders.size(); i++) {
                const double start = seconds();
                contenders[i].feed(stream.pieces);
                speeds[i].push_back(streamsize / 1e6 / (seconds() - start));
            }
        }
        printf("%-10s", stream.name);
        const bool isdense = strcmp(stream.name, "dense") == 0;
        for (size_t i = 0; i < contenders.size(); i++) {
            if (i != 3 || isdense) {
                printf("%11.0f", median(speeds[i]));
            } else {
                printf("%11s", "");
            }
        }
        const double ours = median(speeds[0]);
        if (isdense) {
            printf("   %.2f of the bare loop (0.5 wanted)", ours / median(speeds[3]));
        }
        if (contenders.size() > 4) {
            printf("   %.1f x libvterm (%.0f wanted)", ours / median(speeds[4]), stream.atleast);
        }
        puts("");
    }
}
