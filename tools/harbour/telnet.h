// The telnet protocol between a caller and what he talks to. Data pass unchanged in binary mode,
// which every caller is offered; one who refuses it sends and gets line ends as a network terminal
// has them.
#pragma once

#include <cstddef>
#include <libtelnet.h>

namespace harbour {

// One caller's state. It stays where it is while open.
struct Telnet {
    telnet_t *tracker = nullptr;
    telnet_event_handler_t heard = nullptr;
    void *who = nullptr;
    bool binaryin = false;
    bool binaryout = false;
    bool crcame = false; // the last byte typed was a carriage return
    bool crsent = false; // and the last one written
    bool refused = false;
};

// Starts, with offers to the caller. `heard` is given libtelnet's events with `who`: of DATA what
// was typed, SEND for what goes to the caller as it is, IAC, SUBNEGOTIATION (the window's size),
// TTYPE, and others that it has to pass over. False when memory is short.
bool telnetopen(Telnet &telnet, telnet_event_handler_t heard, void *who);
void telnetclose(Telnet &telnet);

// Takes bytes from the caller. False when the call is not to be served any longer: the caller has
// broken the protocol, or compresses.
bool telnetread(Telnet &telnet, const char *bytes, size_t len);

// Sends data to the caller.
void telnetwrite(Telnet &telnet, const char *bytes, size_t len);

} // namespace harbour
