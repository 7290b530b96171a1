// One caller's line: his socket, the terminal of the program that he uses, the bytes between them
// (line.cpp), and the visit as he knows it (visit.cpp).
//
// The bytes pass through two buffers that are filled only as long as the other side takes what
// there is, so neither grows, and who does not read stops nobody but himself.
#pragma once

#include "libunix/daemon/wire.h"
#include "tools/harbour/menu.h"
#include "tools/harbour/telnet.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <vector>

namespace harbour {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using std::chrono::milliseconds;

inline milliseconds minutes(double number) {
    return milliseconds(static_cast<int64_t>(number * 60000));
}

// A descriptor that the board waits for, with the routine that gets its events.
struct Watch {
    int fd = -1;
    void (*ready)(int index, uint32_t events) = nullptr;
    int index = 0;
    uint32_t asked = 0;
};

extern int epoll; // level-triggered; its events point to a Watch

// Has `events` told. 0 takes the descriptor out, as one that has hung up would be told of again and
// again; so it is before it is closed.
void watch(Watch &what, uint32_t events);

// Where a caller says nothing else.
constexpr winsize terminalsize = {24, 80, 0, 0};
constexpr const char *unnamed = "ansi";

// In the order of their names, O_NONE and so on.
enum class State { none, language, charset, menu, starting, running, leaving };

struct Line {
    int index = 0; // in `lines`; people count from 1
    State state = State::none;
    Watch caller; // his socket
    Watch master; // the program's terminal
    Telnet telnet;
    bool lost = false;     // the carrier is
    std::string tocaller;  // what the socket has no room for
    std::string toprogram; // and the terminal

    std::string from;               // the caller's address
    std::string terminal = unnamed; // what he says it is
    winsize size = terminalsize;    // of his window
    int language = 0;
    bool utf8 = true;
    Menu menu;
    std::string recent; // the end of what he was sent, while somebody could look

    int usrnum = 0; // of the program: n times the number of lines + index, another one each time,
                    // since old notices may be on their way
    std::string program;
    bool hungup = false; // its terminal
    bool ended = false;  // the program itself, with this
    int status = 0;
    uint64_t before = 0; // what had been shown by then

    Time called;        // the call's begin
    Time active;        // the state's begin, or the last key at the menu
    Time until;         // when the program, the wait for its end, or the goodbye is over
    Time warned;        // the end that he was warned of
    uint64_t typed = 0; // bytes each way in this call
    uint64_t shown = 0;

    std::string number() const { return std::to_string(index + 1); }
    bool busy() const { return state == State::starting || state == State::running; }
    bool here() const { return state != State::none && state != State::leaving; }
};

extern std::vector<Line> lines;           // all; who is not calling is State::none
extern std::deque<plex::servermsg> asked; // of the daemon, and not yet sent
extern Time rightnow;                     // when the events came that are being served
extern Time due;                          // when somebody's time is over, at the latest

// What holds for all calls.
struct Rules {
    milliseconds idle; // at the menu; 0: for ever
    milliseconds call; // 0: for ever
    bool watched;      // somebody can look: keep `recent`
    int viewed;        // and does, at the line with this index: keep more
};
extern Rules rules;

// A word for the operator: into the log, and among the events. The same again is left out.
void tell(const std::string &what);
extern std::deque<std::string> told; // the last ones, each with its time
constexpr size_t mosttold = 5;

// A caller has come, with this socket, which is the line's from now on.
void answer(Line &line, int caller, const std::string &from);

// Bytes and texts for the caller; texts in his language.
void show(Line &line, const char *bytes, size_t len);
void say(Line &line, int number, Words words = {});

// Asks the descriptors for what can be dealt with now; ends a call that is lost. To be called
// when anything has been done with a line, but not while its caller's bytes are being taken.
void settle(Line &line);

// A call begins: its first question. A key that no program has.
void greet(Line &line);
void keypressed(Line &line, char key);

// The program's terminal, with what was typed meanwhile put into it; and it given up.
void openmaster(Line &line, int master);
void closemaster(Line &line);

// What the daemon said about the program of a usrnum, with the status of an end; of a start the
// terminal, which is taken (below 0: there was no descriptor left for it). And that the daemon is
// gone, with all programs.
void daemonsays(int usrnum, int32_t what, int value);
void daemonlost(Line &line);

// One half of the program's end is there; the other half is waited for, but not for ever.
void halfended(Line &line);

// Ends the program, if one runs; the same with a text and the menu; the call, with a text.
void stopprogram(Line &line);
void endprogram(Line &line, int number);
void endcall(Line &line, int number, Words words = {});

// Ends what has run out of time, warns who soon will; sets `due` anew.
void look();

} // namespace harbour
