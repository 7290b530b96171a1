// Tiled blocks: one allocation cut into tiles of equal stride, so that an array may be larger than
// one object of the platform. The stride, 32 bits, stands just before the first tile.
#pragma once

namespace plex {

// Allocates `qty` tiles for `size` bytes each and returns the first. The stride is 1 to 4 bytes
// more than `size`. The block is never freed. Exhausted memory, or a block beyond what the platform
// can address, is a catastrophe ("NOT ENOUGH MEMORY").
void *alctile(unsigned qty, unsigned size);

// Tile number `index` of the block whose first tile is `bigptr`.
void *ptrtile(void *bigptr, unsigned index);

} // namespace plex
