// Pop-up windows that burst open from their centre.
//
// The source is an image of cells as on the screen (character, attribute; rows 80 cells apart); the
// rectangle shown is given by its inclusive corners in it, columns and rows from 0. Later output by
// prat is relative to the window's corner. What lies outside the source's 80 by 25 cells, or falls
// off the screen, is not shown.
#pragma once

#include <cstdint>

namespace plex {

extern int explodem; // 0: windows appear in one step

// Opens columns `fux` to `flx`, rows `fuy` to `fly` of `sptr` with the top left corner at column
// `tux`, row `tuy` of the screen; `shd` non-zero drops a shadow to the right and below.
void explodell(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy, int shd);

// With a shadow, and without.
void explodeto(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy);
void nsexploto(const void *sptr, int fux, int fuy, int flx, int fly, int tux, int tuy);

// From a full-screen image to where it stands in it, with a shadow.
void explode(const void *sctptr, int wulx, int wuly, int wlrx, int wlry);

} // namespace plex
