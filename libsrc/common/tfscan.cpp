#include "libsrc/common/tfscan.h"

#include "libsrc/base/fatal.h"
#include "libsrc/base/text.h"

#include <cstring>

namespace plex {

int tfstate;
char tfsbuf[129];
char *tfspst;
char tfspth[1024];
char *namptr;
fndblk tfsfb;
FILE *tfsfp;

namespace {

constexpr size_t nameroom = 13; // a file name of eight and three letters, its dot and terminator

// The bytes for a file name in tfspth, its terminator included.
size_t room() {
    return sizeof tfspth - static_cast<size_t>(namptr - tfspth);
}

void opennext() {
    const size_t len = strlen(tfsfb.name);
    if (len >= room()) { // a cut name could be that of another file
        *namptr = '\0';
        catastro("TFSCAN:  Path too long:\n\"%s%s\"", tfspth, tfsfb.name);
    }
    memcpy(namptr, tfsfb.name, len + 1);
    tfsfp = fopen(tfspth, "re");
    if (tfsfp == nullptr) {
        catastro("TFSCAN: Cannot find \"%s\" file", tfspth);
    }
    tfstate = tfsline;
}

void readline() {
    if (fgets(tfsbuf, sizeof tfsbuf, tfsfp) != nullptr) {
        depad(tfsbuf);
    } else {
        fclose(tfsfp);
        tfsfp = nullptr;
        tfstate = tfsended;
    }
}

} // namespace

int tfsopn(const char *fname) {
    tfsabt();
    stzcpy(tfspth, fname, sizeof tfspth);
    namptr = fnwext(tfspth);
    if (strlen(fname) >= sizeof tfspth || room() < nameroom) {
        catastro("TFSCAN:  Path too long:\n\"%s\"", fname);
    }
    int count = 0;
    for (int more = fnd1st(&tfsfb, fname, 0); more != 0; more = fndnxt(&tfsfb)) {
        count++;
    }
    if (count == 0 || fnd1st(&tfsfb, fname, 0) == 0) { // gone meanwhile
        return 0;
    }
    tfstate = tfsfound;
    return count;
}

int tfsrdl() {
    tfsbuf[0] = '\0';
    tfspst = nullptr;
    switch (tfstate) {
    case tfsfound:
        tfstate = tfsnext;
        break;
    case tfsnext:
        opennext();
        readline();
        break;
    case tfsline:
        readline();
        break;
    case tfsended:
        tfstate = fndnxt(&tfsfb) != 0 ? tfsnext : tfsidle;
        break;
    default:
        break;
    }
    return tfstate;
}

int tfspfx(const char *prefix) {
    tfspst = nullptr;
    if (sameto(prefix, tfsbuf) == 0) {
        return 0;
    }
    tfspst = skpwht(tfsbuf + strlen(prefix));
    return *tfspst != '\0' ? 1 : 0;
}

void tfsdpr() {
    if (tfspst != nullptr) {
        memmove(tfsbuf, tfspst, strlen(tfspst) + 1);
        tfspst = tfsbuf;
    }
}

void tfsabt() {
    if (tfstate == tfsline) {
        fclose(tfsfp);
        tfsfp = nullptr;
    }
    tfstate = tfsidle;
}

} // namespace plex
