// The emulator tells an emulated program that it is PROGRAM.elf, which only the emulator can run.
// A program that starts itself again means the script PROGRAM (see cmake/emulated).

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

extern "C" ssize_t readlink(const char *path, char *buf, size_t size) noexcept {
    const ssize_t len = readlinkat(AT_FDCWD, path, buf, size);
    const bool self = len > 4 && strcmp(path, "/proc/self/exe") == 0;
    return self && memcmp(buf + len - 4, ".elf", 4) == 0 ? len - 4 : len;
}
