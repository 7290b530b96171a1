#include "libunix/common/bytord.h"

#include <bit>
#include <cstring>
#include <utility>

namespace plex {
namespace {

// Native to stored and back are the same step. As the stored bytes are the native ones reversed or
// not, a value in the wrong order is never computed with.
template <typename T> T swapped(T value) {
    if constexpr (std::endian::native == std::endian::big) {
        if constexpr (sizeof value == 2) {
            rev2byt(&value);
        } else {
            rev4byt(&value);
        }
    }
    return value;
}

template <typename T> T stored(const void *p) {
    T value;
    memcpy(&value, p, sizeof value);
    return swapped(value);
}

} // namespace

void *rev2byt(void *p) {
    auto *bytes = static_cast<unsigned char *>(p);
    std::swap(bytes[0], bytes[1]);
    return p;
}

void *rev4byt(void *p) {
    auto *bytes = static_cast<unsigned char *>(p);
    std::swap(bytes[0], bytes[3]);
    std::swap(bytes[1], bytes[2]);
    return p;
}

uint16_t nus2l(uint16_t bigs) {
    return swapped(bigs);
}

int16_t nss2l(int16_t bigs) {
    return swapped(bigs);
}

uint32_t nul2l(uint32_t bigl) {
    return swapped(bigl);
}

int32_t nsl2l(int32_t bigl) {
    return swapped(bigl);
}

uint16_t lus2n(const void *p) {
    return stored<uint16_t>(p);
}

int16_t lss2n(const void *p) {
    return stored<int16_t>(p);
}

uint32_t lul2n(const void *p) {
    return stored<uint32_t>(p);
}

int32_t lsl2n(const void *p) {
    return stored<int32_t>(p);
}

uint16_t *pnus2l(uint16_t bigs) {
    static uint16_t copy;
    copy = swapped(bigs);
    return &copy;
}

int16_t *pnss2l(int16_t bigs) {
    static int16_t copy;
    copy = swapped(bigs);
    return &copy;
}

uint32_t *pnul2l(uint32_t bigl) {
    static uint32_t copy;
    copy = swapped(bigl);
    return &copy;
}

int32_t pnsl2l(int32_t bigl) {
    static int32_t copy;
    copy = swapped(bigl);
    return copy;
}

} // namespace plex
