#include "libunix/console/conscreen.h"

#include "libunix/console/condrv.h"
#include "libunix/console/trm.h"
#include "libunix/console/unxwrecons.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/screen.h"

#include <cstdio>
#include <cstdlib>

namespace plex {

int32_t vgafd = -1;

namespace {

void crtwrite(uint8_t reg, int value) {
    if (condev != nullptr) {
        condev->portwrite(crtindex, reg);
        condev->portwrite(crtdata, static_cast<uint8_t>(value));
    }
}

// Each move of the cursor ends a piece of output.
void show() {
    if (condev != nullptr) {
        condev->show(0);
    }
}

int crtread(uint8_t reg) {
    if (condev == nullptr) {
        return 0;
    }
    condev->portwrite(crtindex, reg);
    return condev->portread(crtdata);
}

[[noreturn]] void noconsole(const char *why) {
    relpriv();
    clstrm();
    fputs(why, stderr);
    exit(-1);
}

unsigned char *mapconsole() {
    getpriv();
    vgafd = condev != nullptr ? condev->conopen() : -1;
    if (vgafd == -1) {
        noconsole("Unable to open /dev/console\n");
    }
    if (getcfnt() == 0) {
        noconsole("Unable to get current screen mapping table\n");
    }
    unsigned char *video = condev->mapvideo(vgafd);
    if (video == nullptr) {
        noconsole("Unable to get base position in video memory\n");
    }
    relpriv();
    return video;
}

void movecursor(uint16_t pos) {
    const int offset = (pos >> 8) * scrcols + (pos & 0xFF);
    crtwrite(crthigh, offset >> 8);
    crtwrite(crtlow, offset);
    show();
}

uint16_t readcursor() {
    const int high = crtread(crthigh);
    const int offset = high * 256 + crtread(crtlow);
    return static_cast<uint16_t>((offset / scrcols) << 8 | offset % scrcols);
}

void shapecursor(int first, int last) {
    crtwrite(crtstart, first);
    crtwrite(crtend, last);
    show();
}

} // namespace

const scrhdl unxwrescn = {mapconsole, false, movecursor, readcursor, shapecursor};

} // namespace plex
