// One caller's line: his socket, the terminal of the program that he uses, and the bytes between
// them. They pass through two buffers that are filled only as long as the other side takes what
// there is, so neither grows, and who does not read stops nobody but himself.
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

    std::string number() const { return std::to_string(index + 1); }
    bool busy() const { return state == State::starting || state == State::running; }
};

// All lines; who is not calling is State::none.
extern std::vector<Line> lines;

// What holds for all calls, and who is told of what happens on a line. Times without end are 0.
struct Rules {
    std::chrono::milliseconds idle; // at the menu
    std::chrono::milliseconds call;
    bool watched;                                     // somebody can look: keep `recent`
    void (*tell)(const std::string &what);            // a word for the operator
    void (*seen)(const Line &, const char *, size_t); // what is sent to a caller, as it was
    void (*pressed)(Line &, char key);                // a key, while no program has it
    void (*hungup)(Line &);                           // nobody holds the program's terminal now
    void (*back)(Line &);                             // the program is over
};

extern Rules rules;
extern Time rightnow; // when the events came that are being served
extern Time due;      // when somebody's time is over, at the latest

// Has `due` not be later than that.
void hurry(Time when);

// Goes on to a state, which has times of its own.
void enter(Line &line, State state);

// Takes a socket, with offers to the caller.
void openline(Line &line, int caller, const std::string &from);

// Events of the socket and of the program's terminal.
void callerready(Line &line, uint32_t events);
void masterready(Line &line, uint32_t events);

// Bytes and texts for the caller; texts in his language.
void show(Line &line, const char *bytes, size_t len);
void say(Line &line, int number, Words words = {});

// The terminal of the program is there, in which what was typed meanwhile is put; or is to be given
// up.
void openmaster(Line &line, int master);
void closemaster(Line &line);

// Ends the program where one runs.
void stopprogram(Line &line);

// Asks the descriptors for what can be dealt with now; ends a call that is lost. To be called when
// anything has been done with a line.
void settle(Line &line);

// Ends the call at once, whatever it was doing.
void hangup(Line &line);

} // namespace harbour
