// The last resort: a condition that a routine cannot recover from ends the program here, by the
// calls of fatal.h. The message goes to the log, into a pop-up on the screen, and with date and
// time to the end of "CATASTRO.TXT" in the working directory; then the console is given back and
// the program ends: by SIGQUIT, for a core image, unless `nocore` is set, else with status 90. A
// catastrophe while one is being handled ends it at once with status 80.
//
// It works with any console method and with none chosen yet (the screen is then one that nobody
// sees).
#pragma once

#include "libsrc/base/fatal.h"

#include <csetjmp>

namespace plex {

extern int catact;                         // catastrophes entered; 1 while one is handled
extern int shofxs;                         // 0: no state line, and catrpt and rptphs are not called
extern int nocore;                         // non-zero: no core image
extern void (*catrpt)(const char *filnam); // called with the report's name once it is written
extern jmp_buf disaster;                   // where a program that recovers would go on

// The way out: ends the program, with the pop-up shown first if nothing has been shown yet.
[[noreturn]] void cataexit();

// The steps, for programs that put their own together.
void dblcat();                               // counts; ends the program when it is not the first
void catamsg(int blink, const char *string); // pop-up, message (cut as catastro's) and report
void pupwin(int blink);                      // the pop-up alone; the window is its inside then
void dftrpt(const char *filnam);             // what catrpt is at first: does nothing

// The row that the cursor is left on when the program ends, its first column.
constexpr int exitrow = 23;

// Hooks. Each is a module of its own, so that a program can link another.
void catachk();        // what becomes of the program; ours ends it. Where it returns, memcata jumps
                       // to `disaster` with 49 and the others with 70
const char *catfix1(); // names the program's state, for the report; ours is empty
void rptphs();         // called while the report is open; does nothing
void clsisam();        // closes the record files that are open; we have none

// The hook of the message reader, defined there: where the program was in its messages,
// "MSG:file/number" in mfbuff, a long path without its beginning; mfbuff unchanged, empty at first,
// when no file is current.
char *catfix2();

} // namespace plex
