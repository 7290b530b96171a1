// A search resumes at the position that the directory gave with the last entry, set on the
// descriptor before a stream is made of it: a stream's own positions are narrower on 32-bit
// machines than those that file systems give, and hold for that stream only.

#include "libunix/common/fndfil.h"

#include "libsrc/base/dates.h"
#include "libsrc/base/text.h"
#include "libunix/common/wildcard.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

bool reopen(fndblk *fb) {
    const int fd = open(fb->dirnam, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    fb->dirp = lseek(fd, fb->pos, SEEK_SET) == -1 ? nullptr : fdopendir(fd);
    if (fb->dirp == nullptr) {
        close(fd);
    }
    return fb->dirp != nullptr;
}

// Goes on to the next entry that qualifies, other than `last`.
int search(fndblk *fb, const char *last) {
    if (!reopen(fb)) {
        return 0;
    }
    int found = 0;
    while (const dirent *entry = readdir(fb->dirp)) {
        const char *name = entry->d_name;
        if (matches(fb->filspc, name) == 0 && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
            strcmp(name, last) != 0 && filstr(name, fb) == 0) {
            fb->pos = entry->d_off;
            found = 1;
            break;
        }
    }
    closedir(fb->dirp);
    fb->dirp = nullptr;
    return found;
}

} // namespace

int fnd1st(fndblk *fbptr, const char *spec, int attr) {
    fbptr->rattr = static_cast<uint8_t>(attr);
    fbptr->dirp = nullptr;
    fbptr->pos = 0;
    fbptr->name[0] = '\0';
    fbptr->dirnam[0] = '\0'; // what is refused below cannot be continued either
    const size_t len = strlen(spec);
    if (len >= sizeof fbptr->dirnam) {
        return 0;
    }
    char path[sizeof fbptr->dirnam];
    memcpy(path, spec, len + 1);
    if (len > 0 && path[len - 1] == '/') {
        path[len - 1] = '\0';
    }
    char *slash = strrchr(path, '/');
    const char *pattern = slash != nullptr ? slash + 1 : path;
    if (strlen(pattern) >= sizeof fbptr->filspc) {
        return 0;
    }
    stzcpy(fbptr->filspc, pattern, sizeof fbptr->filspc);
    const char *dir = ".";
    if (slash == path) {
        dir = "/";
    } else if (slash != nullptr) {
        *slash = '\0';
        dir = path;
    }
    stzcpy(fbptr->dirnam, dir, sizeof fbptr->dirnam);
    return search(fbptr, "");
}

int fndnxt(fndblk *fbptr) {
    // Where positions are mere counts, a new entry before this one would bring it up again.
    char last[sizeof fbptr->name];
    stzcpy(last, fbptr->name, sizeof last);
    return search(fbptr, last);
}

int fndfil(fndblk *fbptr, const char *spec, int attr) {
    return fnd1st(fbptr, spec, attr);
}

int fndfre(fndblk * /*fbptr*/) {
    return 1;
}

int isfile(const char *dir, const char *name) {
    char path[PATH_MAX];
    struct stat st = {};
    const int len = snprintf(path, sizeof path, "%s/%s", dir, name);
    return len < PATH_MAX && stat(path, &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

int filstr(const char *filnam, fndblk *fbptr) {
    char path[sizeof fbptr->dirnam + sizeof fbptr->name];
    struct stat st = {};
    if (strlen(filnam) >= sizeof fbptr->name) {
        return -1;
    }
    snprintf(path, sizeof path, "%s/%s", fbptr->dirnam, filnam);
    if (stat(path, &st) != 0) {
        return -1;
    }
    const bool dir = S_ISDIR(st.st_mode);
    if (dir && fbptr->rattr != DIRATTR) {
        return -1;
    }
    fbptr->attr = dir ? DIRATTR : 0;
    stzcpy(fbptr->name, filnam, sizeof fbptr->name);
    fbptr->size = static_cast<int>(std::min<off_t>(st.st_size, INT_MAX));
    const tm *when = localtime(&st.st_mtime);
    fbptr->time = when != nullptr ? tmtime(*when) : 0; // a time that no calendar holds
    fbptr->date = when != nullptr ? tmdate(*when) : 0;
    return 0;
}

} // namespace plex
