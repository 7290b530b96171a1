// One caller: from the answered call through language, menu and programs to the goodbye. What he
// types and what his program writes pass through two buffers that are filled only as long as the
// other side takes what there is, so neither grows, and who does not read stops nobody but himself.
#pragma once

#include "tools/harbour/menu.h"
#include "tools/harbour/telnet.h"
#include "tools/harbour/texts.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace harbour {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;

enum class State { none, language, charset, menu, starting, running, leaving };

struct Line {
    int index = 0; // in `lines`; people count from 1
    State state = State::none;
    int caller = -1; // the caller's socket, and what is asked of it
    uint32_t callerevents = 0;
    int master = -1; // the program's terminal
    uint32_t masterevents = 0;
    Telnet telnet;
    bool lost = false;     // the carrier is
    std::string tocaller;  // what the socket has no room for
    std::string toprogram; // and the terminal

    std::string from;     // the caller's address
    std::string terminal; // what he says it is
    int columns = 80;
    int rows = 24;
    int language = 0;
    bool utf8 = true;
    Menu menu;
    std::string recent; // the end of what he was sent, while somebody could look

    int usrnum = 0; // of the program: another one each time, since old notices may be on their way
    std::string program;
    bool hungup = false; // its terminal
    bool ended = false;  // the program itself, with this
    int status = 0;
    size_t since = 0; // bytes read after its end

    Time called;             // the call's begin
    Time began;              // the state's
    Time active;             // the last key at the menu
    Time until;              // when the program, the wait for its end, or the goodbye is over
    bool warned = false;     // of that, or of the time at the menu
    bool callwarned = false; // of the end of the call
    uint64_t typed = 0;      // bytes each way in this call
    uint64_t shown = 0;
};

// All lines; who is not calling is State::none.
extern std::vector<Line> lines;

// What holds for all calls. Times without end are 0.
struct Rules {
    std::chrono::milliseconds idle; // at the menu
    std::chrono::milliseconds call;
    bool watched;                                     // somebody can look: keep `recent`
    void (*tell)(const std::string &what);            // a word for the operator
    void (*seen)(const Line &, const char *, size_t); // what is sent to a caller, as it was
};

extern Rules rules;
extern Time rightnow; // when the events came that are being served
extern Time due;      // when somebody's time is over, at the latest: look() is wanted then

// A caller has come. The socket is the line's.
void answer(Line &line, int caller, const std::string &from);

// Events of the socket and of the program's terminal.
void callerready(Line &line, uint32_t events);
void masterready(Line &line, uint32_t events);

// What the daemon told: the program runs on this terminal (-1: there was no descriptor left for
// it), could not be started, has ended; and that the daemon is gone, with all programs.
void started(Line &line, int master);
void refused(Line &line);
void ended(Line &line, int status);
void servicelost(Line &line);

// The line that a usrnum is about; null when that has gone on to something else.
Line *lineof(int usrnum);

// Ends what has run out of time, warns who soon will; sets `due` anew.
void look();

// Sends a text to the caller, in his language; ends his program, or his call, with one.
void say(Line &line, int number, Words words = {});
void endprogram(Line &line, int number);
void endcall(Line &line, int number, Words words = {});

// Ends the call at once, whatever it was doing.
void hangup(Line &line);

// Since a time, as "3:07" hours and minutes.
std::string hoursminutes(Clock::duration time);

} // namespace harbour
