// Files: counted streams, positions and lengths, temporary files, free space, PC-style file times.
#pragma once

#include <cstdint>
#include <cstdio>

namespace plex {

// How many more streams gfopen may open.
extern int fopavl;

// Sets fopavl to the soft limit on open files (60 when it cannot be read).
void gfinit();

// fopen that counts: null without trying when fopavl is below 1. An exec closes the stream.
FILE *gfopen(const char *filename, const char *type);

// fclose that counts: fclose's result, or -1 for a null stream.
int gfclose(FILE *stream);

// The current offset of `fd` in bytes; all bits set when it has none.
uint64_t fdtell(int fd);

// The length of the file open as `fd`, in bytes; its offset is left as it was. All bits set when it
// has none.
uint64_t filelength(int fd);

// Creates and opens a file with a name of its own (mode 0600) in the directory `path`, whose last
// character is its trailing separator; the full name is copied back into `path`, which must have
// room for it (the directory and 18 bytes; at most 1025). `attrib` is only logged. Returns the
// descriptor, which an exec closes, or -1 with the cause in errno and in the log.
int creattemp(char *path, int attrib);

// Free space for ordinary users on the file system of `path`: in bytes, and in kilobytes (the
// number of blocks is divided by 1024, not the product). 0, and a log line, on failure.
uint64_t dskfre(const char *path);
uint64_t dskkfre(const char *path);

// The block size of that file system in bytes; 0, and a log line, on failure.
uint64_t clsize(const char *path);

// The space that `size` bytes take in clusters of `clsiz`: `size` itself on this platform.
int clfit(int size, unsigned clsiz);

// The modification time of the file open as `fd`, local time: the packed date in the high 16 bits,
// the packed time in the low ones (see libsrc/base/dates.h). 0 when it cannot be had.
uint32_t unxgtd(int fd);

// Sets the access and modification times of `fname` to packed time `dtim` and packed date `ddat`,
// local time: 1, or 0 on failure.
int unxstd(const char *fname, unsigned short dtim, unsigned short ddat);

} // namespace plex
