// A frame shows the window's four corner pieces next to each other at its centre; from frame to
// frame they grow by two columns and a row and slide apart, until they are the whole. Where a side
// is odd, the last frame draws the middle column or row twice.

#include "libsrc/catastro/explode.h"

#include "libunix/runtime/process.h"
#include "libunix/screen/display.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"

#include <algorithm>
#include <cstring>

namespace plex {

int explodem = 1;

namespace {

constexpr unsigned framepause = 10; // microseconds: a yield, no spacing for the eye; deliberate
constexpr int shadowbits = 7;       // what is left of an attribute: dim on black, no blink

// Moves `n` cells; what would fall off the screen is left out.
void moverun(unsigned char *scr, int dstrow, int dstcol, const unsigned char *src, int srcrow,
             int srccol, int n) {
    const int cut = std::max(-dstcol, 0);
    n = std::min(n, scrcols - dstcol) - cut;
    if (n <= 0 || dstrow < 0 || dstrow >= scrrows) {
        return;
    }
    memmove(scr + (dstrow * scrcols + dstcol + cut) * 2,
            src + (srcrow * scrcols + srccol + cut) * 2, static_cast<size_t>(n) * 2);
}

void shade(unsigned char *scr, int row, int col) {
    if (row >= 0 && row < scrrows && col >= 0 && col < scrcols) {
        scr[(row * scrcols + col) * 2 + 1] &= shadowbits;
    }
}

void dropshadow(unsigned char *scr, int tux, int tuy, int lrx, int lry) {
    if (lry < scrrows - 1) {
        for (int col = tux + 2; col <= std::min(lrx, scrcols - 1); col++) {
            shade(scr, lry + 1, col);
        }
    }
    const int last = std::min(lry, scrrows - 2);
    for (int row = tuy + 1; lrx < scrcols - 1 && row <= last + 1; row++) {
        shade(scr, row, lrx + 1);
        shade(scr, row, lrx + 2); // cut off at the screen's edge
    }
}

} // namespace

void explodell(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy, int shd) {
    const auto *src = static_cast<const unsigned char *>(sptr);
    proff(tux, tuy);
    unsigned char *scr = frzseg();
    const int wide = flx - fux; // less one, as the height
    const int high = fly - fuy;
    const int halfw = (wide + 2) / 2;
    const int halfh = (high + 2) / 2;
    const int midx = tux + (wide + 1) / 2;
    const int midy = tuy + (high + 1) / 2;
    const int left = midx + ((wide + 1) & 1); // where the left pieces end
    const int top = midy + ((high + 1) & 1);
    int xsize = explodem != 0 ? 0 : halfw - 1;
    int ysize = explodem != 0 ? 0 : halfh - 1;
    while (xsize != halfw || ysize != halfh) {
        xsize = std::min(xsize + 2, halfw);
        ysize = std::min(ysize + 1, halfh);
        for (int i = 0; i < ysize; i++) {
            const int bottom = fly - ysize + i + 1;
            moverun(scr, top - ysize + i, left - xsize, src, fuy + i, fux, xsize);
            moverun(scr, top - ysize + i, midx, src, fuy + i, flx - xsize + 1, xsize);
            moverun(scr, midy + i, left - xsize, src, bottom, fux, xsize);
            moverun(scr, midy + i, midx, src, bottom, flx - xsize + 1, xsize);
        }
        delay(framepause);
    }
    if (shd != 0) {
        dropshadow(scr, tux, tuy, tux + wide, tuy + high);
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
