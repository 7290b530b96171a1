// Message files: the texts that users see, numbered, each in one or more languages.
// docs/messages.md has the file byte by byte and how to make one.
//
// Open files form a stack; messages come from the one on top. Whatever goes wrong with a file ends
// the program through the fatal-error path: nothing here returns a failure.
//
//   inimsg(2048);
//   msgblk *mb = opnmsg("program.mcv");
//   puts(rawmsg(GREETING));
//   clsmsg(mb);
//   rstmbk();
#pragma once

#include <cstdint>
#include <cstdio>

namespace plex {

// An open message file.
struct msgblk {
    FILE *msgfp;       // unbuffered: a message is one seek and one read
    int32_t *msgloc;   // where each message begins, and the end of the last one
    uint16_t *lengths; // of each message in each of the file's languages; null with one language
    int *mslidx;       // the file's index of each language of the table, 0 when the file lacks it;
                       // null when there was no language table
    char *filnam;      // its path; null in a closed block
    int lstmsg;        // the message read last, -1 for none
    int32_t lnglist;   // the trailer: where the language list, the length table and the locations
    int32_t lenlist;   // begin, how many languages and how many messages there are
    int32_t loclist;
    int16_t lngcnt;
    int16_t msgcnt;
};

// The stored trailer: three 32-bit offsets and two 16-bit counts, the last bytes of the file.
constexpr int trailersize = 16;

// The most lengths that a file can have: languages times messages.
constexpr int mostlengths = 32767;

extern char *msgbuf;     // the message read last
extern int mxmssz;       // the bytes that a message may have there
extern char mcvpath[81]; // the directory of message files with a trailing "/", or empty
extern int starit;       // 1 when the message positioned at last was cut to the buffer
extern int rlingo;       // the language whose text that was
extern int mslidx;       // its index in the file
extern int badlang;      // set when a file's languages do not agree with the table; never cleared
extern char mfbuff[30];  // the text of catfix2, a hook of the fatal-error path

extern msgblk *mbstk[10]; // the blocks in use, the latest first
extern msgblk *curmbk;    // the one that messages come from

// Makes msgbuf hold messages of `maxsiz` bytes, terminator included, if it is smaller; what it
// holds is kept (but moves). To be called before the first message is read.
void inimsg(int maxsiz);

// Opens a message file and makes it the current one. A plain file name is looked for in the
// directory that the environment variable MCVPATH names, if it does. The block is the caller's,
// until clsmsg.
msgblk *opnmsg(const char *mcvfil);

// Positions the current file at message `msgnum` in the language of the current user, clingo; when
// there is no such text in the alternates that the walk of lingo.h gives; in the end in the file's
// first language. Returns the bytes to read from there, at most mxmssz.
int msgseek(int msgnum);

// Reads the message into msgbuf and returns that: terminated in any case, and with "*" as its last
// character when it was cut. A message without any text is as fatal as one that cannot be read.
char *rawmsg(int msgnum);

// As opnmsg and rawmsg, but null where those would end the program, and nothing opened; msgwhy()
// has the text that they would end it with, until the next refusal.
msgblk *tryopn(const char *mcvfil);
char *tryraw(int msgnum);
const char *msgwhy();

// Closes a file and frees its block; a null or closed one is left alone. The block stays on the
// stack until rstmbk takes it off, and its memory until then: it counts as closed there.
void clsmsg(msgblk *mbptr);

// Makes `mb` the current block, on top of the stack; the tenth below is lost. The next message is
// read afresh.
void setmbk(msgblk *mb);

// Takes the current block off the stack.
void rstmbk();

} // namespace plex
