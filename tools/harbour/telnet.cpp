// libtelnet keeps track of the options and takes the stream apart. Carriage returns are ours: a
// network terminal's is followed by a line feed or a zero byte, and may be separated from it by the
// end of what was read. So a carriage return goes on at once, and what has to follow it is
// supplied, or swallowed, when the next byte comes.

#include "tools/harbour/telnet.h"

#include <array>
#include <cstring>
#include <libtelnet.h>
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

std::string *gathered; // where what is to be sent goes meanwhile, to be sent in one piece

void typed(Telnet &t, const char *bytes, size_t len) {
    size_t from = 0; // of what has not been handed on
    for (size_t i = 0; i < len && !t.binaryin; i++) {
        if (t.crcame && (bytes[i] == '\n' || bytes[i] == '\0')) {
            if (i > from) {
                t.user->typed(t.who, bytes + from, i - from);
            }
            from = i + 1;
        }
        t.crcame = bytes[i] == '\r';
    }
    if (len > from) {
        t.user->typed(t.who, bytes + from, len - from);
    }
}

void negotiated(Telnet &t, telnet_event_type_t type, unsigned char option) {
    if (option == TELNET_TELOPT_BINARY) {
        bool &mode = type == TELNET_EV_WILL || type == TELNET_EV_WONT ? t.binaryin : t.binaryout;
        mode = type == TELNET_EV_WILL || type == TELNET_EV_DO;
        t.crcame = t.crcame && !t.binaryin;
        t.crsent = t.crsent && !t.binaryout;
    } else if (option == TELNET_TELOPT_TTYPE && type == TELNET_EV_WILL) {
        telnet_ttype_send(t.tracker);
    }
}

void subnegotiated(Telnet &t, const telnet_event_t &e) {
    if (e.sub.telopt != TELNET_TELOPT_NAWS || e.sub.size != 4) {
        return;
    }
    const auto *b = reinterpret_cast<const unsigned char *>(e.sub.buffer);
    t.user->size(t.who, b[0] << 8 | b[1], b[2] << 8 | b[3]);
}

void handle(telnet_t * /*tracker*/, telnet_event_t *e, void *who) {
    Telnet &t = *static_cast<Telnet *>(who);
    switch (e->type) {
    case TELNET_EV_SEND:
        if (gathered != nullptr) {
            gathered->append(e->data.buffer, e->data.size);
        } else {
            t.user->send(t.who, e->data.buffer, e->data.size);
        }
        break;
    case TELNET_EV_DATA:
        if (!t.refused) {
            typed(t, e->data.buffer, e->data.size);
        }
        break;
    case TELNET_EV_IAC:
        t.user->command(t.who, e->iac.cmd);
        break;
    case TELNET_EV_WILL:
    case TELNET_EV_WONT:
    case TELNET_EV_DO:
    case TELNET_EV_DONT:
        negotiated(t, e->type, e->neg.telopt);
        break;
    case TELNET_EV_SUBNEGOTIATION:
        subnegotiated(t, *e);
        break;
    case TELNET_EV_TTYPE:
        if (e->ttype.cmd == TELNET_TTYPE_IS) {
            t.user->terminal(t.who, e->ttype.name);
        }
        break;
    case TELNET_EV_COMPRESS: // a few bytes would become millions
    case TELNET_EV_ERROR:
        t.refused = true;
        break;
    default:
        break;
    }
}

// Bytes for a network terminal: each carriage return alone gets its zero byte.
void writelines(Telnet &t, const char *bytes, size_t len) {
    while (len > 0) {
        if (t.crsent && *bytes != '\n') {
            telnet_send(t.tracker, "", 1);
        }
        const auto *cr = static_cast<const char *>(memchr(bytes, '\r', len));
        const size_t n = cr != nullptr ? static_cast<size_t>(cr - bytes) + 1 : len;
        telnet_send(t.tracker, bytes, n);
        t.crsent = cr != nullptr;
        bytes += n;
        len -= n;
    }
}

} // namespace

bool telnetopen(Telnet &telnet, const TelnetUser &user, void *who) {
    telnet = {};
    telnet.user = &user;
    telnet.who = who;
    telnet.tracker = telnet_init(options.data(), handle, 0, &telnet);
    if (telnet.tracker == nullptr) {
        return false;
    }
    for (const telnet_telopt_t &option : options) {
        const auto code = static_cast<unsigned char>(option.telopt);
        if (option.telopt >= 0 && option.us == TELNET_WILL) {
            telnet_negotiate(telnet.tracker, TELNET_WILL, code);
        }
        if (option.telopt >= 0 && option.him == TELNET_DO) {
            telnet_negotiate(telnet.tracker, TELNET_DO, code);
        }
    }
    return true;
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
    const bool escapes = memchr(bytes, TELNET_IAC, len) != nullptr;
    const bool lines = !telnet.binaryout && (telnet.crsent || memchr(bytes, '\r', len) != nullptr);
    if (!escapes && !lines) {
        telnet.user->send(telnet.who, bytes, len);
        return;
    }
    static std::string room;
    room.clear();
    gathered = &room;
    if (telnet.binaryout) {
        telnet_send(telnet.tracker, bytes, len);
    } else {
        writelines(telnet, bytes, len);
    }
    gathered = nullptr;
    telnet.user->send(telnet.who, room.data(), room.size());
}

} // namespace harbour
