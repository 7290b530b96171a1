// File services over the widest offsets that the platform has: a file or disk beyond 4 GB is told
// as it is.

#include "libunix/runtime/files.h"

#include "libsrc/base/dates.h"
#include "libunix/common/tmpfil.h"
#include "libunix/runtime/log.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utime.h>

namespace plex {

int fopavl;

namespace {

constexpr int fewstreams = 60; // what any system gives, when ours cannot be asked

char fulpth[1025];

// What statvfs tells of `path`; on failure a log line and false.
bool fsinfo(const char *path, struct statvfs &info) {
    if (statvfs(path, &info) == 0) {
        return true;
    }
    inform("dskfre: statvfs/statfs errno=%d (%s)\n", errno, strerror(errno));
    return false;
}

} // namespace

void gfinit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) {
        fopavl = fewstreams;
    } else {
        constexpr rlim_t most = INT32_MAX;
        fopavl = static_cast<int>(std::min(limit.rlim_cur, most));
    }
}

FILE *gfopen(const char *filename, const char *type) {
    if (fopavl < 1) {
        return nullptr;
    }
    FILE *stream = fopen(filename, type);
    if (stream != nullptr) {
        fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
        fopavl--;
    }
    return stream;
}

int gfclose(FILE *stream) {
    if (stream == nullptr) {
        return -1;
    }
    const int result = fclose(stream);
    if (result != -1) {
        fopavl++;
    }
    return result;
}

uint64_t fdtell(int fd) {
    return static_cast<uint64_t>(lseek(fd, 0, SEEK_CUR));
}

uint64_t filelength(int fd) {
    const off_t here = lseek(fd, 0, SEEK_CUR);
    const off_t end = lseek(fd, 0, SEEK_END);
    lseek(fd, here, SEEK_SET);
    return static_cast<uint64_t>(end);
}

int creattemp(char *path, int attrib) {
    const size_t len = strlen(path);
    int fd = -1;
    if (len + 18 > sizeof fulpth) {
        errno = ENAMETOOLONG;
    } else {
        if (len > 0) {
            path[len - 1] = '\0';
        }
        if (tmpfil(path, "tmp", fulpth) != nullptr) {
            memcpy(path, fulpth, strlen(fulpth) + 1);
            fd = open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        } else {
            errno = EEXIST;
        }
    }
    const int cause = errno;
    inform("creattemp: path=[%s] attrib=%d fd=%d\n", path, attrib, fd);
    if (fd == -1) {
        inform("creattemp: errno = %d [%s]\n", cause, strerror(cause));
    }
    return fd;
}

uint64_t dskfre(const char *path) {
    struct statvfs info = {};
    return fsinfo(path, info) ? static_cast<uint64_t>(info.f_frsize) * info.f_bavail : 0;
}

uint64_t dskkfre(const char *path) {
    struct statvfs info = {};
    // The blocks are divided, not the product: deliberate.
    return fsinfo(path, info) ? static_cast<uint64_t>(info.f_bavail >> 10) * info.f_frsize : 0;
}

uint64_t clsize(const char *path) {
    struct statvfs info = {};
    if (statvfs(path, &info) < 0) {
        inform("dskfre: statvfs/statfs : %s\n", strerror(errno));
        return 0;
    }
    return info.f_bsize;
}

int clfit(int size, unsigned /*clsiz*/) {
    return size;
}

uint32_t unxgtd(int fd) {
    struct stat st = {};
    if (fstat(fd, &st) < 0) {
        return 0;
    }
    const tm *when = localtime(&st.st_mtime); // follows a changed TZ, which localtime_r need not
    return when == nullptr ? 0 : static_cast<uint32_t>(tmdate(*when)) << 16 | tmtime(*when);
}

int unxstd(const char *fname, unsigned short dtim, unsigned short ddat) {
    struct stat st = {};
    if (stat(fname, &st) < 0) {
        return 0;
    }
    tm when = {};
    when.tm_isdst = -1; // summer time as on that day, whatever the file's present time has
    when.tm_year = (ddat >> 9) + 80;
    when.tm_mon = ((ddat >> 5) & 15) - 1;
    when.tm_mday = ddat & 31;
    when.tm_hour = dtim >> 11;
    when.tm_min = (dtim >> 5) & 63;
    when.tm_sec = (dtim * 2) & 62;
    const time_t seconds = mktime(&when);
    if (seconds < 0) {
        return 0;
    }
    const utimbuf times = {seconds, seconds};
    return utime(fname, &times) == 0 ? 1 : 0;
}

} // namespace plex
