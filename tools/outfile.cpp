#include "tools/outfile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr int mostlinks = 40; // as the kernel follows

// The directory part of a path, with its "/"; empty when it has none.
std::string directory(const std::string &path) {
    return path.substr(0, path.rfind('/') + 1);
}

// Where a chain of links leads to, be there a file or not.
std::string followlinks(std::string path) {
    char target[PATH_MAX];
    for (int i = 0; i < mostlinks; i++) {
        const ssize_t len = readlink(path.c_str(), target, sizeof target);
        if (len == -1) {
            break;
        }
        path = target[0] == '/' ? "" : directory(path);
        path.append(target, static_cast<size_t>(len));
    }
    return path;
}

bool writeall(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto n = TEMP_FAILURE_RETRY(write(fd, bytes.data(), bytes.size()));
        if (n == -1) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// Gives a new file what the one before it had, or what any new file gets. Whose it was can be kept
// by root alone.
bool takeover(int fd, const struct stat *before) {
    if (before == nullptr) {
        const mode_t mask = umask(0);
        umask(mask);
        return fchmod(fd, 0666 & ~mask) == 0;
    }
    const bool kept = fchown(fd, before->st_uid, before->st_gid) == 0;
    return fchmod(fd, before->st_mode & (kept ? 07777 : 0777)) == 0;
}

bool replace(const std::string &path, const struct stat *before, std::string_view bytes) {
    std::string temp = directory(path) + ".plex.XXXXXX";
    const int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd == -1) {
        return false;
    }
    bool done = takeover(fd, before) && writeall(fd, bytes);
    done = close(fd) == 0 && done && rename(temp.c_str(), path.c_str()) == 0;
    if (!done) {
        const int cause = errno;
        unlink(temp.c_str());
        errno = cause;
    }
    return done;
}

} // namespace

bool writefile(const std::string &path, std::string_view bytes) {
    struct stat st = {};
    const bool there = stat(path.c_str(), &st) == 0;
    if (!there && errno != ENOENT) {
        return false;
    }
    if (!there || S_ISREG(st.st_mode)) {
        return replace(followlinks(path), there ? &st : nullptr, bytes);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    const bool done = fd != -1 && writeall(fd, bytes);
    return fd != -1 && close(fd) == 0 && done;
}

bool samefile(const std::string &a, const std::string &b) {
    struct stat sa = {};
    struct stat sb = {};
    if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0) {
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino && S_ISREG(sa.st_mode);
    }
    return followlinks(a) == followlinks(b);
}

} // namespace plex
