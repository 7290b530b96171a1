// Counts the bytes that libFuzzer gives an entry, in the file that FUZZ_BYTES names: for a long
// run, which is made in pieces and may end in a crash.

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

extern "C" int __real_LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

// Wrapped by the linker.
extern "C" int __wrap_LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const char *const path = getenv("FUZZ_BYTES");
    static const int file = path != nullptr ? open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666) : -1;
    static uint64_t bytes = [] {
        uint64_t before = 0;
        return pread(file, &before, sizeof before, 0) == sizeof before ? before : 0;
    }();
    bytes += size;
    if (file >= 0 && pwrite(file, &bytes, sizeof bytes, 0) < 0) {
        abort();
    }
    return __real_LLVMFuzzerTestOneInput(data, size);
}
