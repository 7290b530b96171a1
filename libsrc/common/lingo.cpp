#include "libsrc/common/lingo.h"

#include "libsrc/base/fatal.h"
#include "libsrc/base/text.h"
#include "libsrc/common/memory.h"
#include "libsrc/common/tfscan.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace plex {

int nlingo;
lingo **languages;
int clingo;
int alglgo;
int algstt;

namespace {

constexpr const char *separators = ", \t;";

// Reads on to the next line of the scan; false at its end.
bool nextline() {
    do {
        tfsrdl();
    } while (tfstate != tfsidle && tfstate != tfsline);
    return tfstate == tfsline;
}

bool readcount() {
    while (nextline()) {
        if (tfspfx("NLingo=") != 0) {
            // Any number will do here that the lines behind it do not match.
            const long count = strtol(tfspst, nullptr, 10);
            nlingo = static_cast<int>(count < 0 ? 0 : count > INT_MAX ? INT_MAX : count);
            return true;
        }
    }
    return false;
}

// One of a language's own lines, without its "LNG".
void setfield(lingo *lp) {
    if (tfspfx("DSC=") != 0) {
        stzcpy(lp->desc, tfspst, sizeof lp->desc);
    } else if (tfspfx("EXT=") != 0) {
        stfext(lp, tfspst);
    } else if (tfspfx("EDT=") != 0) {
        stzcpy(lp->editor, tfspst, sizeof lp->editor);
    } else if (tfspfx("YES=") != 0) {
        stzcpy(lp->yes, tfspst, sizeof lp->yes);
    } else if (tfspfx("NO=") != 0) {
        stzcpy(lp->no, tfspst, sizeof lp->no);
    }
}

// The two parts of the name of language `lgo`: `cut` becomes the length of the spoken one with its
// "/". Null when there is no such language or no "/" in its name.
const char *parts(int lgo, int &cut) {
    if (lgo < 0 || lgo >= nlingo || languages[lgo] == nullptr) {
        return nullptr;
    }
    const char *name = languages[lgo]->name;
    cut = findstg("/", name);
    return cut > 0 ? name : nullptr;
}

// lngfnd of the two texts and the "/" between them.
int findpair(const char *spoken, int len, const char *protoc) {
    char name[sizeof lingo::name];
    const int want = snprintf(name, sizeof name, "%.*s/%s", len, spoken, protoc);
    // No language has a longer name, but one may start with what was cut.
    return want < static_cast<int>(sizeof name) ? lngfnd(name) : -1;
}

} // namespace

void inilingo() {
    if (languages != nullptr) {
        return;
    }
    if (tfsopn("pxhost.cfg") != 1) {
        catastro("CANNOT FIND pxhost.cfg");
    }
    if (!readcount()) {
        catastro("pxhost.cfg IS MISSING THE \"NLingo=\" LINE");
    }
    alclng();
    int count = 0;
    while (nextline()) {
        if (tfspfx("LNG") == 0) {
            continue;
        }
        tfsdpr();
        if (tfspfx("=") != 0) {
            if (count >= nlingo) {
                catastro("MORE THAN NLINGO \"LNG=\" LINES IN pxhost.cfg");
            }
            auto *lp = static_cast<lingo *>(alczer(sizeof(lingo)));
            stzcpy(lp->name, tfspst, sizeof lp->name);
            languages[count++] = lp;
        } else if (count == 0) {
            catastro("FIRST LNGXXX= OPTION IN pxhost.cfg MUST BE LNG=");
        } else {
            setfield(languages[count - 1]);
        }
    }
    if (count < nlingo) {
        catastro("LESS THAN NLINGO \"LNG=\" LINES IN pxhost.cfg");
    }
}

void alclng() {
    // Zero pages cost nothing until used: a count that is a slip of the finger takes no memory.
    const size_t count = nlingo > 0 ? static_cast<size_t>(nlingo) : 1;
    languages = static_cast<lingo **>(calloc(count, sizeof(void *)));
    if (languages == nullptr) {
        memcata();
    }
}

void stfext(lingo *lp, const char *exts) {
    char *const fields[] = {lp->extans, lp->extasc, lp->extibm};
    bool first = true;
    for (char *field : fields) {
        exts += strspn(exts, separators);
        const size_t len = strcspn(exts, separators);
        if (len > 0 || first) {
            stzcpy(field, exts, static_cast<unsigned>(len < 4 ? len : 4) + 1);
        } else {
            stzcpy(field, lp->extans, sizeof lp->extans);
        }
        exts += len;
        first = false;
    }
}

int lngfnd(const char *lngnam) {
    int only = -1;
    int starts = 0;
    for (int i = 0; i < nlingo; i++) {
        if (languages[i] == nullptr) {
            continue;
        }
        if (sameas(lngnam, languages[i]->name) != 0) {
            return i;
        }
        if (sameto(lngnam, languages[i]->name) != 0) {
            only = i;
            starts++;
        }
    }
    return starts == 1 ? only : -1;
}

int chgspk(int lgo, const char *spoken) {
    int cut = 0;
    const char *name = parts(lgo, cut);
    const size_t len = strnlen(spoken, sizeof lingo::name);
    return name != nullptr ? findpair(spoken, static_cast<int>(len), name + cut) : -1;
}

int chgprt(int lgo, const char *protoc) {
    int cut = 0;
    const char *name = parts(lgo, cut);
    return name != nullptr ? findpair(name, cut - 1, protoc) : -1;
}

int alg1st(int lgo) {
    alglgo = lgo;
    algstt = 0;
    return lgo;
}

int algnxt() {
    if (algstt == 0) {
        const int ansi = chgprt(alglgo, "ANSI");
        if (ansi >= 0 && ansi != alglgo) {
            algstt = 1;
            return ansi;
        }
    }
    if (algstt <= 1) {
        const int english = chgspk(alglgo, "English");
        if (english >= 0 && english != alglgo) {
            algstt = 2;
            return english;
        }
    }
    return 0;
}

} // namespace plex
