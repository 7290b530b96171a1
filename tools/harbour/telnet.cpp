// libtelnet keeps track of the options and takes the stream apart. Carriage returns are ours: a
// network terminal's is followed by a line feed or a zero byte, and may be separated from it by the
// end of what was read. So a carriage return goes on at once, and what has to follow it is
// supplied, or swallowed, when the next byte comes.

#include "tools/harbour/telnet.h"

#include <array>
#include <cstring>
#include <string>

namespace harbour {
namespace {

constexpr std::array<telnet_telopt_t, 6> options = {{
    {TELNET_TELOPT_ECHO, TELNET_WILL, TELNET_DONT},
    {TELNET_TELOPT_SGA, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_BINARY, TELNET_WILL, TELNET_DO},
    {TELNET_TELOPT_NAWS, TELNET_WONT, TELNET_DO},
    {TELNET_TELOPT_TTYPE, TELNET_WONT, TELNET_DO},
    {-1, 0, 0},
}};

void hand(const Telnet &t, telnet_event_type_t type, const char *bytes, size_t len) {
    telnet_event_t e = {};
    e.type = type;
    e.data.buffer = bytes;
    e.data.size = len;
    t.heard(t.tracker, &e, t.who);
}

void typed(Telnet &t, const char *bytes, size_t len) {
    std::string keys;
    for (const char *at = bytes; at < bytes + len; at++) {
        keys.append(t.crcame && !t.binaryin && (*at == '\n' || *at == '\0') ? 0 : 1, *at);
        t.crcame = *at == '\r' && !t.binaryin;
    }
    hand(t, TELNET_EV_DATA, keys.data(), keys.size());
}

void handle(telnet_t *tracker, telnet_event_t *e, void *who) {
    Telnet &t = *static_cast<Telnet *>(who);
    const bool binary = e->neg.telopt == TELNET_TELOPT_BINARY; // of the four that negotiate
    switch (e->type) {
    case TELNET_EV_DATA:
        if (!t.refused) {
            typed(t, e->data.buffer, e->data.size);
        }
        break;
    case TELNET_EV_WILL:
    case TELNET_EV_WONT:
        t.binaryin = binary ? e->type == TELNET_EV_WILL : t.binaryin;
        if (e->type == TELNET_EV_WILL && e->neg.telopt == TELNET_TELOPT_TTYPE) {
            telnet_ttype_send(tracker);
        }
        break;
    case TELNET_EV_DO:
    case TELNET_EV_DONT:
        t.binaryout = binary ? e->type == TELNET_EV_DO : t.binaryout;
        t.crsent = t.crsent && !t.binaryout;
        break;
    case TELNET_EV_COMPRESS: // a few bytes would become millions
    case TELNET_EV_ERROR:
        t.refused = true;
        break;
    default:
        t.heard(tracker, e, t.who);
    }
}

} // namespace

bool telnetopen(Telnet &telnet, telnet_event_handler_t heard, void *who) {
    telnet = {};
    telnet.heard = heard;
    telnet.who = who;
    telnet.tracker = telnet_init(options.data(), handle, 0, &telnet);
    for (const telnet_telopt_t &option : options) {
        for (const unsigned char offer : {option.us, option.him}) {
            if (telnet.tracker != nullptr && (offer == TELNET_WILL || offer == TELNET_DO)) {
                telnet_negotiate(telnet.tracker, offer, static_cast<unsigned char>(option.telopt));
            }
        }
    }
    return telnet.tracker != nullptr;
}

void telnetclose(Telnet &telnet) {
    if (telnet.tracker != nullptr) {
        telnet_free(telnet.tracker);
    }
    telnet = {};
}

bool telnetread(Telnet &telnet, const char *bytes, size_t len) {
    telnet_recv(telnet.tracker, bytes, len);
    return !telnet.refused;
}

// Most output has nothing to be escaped and goes out from where it was read.
void telnetwrite(Telnet &telnet, const char *bytes, size_t len) {
    const bool lines = !telnet.binaryout && (telnet.crsent || memchr(bytes, '\r', len) != nullptr);
    if (!lines && memchr(bytes, TELNET_IAC, len) == nullptr) {
        hand(telnet, TELNET_EV_SEND, bytes, len);
        return;
    }
    static std::string room;
    room.clear();
    for (const char *at = bytes; at < bytes + len; at++) {
        room.append(telnet.crsent && *at != '\n' ? 1 : 0, '\0');
        room.append(static_cast<unsigned char>(*at) == TELNET_IAC ? 2 : 1, *at);
        telnet.crsent = *at == '\r' && !telnet.binaryout;
    }
    hand(telnet, TELNET_EV_SEND, room.data(), room.size());
}

} // namespace harbour
