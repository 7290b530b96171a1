// Message files. Of an input the first byte chooses the table of languages, the second the user's
// language and the size of the buffer; the rest is the file.

#include "libsrc/common/msgfile.h"
#include "fuzz/entry.h"
#include "fuzz/survive.h"
#include "libsrc/catastro/catastro.h"
#include "libsrc/common/lingo.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const std::vector<std::string> names = {"English/ANSI", "English/RIP", "French/ANSI", "French/RIP",
                                        "D/ANSI"};
constexpr int mosttried = 40; // messages of a file

int fd = -1;
char path[64];

// A block that was never opened whole belongs to nobody.
void discard(plex::msgblk *mb) {
    if (mb->msgfp != nullptr) {
        fclose(mb->msgfp);
    }
    free(mb->msgloc);
    free(mb->lengths);
    free(mb->mslidx);
    free(mb);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    if (size < 2) {
        return 0;
    }
    if (fd < 0) {
        fd = memfd_create("messages", 0);
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    }
    fuzz::speak({names.begin(), names.begin() + data[0] % 6});
    plex::clingo = data[1] % 6;
    free(plex::msgbuf);
    plex::msgbuf = nullptr;
    plex::mxmssz = 0;
    plex::inimsg(data[1] / 6 + 1);
    fuzz::require(ftruncate(fd, 0) == 0 &&
                  pwrite(fd, data + 2, size - 2, 0) == static_cast<ssize_t>(size - 2));
    if (fuzz::survives([] { plex::opnmsg(path); })) {
        for (int i = -1; i <= std::min<int>(plex::curmbk->msgcnt, mosttried); i++) {
            fuzz::survives([&] { fuzz::require(strlen(plex::rawmsg(i)) <= size_t(plex::mxmssz)); });
            plex::catfix2();
        }
        plex::clsmsg(plex::curmbk);
        plex::rstmbk();
    } else {
        plex::msgblk *mb = plex::curmbk;
        plex::rstmbk();
        discard(mb);
    }
    return 0;
}
