// The screen engine on hostile bytes: whatever holds for any stream.

#include "fuzz/properties.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string broken =
        test::violated(std::string(reinterpret_cast<const char *>(data), size));
    if (!broken.empty()) {
        fprintf(stderr, "%s\n", broken.c_str());
        abort();
    }
    return 0;
}
