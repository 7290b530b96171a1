// Nothing in a file is believed: counts, offsets and lengths are used only as far as what was
// allocated from them, sums are wider than what they add, and a text that lacks its terminator gets
// one behind it. A file that does not hold together ends in one of the fatal errors.

#include "libsrc/common/msgfile.h"

#include "libsrc/base/fatal.h"
#include "libsrc/base/text.h"
#include "libsrc/common/lingo.h"
#include "libsrc/common/memory.h"
#include "libunix/common/bytord.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace plex {

char *msgbuf;
int mxmssz;
char mcvpath[81];
int starit;
int rlingo;
int mslidx;
int badlang;
char mfbuff[30];
msgblk *mbstk[10];
msgblk *curmbk;

namespace {

constexpr unsigned mcvpathroom = 80; // what is copied of MCVPATH, its terminator included
constexpr int longestname = 16;      // of a language, terminator included

bool mcvpathread;

char why[PATH_MAX + 128]; // the last refusal

// Takes note of why something is not to be had; false.
[[gnu::format(printf, 1, 2)]] bool refuse(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(why, sizeof why, fmt, args);
    va_end(args);
    return false;
}

// Blocks that are closed but still on the stack: what looks at the current block must not find
// freed memory there. Only their addresses are compared, as callers may push blocks of their own
// that do not live as long.
msgblk *closed[std::size(mbstk) + 1]; // curmbk may be another one

bool stacked(const msgblk *mb) {
    return mb == curmbk || std::find(std::begin(mbstk), std::end(mbstk), mb) != std::end(mbstk);
}

void freeclosed() {
    for (msgblk *&mb : closed) {
        if (mb != nullptr && !stacked(mb)) {
            free(mb);
            mb = nullptr;
        }
    }
}

void readmcvpath() {
    const char *dir = getenv("MCVPATH");
    if (dir != nullptr && *dir != '\0') {
        stzcpy(mcvpath, dir, mcvpathroom);
        const char last = mcvpath[strlen(mcvpath) - 1];
        if (last != '/' && last != ':') {
            stzcat(mcvpath, "/", sizeof mcvpath);
        }
    }
    mcvpathread = true;
}

bool readat(FILE *fp, off_t offset, void *buf, size_t size) {
    return fseeko(fp, offset, SEEK_SET) == 0 && fread(buf, size, 1, fp) == 1;
}

// Reads the trailer and goes to the language list; `end` becomes the offset of the trailer itself.
// False when that fails or the counts make no sense.
bool readtrailer(msgblk *mb, off_t &end) {
    unsigned char trailer[trailersize];
    if (fseeko(mb->msgfp, -trailersize, SEEK_END) != 0) {
        return false;
    }
    end = ftello(mb->msgfp);
    if (fread(trailer, sizeof trailer, 1, mb->msgfp) != 1) {
        return false;
    }
    mb->lnglist = lsl2n(trailer);
    mb->lenlist = lsl2n(trailer + 4);
    mb->loclist = lsl2n(trailer + 8);
    mb->lngcnt = lss2n(trailer + 12);
    mb->msgcnt = lss2n(trailer + 14);
    return mb->lngcnt >= 1 && mb->msgcnt >= 0 && fseeko(mb->msgfp, mb->lnglist, SEEK_SET) == 0;
}

// Takes note of the file's language `i`, called `name`; null for a name that cannot be read.
void matchlanguage(msgblk *mb, int i, const char *name) {
    const int j = name != nullptr ? lngfnd(name) : -1;
    // The default language of the file and that of the table must be one: the walk ends there.
    if (j >= 0 && (i == 0) == (j == 0)) {
        mb->mslidx[j] = i;
    } else {
        badlang = 1;
    }
}

// How much of the language list to read from `at` on for the next `names` names. The list has no
// length of its own; as long as it holds together, this is not more than names, and stops short of
// the area that follows it.
size_t listpiece(const msgblk *mb, off_t at, off_t end, int names) {
    off_t want = std::min<off_t>(end - at, off_t{longestname} * names);
    if (mb->loclist > at) {
        want = std::min(want, mb->loclist - at);
    }
    if (mb->lngcnt > 1 && mb->lenlist > at) {
        want = std::min(want, mb->lenlist - at);
    }
    return static_cast<size_t>(std::max<off_t>(want, 0));
}

// Reads the language list, from where the stream stands to at most the offset `end`.
void readlanguages(msgblk *mb, off_t end) {
    char buf[512];
    char name[longestname];
    int len = 0; // of the name so far; what does not fit is skipped
    int i = 0;
    for (off_t at = mb->lnglist; i < mb->lngcnt;) {
        const int names =
            len < longestname ? mb->lngcnt - i : INT16_MAX; // what is too long may be huge
        const size_t want = std::min(sizeof buf, listpiece(mb, at, end, names));
        const size_t got = fread(buf, 1, want, mb->msgfp);
        if (got == 0) {
            badlang = 1; // the list ends before its last name
            return;
        }
        at += static_cast<off_t>(got);
        for (size_t k = 0; k < got && i < mb->lngcnt; k++) {
            if (len < longestname) {
                name[len++] = buf[k];
            }
            if (buf[k] == '\0') {
                matchlanguage(mb, i++, name[len - 1] == '\0' ? name : nullptr);
                len = 0;
            }
        }
    }
}

// Reads `count` stored integers into a new array, null when that fails.
template <typename T>
T *readarray(msgblk *mb, int32_t offset, int count, T (*native)(const void *)) {
    const auto size = static_cast<unsigned>(count) * static_cast<unsigned>(sizeof(T));
    auto *array = static_cast<T *>(alczer(size));
    if (size > 0 && !readat(mb->msgfp, offset, array, size)) {
        free(array);
        return nullptr;
    }
    std::for_each(array, array + count, [&](T &value) { value = native(&value); });
    return array;
}

const char *nameof(const msgblk *mb) {
    return mb != nullptr && mb->filnam != nullptr ? mb->filnam : "";
}

// The length of message `msgnum` in the file's language `lang`.
uint16_t lengthof(const msgblk *mb, int msgnum, int lang) {
    return mb->lengths[msgnum * mb->lngcnt + lang];
}

// Finds the language of the table to show message `msgnum` in, and its index in the file.
void chooselanguage(const msgblk *mb, int msgnum) {
    const int from = clingo >= 0 && clingo < nlingo ? clingo : 0;
    for (rlingo = alg1st(from);; rlingo = algnxt()) {
        mslidx = mb->mslidx[rlingo];
        if (rlingo == 0 || (mslidx != 0 && lengthof(mb, msgnum, mslidx) != 0)) {
            return;
        }
    }
}

// Closes and frees what a block owns, and clears it.
void release(msgblk *mb) {
    if (mb->msgfp != nullptr) {
        fclose(mb->msgfp);
    }
    free(mb->mslidx);
    free(mb->msgloc);
    free(mb->lengths);
    free(mb->filnam);
    *mb = {};
}

// Opens the file for a new block. What it has when that is refused is still to be released.
bool openfile(msgblk *mb, const char *mcvfil) {
    if (!mcvpathread) {
        readmcvpath();
    }
    char path[PATH_MAX];
    const bool plain = *mcvfil != '\0' && mcvfil[1] != ':' && strchr(mcvfil, '/') == nullptr;
    const int len = snprintf(path, sizeof path, "%s%s", plain ? mcvpath : "", mcvfil);
    mb->msgfp = len < static_cast<int>(sizeof path) ? fopen(path, "rbe") : nullptr;
    if (mb->msgfp == nullptr) {
        return refuse("CANNOT FIND \"%s\"", path);
    }
    setvbuf(mb->msgfp, nullptr, _IONBF, 0);
    off_t end = 0;
    if (!readtrailer(mb, end)) {
        return refuse("CANNOT READ \"%s\" VARIABLES", path);
    }
    if (nlingo > 0) {
        mb->mslidx = static_cast<int *>(alczer(static_cast<unsigned>(nlingo) * sizeof(int)));
        readlanguages(mb, end);
    }
    mb->msgloc = readarray(mb, mb->loclist, mb->msgcnt + 1, lsl2n);
    if (mb->msgloc == nullptr) {
        return refuse("CANNOT READ \"%s\" POINTER ARRAY", path);
    }
    if (mb->lngcnt > 1) {
        const int count = mb->msgcnt * mb->lngcnt;
        if (count > mostlengths) {
            return refuse("TOO MANY LANGUAGES (%d) & MESSAGES (%d) IN \"%s\"", mb->lngcnt,
                          mb->msgcnt, path);
        }
        mb->lengths = readarray(mb, mb->lenlist, count, lus2n);
        if (mb->lengths == nullptr) {
            return refuse("CANNOT READ \"%s\" LENGTH TABLE", path);
        }
    }
    mb->filnam = alcdup(path);
    return true;
}

// As msgseek: false when it is refused, with `bytes` unset.
bool position(int msgnum, int &bytes) {
    const msgblk *mb = curmbk;
    if (msgbuf == nullptr) {
        return refuse("INIMSG NOT CALLED");
    }
    // A closed block, or none, has no messages.
    if (mb == nullptr || msgnum < 0 || msgnum >= mb->msgcnt) {
        return refuse("MESSAGE NUMBER %d OUT OF RANGE IN %s", msgnum, nameof(mb));
    }
    int64_t offset = mb->msgloc[msgnum];
    int64_t length = 0;
    if (mb->lngcnt == 1) {
        rlingo = 0;
        mslidx = 0;
        length = std::max<int64_t>(mb->msgloc[msgnum + 1] - offset, 0);
    } else {
        if (mb->mslidx != nullptr) {
            chooselanguage(mb, msgnum);
        } else {
            rlingo = 0;
            mslidx = 0;
        }
        for (int lang = 0; lang < mslidx; lang++) {
            offset += lengthof(mb, msgnum, lang);
        }
        length = lengthof(mb, msgnum, mslidx);
    }
    if (fseeko(mb->msgfp, offset, SEEK_SET) != 0) {
        return refuse("CANNOT SEEK MESSAGE NUMBER %d (LANGUAGE %d) IN %s\n", msgnum, mslidx,
                      nameof(mb));
    }
    starit = length > mxmssz ? 1 : 0;
    bytes = static_cast<int>(std::min<int64_t>(length, mxmssz));
    return true;
}

bool readmessage(int msgnum) {
    int length = 0;
    if (!position(msgnum, length)) {
        return false;
    }
    msgblk *mb = curmbk;
    // Reading a length of 0 as one block fails: deliberate, every message that is read has text.
    if (fread(msgbuf, static_cast<size_t>(length), 1, mb->msgfp) != 1) {
        return refuse("CANNOT READ MESSAGE NUMBER %d (LANGUAGE %d) IN %s", msgnum, mslidx,
                      nameof(mb));
    }
    msgbuf[length] = '\0';
    if (starit != 0) {
        msgbuf[length - 1] = '\0';
        if (length > 1) {
            msgbuf[length - 2] = '*';
        }
    }
    mb->lstmsg = msgnum;
    return true;
}

} // namespace

void inimsg(int maxsiz) {
    if (maxsiz > mxmssz) {
        // One byte more, which no message is read into, terminates those that do not do so.
        const unsigned oldsize = msgbuf != nullptr ? static_cast<unsigned>(mxmssz) + 1 : 0;
        msgbuf = static_cast<char *>(alcrsz(msgbuf, oldsize, static_cast<unsigned>(maxsiz) + 1));
        mxmssz = maxsiz;
    }
}

msgblk *opnmsg(const char *mcvfil) {
    auto *mb = static_cast<msgblk *>(alczer(sizeof(msgblk)));
    setmbk(mb);
    if (!openfile(mb, mcvfil)) {
        catastro("%s", why);
    }
    return mb;
}

msgblk *tryopn(const char *mcvfil) {
    auto *mb = static_cast<msgblk *>(alczer(sizeof(msgblk)));
    setmbk(mb);
    if (openfile(mb, mcvfil)) {
        return mb;
    }
    rstmbk();
    release(mb);
    free(mb);
    return nullptr;
}

const char *msgwhy() {
    return why;
}

int msgseek(int msgnum) {
    int length = 0;
    if (!position(msgnum, length)) {
        catastro("%s", why);
    }
    return length;
}

char *rawmsg(int msgnum) {
    if (!readmessage(msgnum)) {
        catastro("%s", why);
    }
    return msgbuf;
}

char *tryraw(int msgnum) {
    return readmessage(msgnum) ? msgbuf : nullptr;
}

void clsmsg(msgblk *mbptr) {
    if (mbptr == nullptr || mbptr->filnam == nullptr) {
        return;
    }
    release(mbptr);
    freeclosed();
    if (stacked(mbptr)) {
        *std::find(std::begin(closed), std::end(closed), nullptr) = mbptr;
    } else {
        free(mbptr);
    }
}

void setmbk(msgblk *mb) {
    std::copy_backward(std::begin(mbstk), std::end(mbstk) - 1, std::end(mbstk));
    mbstk[0] = mb;
    curmbk = mb;
    if (mb != nullptr) {
        mb->lstmsg = -1;
    }
    freeclosed();
}

void rstmbk() {
    std::copy(std::begin(mbstk) + 1, std::end(mbstk), std::begin(mbstk));
    curmbk = mbstk[0];
    freeclosed();
}

char *catfix2() {
    const msgblk *mb = curmbk;
    if (mb != nullptr && mb->filnam != nullptr) {
        char number[sizeof "/-2147483648"];
        const int digits = snprintf(number, sizeof number, "/%d", mb->lstmsg);
        const size_t room = sizeof mfbuff - sizeof "MSG:" - static_cast<size_t>(digits);
        const size_t len = strlen(mb->filnam);
        snprintf(mfbuff, sizeof mfbuff, "MSG:%s%s", mb->filnam + (len > room ? len - room : 0),
                 number);
    }
    return mfbuff;
}

} // namespace plex
