// Command strings: splitting a line into an argument vector, in place, and executing it.
//
// Blanks (as isspace has them) separate arguments; a double quote that no backslash precedes opens
// and closes a stretch in which they do not. Quotes may stand anywhere in a word. Every backslash
// is removed in the end, so none survives and none yields another. No PATH search: the first word
// is the program's path.
//
// All routines work within the writable, terminated string given; none allocates.
#pragma once

namespace plex {

// As many words as a command may have.
constexpr int MAXWORDS = 49;

// Replaces the process with the command `cmdstg`. Returns only on failure, after one line on
// standard error ("dospwn: ..."): -1 for a null or invalid string or more than MAXWORDS words, else
// what execv returned. SIGINT, SIGQUIT and SIGHUP are set to their defaults before the execution.
int dospawn(char *cmdstg);

// The next word: of `str`, or with null of the string begun last. Null when there is none. The
// split falls on the last blank of a run, so the others stay at the end of the word before it, and
// a string that begins with exactly one blank has no words. One string at a time.
char *tokstr(char *str);

// Removes the quote that begins the word, if one does, and then the last quote left in it.
void rmsurq(char *str);

// Removes every backslash.
void rmbksl(char *str);

// The first blank or unescaped quote of `str`, or its terminator.
char *nxtdlm(char *str);

// The normalising passes. Each returns 1 when it changed the string, else 0.
int mvlwrd(char *str); // moves an opening quote to the left end of its word: a"b c" to "ab c"
int mvrwrd(char *str); // moves a closing quote to the right end of its word: "a b"c to "a bc"
int rmdblq(char *str); // joins adjacent quoted pieces: "a""b" to "ab"

// Repeats the three until nothing changes, 41 times at most. Returns `buf`.
char *rdustr(char *buf);

} // namespace plex
