// The screen engine on hostile bytes: whatever holds for any stream.

#include "fuzz/properties.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    test::holds(data, size);
    return 0;
}
