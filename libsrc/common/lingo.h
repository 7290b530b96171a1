// The languages that the system speaks: each a spoken language and a terminal protocol, named
// spoken/protocol ("English/ANSI"). Language 0 is the default. The table is read once from the
// host's configuration and never freed.
#pragma once

namespace plex {

struct lingo {
    char name[16];   // spoken/protocol
    char desc[51];   // a description
    char extans[5];  // the extension of files with ANSI sequences in this language,
    char extasc[5];  // of files in plain text,
    char extibm[5];  // and of files with PC graphics
    char editor[41]; // the editor to use
    char yes[13];    // the word for yes
    char no[13];     // the word for no
};
static_assert(sizeof(lingo) == 149);

extern int nlingo;        // how many languages there are, 0 until the table is read
extern lingo **languages; // the table, null until then
extern int clingo;        // the current user's language
extern int alglgo;        // where the walk through alternates started
extern int algstt;        // how far it has gone, 0 to 2

// Reads the table from "pxhost.cfg" in the working directory: a line "NLingo=count" and behind it,
// for each language, "LNG=name" with its "LNGDSC=", "LNGEXT=", "LNGEDT=", "LNGYES=" and "LNGNO="
// lines (letter case ignored). Later calls do nothing. A missing file or one that does not add up
// ends the program.
void inilingo();

// Makes `languages` an array of nlingo null pointers (none when nlingo is negative).
void alclng();

// Sets the three extensions of a language from up to three words of `exts`, separated by any of
// ", \t;": plain text and PC graphics without a word of their own share the first.
void stfext(lingo *lp, const char *exts);

// The index of the language called `lngnam` (letter case ignored), or of the only one whose name
// starts so; -1 when there is none, or several.
int lngfnd(const char *lngnam);

// The index of the language with the spoken part, or the protocol, of language `lgo` replaced; -1
// when there is none.
int chgspk(int lgo, const char *spoken);
int chgprt(int lgo, const char *protoc);

// The walk through the languages to try for someone who speaks `lgo`: alg1st starts it and returns
// `lgo`; algnxt returns the next one, in the end 0, the default: first the same spoken language in
// protocol ANSI, then English in the same protocol, each if there is such a language other than
// `lgo`.
int alg1st(int lgo);
int algnxt();

} // namespace plex
