// A caller's bytes. The same stream, whole and cut anywhere, must give the same keys, commands,
// sizes and replies; what comes out is bounded by what came in; and what is written to him
// afterwards comes back whole out of its escapes.

#include "fuzz/entry.h"
#include "tools/harbour/telnet.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

using fuzz::require;

constexpr char iac = '\xff';

struct Heard {
    std::string keys;
    std::string events;
    std::string sent;
};

void heard(telnet_t * /*tracker*/, telnet_event_t *e, void *who) {
    Heard &to = *static_cast<Heard *>(who);
    if (e->type == TELNET_EV_DATA) {
        to.keys.append(e->data.buffer, e->data.size);
    } else if (e->type == TELNET_EV_SEND) {
        to.sent.append(e->data.buffer, e->data.size);
    } else if (e->type == TELNET_EV_IAC) {
        to.events += "c" + std::to_string(e->iac.cmd);
    } else if (e->type == TELNET_EV_SUBNEGOTIATION) {
        to.events += "s" + std::string(e->sub.buffer, e->sub.size);
    } else if (e->type == TELNET_EV_TTYPE && e->ttype.cmd == TELNET_TTYPE_IS) { // else no name
        to.events += "t" + std::string(e->ttype.name);
    }
}

// What a caller gets who takes the escapes out again.
std::string received(const std::string &sent, bool binary) {
    std::string out;
    for (size_t i = 0; i < sent.size(); i++) {
        out += sent[i];
        if (sent[i] == iac) {
            require(i + 1 < sent.size() && sent[++i] == iac);
        } else if (sent[i] == '\r' && !binary && i + 1 < sent.size()) {
            require(sent[i + 1] == '\n' || sent[i + 1] == '\0');
            i += sent[i + 1] == '\0' ? 1 : 0;
        }
    }
    return out;
}

// Feeds `bytes` in pieces of `most` at most; then writes them to the caller.
bool feed(Heard &to, const std::string &bytes, size_t most) {
    harbour::Telnet telnet;
    require(harbour::telnetopen(telnet, heard, &to));
    bool served = true;
    for (size_t at = 0; at < bytes.size() && served; at += most) {
        served = harbour::telnetread(telnet, bytes.data() + at, std::min(most, bytes.size() - at));
    }
    require(!served || to.keys.size() <= bytes.size());
    if (served) {
        const Heard before = to;
        to.sent.clear();
        for (size_t at = 0; at < bytes.size(); at += most) {
            harbour::telnetwrite(telnet, bytes.data() + at, std::min(most, bytes.size() - at));
        }
        require(received(to.sent, telnet.binaryout) == bytes);
        require(to.sent.size() <= 2 * bytes.size());
        to = before;
    }
    harbour::telnetclose(telnet);
    return served;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string bytes(reinterpret_cast<const char *>(data), size);
    Heard whole;
    const bool served = feed(whole, bytes, std::max<size_t>(size, 1));
    for (const size_t most : {size_t{1}, size % 7 + 2}) {
        Heard parts;
        require(feed(parts, bytes, most) == served);
        require(!served || (parts.keys == whole.keys && parts.events == whole.events &&
                            parts.sent == whole.sent));
    }
    return 0;
}
