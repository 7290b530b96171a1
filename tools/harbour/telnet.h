// The telnet protocol between a caller and what he talks to. Data pass unchanged in binary mode,
// which every caller is offered; one who refuses it sends and gets line ends as a network terminal
// has them.
#pragma once

#include <cstddef>

struct telnet_t;

namespace harbour {

// Who is told what came, with the `who` given to telnetopen.
struct TelnetUser {
    void (*typed)(void *who, const char *bytes, size_t len);
    void (*command)(void *who, unsigned char code); // interrupt, break and such: TELNET_IP...
    void (*size)(void *who, int columns, int rows); // as sent: may be 0
    void (*terminal)(void *who, const char *name);  // as sent: may be anything
    void (*send)(void *who, const char *bytes, size_t len); // goes to the caller as it is
};

// One caller's state. It stays where it is while open.
struct Telnet {
    telnet_t *tracker = nullptr;
    const TelnetUser *user = nullptr;
    void *who = nullptr;
    bool binaryin = false;
    bool binaryout = false;
    bool crcame = false; // the last byte typed was a carriage return
    bool crsent = false; // and the last one written
    bool refused = false;
};

// Starts, with offers to the caller. False when memory is short.
bool telnetopen(Telnet &telnet, const TelnetUser &user, void *who);
void telnetclose(Telnet &telnet);

// Takes bytes from the caller. False when the call is not to be served any longer: the caller has
// broken the protocol, or compresses.
bool telnetread(Telnet &telnet, const char *bytes, size_t len);

// Sends data to the caller.
void telnetwrite(Telnet &telnet, const char *bytes, size_t len);

} // namespace harbour
