// A frame shows the window's four corner pieces next to each other at its centre; from frame to
// frame they grow by two columns and a row and slide apart, until they are the whole. Where a side
// is odd, the last frame draws the middle column or row twice.

#include "libsrc/catastro/explode.h"

#include "libunix/runtime/process.h"
#include "libunix/screen/display.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace plex {

int explodem = 1;

namespace {

constexpr unsigned framepause = 10; // microseconds: a yield, no spacing for the eye; deliberate
constexpr int shadowbits = 7;       // what is left of an attribute: dim on black, no blink

// Moves `n` cells; what would fall off the screen is left out.
void moverun(unsigned char *scr, int64_t dstrow, int64_t dstcol, const unsigned char *src,
             int srcrow, int srccol, int n) {
    const int64_t cut = std::max<int64_t>(-dstcol, 0);
    const int64_t len = std::min<int64_t>(n, scrcols - dstcol) - cut;
    if (len <= 0 || dstrow < 0 || dstrow >= scrrows) {
        return;
    }
    memmove(scr + (dstrow * scrcols + dstcol + cut) * 2,
            src + (srcrow * scrcols + srccol + cut) * 2, static_cast<size_t>(len) * 2);
}

// Below and to the right, as far as there is a screen.
void dropshadow(unsigned char *scr, int64_t tux, int64_t tuy, int64_t lrx, int64_t lry) {
    for (int row = 0; row < scrrows; row++) {
        for (int col = 0; col < scrcols; col++) {
            const bool below = row == lry + 1 && col >= tux + 2 && col <= lrx;
            const bool beside = row > tuy && row <= lry + 1 && (col == lrx + 1 || col == lrx + 2);
            if (below || beside) {
                scr[(row * scrcols + col) * 2 + 1] &= shadowbits;
            }
        }
    }
}

// A side of the rectangle, from `first` to `last` in the source and beginning at `to` on the
// screen, is cut to the source's own `size`.
struct side {
    int first;
    int last;
    int64_t to;

    side(int f, int l, int t, int size)
        : first(std::clamp(f, 0, size)), last(std::clamp(l, -1, size - 1)),
          to(int64_t{t} + first - f) {}
};

} // namespace

void explodell(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy, int shd) {
    const auto *src = static_cast<const unsigned char *>(sptr);
    proff(tux, tuy);
    unsigned char *scr = frzseg();
    const side x(fux, flx, tux, scrcols);
    const side y(fuy, fly, tuy, scrrows);
    const int wide = x.last - x.first; // less one, as the height
    const int high = y.last - y.first;
    const int halfw = (wide + 2) / 2;
    const int halfh = (high + 2) / 2;
    const int64_t midx = x.to + (wide + 1) / 2;
    const int64_t midy = y.to + (high + 1) / 2;
    const int64_t left = midx + ((wide + 1) & 1); // where the left pieces end
    const int64_t top = midy + ((high + 1) & 1);
    int xsize = explodem != 0 ? 0 : halfw - 1;
    int ysize = explodem != 0 ? 0 : halfh - 1;
    while (xsize != halfw || ysize != halfh) {
        xsize = std::min(xsize + 2, halfw);
        ysize = std::min(ysize + 1, halfh);
        for (int i = 0; i < ysize; i++) {
            const int right = x.last - xsize + 1;
            const int bottom = y.last - ysize + i + 1;
            moverun(scr, top - ysize + i, left - xsize, src, y.first + i, x.first, xsize);
            moverun(scr, top - ysize + i, midx, src, y.first + i, right, xsize);
            moverun(scr, midy + i, left - xsize, src, bottom, x.first, xsize);
            moverun(scr, midy + i, midx, src, bottom, right, xsize);
        }
        delay(framepause);
    }
    if (shd != 0) {
        dropshadow(scr, x.to, y.to, x.to + wide, y.to + high);
    }
    updtrm(1);
}

void explodeto(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy) {
    explodell(sptr, fux, fuy, flx, fly, tux, tuy, 1);
}

void nsexploto(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy) {
    explodell(sptr, fux, fuy, flx, fly, tux, tuy, 0);
}

void explode(const void *sctptr, int wulx, int wuly, int wlrx, int wlry) {
    explodell(sctptr, wulx, wuly, wlrx, wlry, wulx, wuly, 1);
}

} // namespace plex
