#include "libunix/screen/screen.h"

#include <cstdlib>

namespace plex {
namespace {

constexpr int imagesize = 4029;

unsigned char *grafbuf;
int cursz;
unsigned char attr = 7;

} // namespace

unsigned char *frzseg() {
    if (grafbuf == nullptr) {
        grafbuf = static_cast<unsigned char *>(calloc(1, imagesize));
        cursiz(1);
    }
    return grafbuf;
}

void cursiz(int shape) {
    cursz = shape == 0 || shape == 2 ? shape : 1;
}

void setatr(unsigned char attrib) {
    attr = attrib;
}

} // namespace plex
