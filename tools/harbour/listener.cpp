#include "tools/harbour/listener.h"

#include "tools/harbour/messages.h"
#include "tools/harbour/poller.h"
#include "tools/harbour/visit.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace harbour {
namespace {

constexpr std::chrono::milliseconds nap(1000); // while calls cannot even be refused
constexpr int atonce = 64;                     // calls taken in one turn

int listener = -1;
int spare = -1; // given up for a moment to tell a caller that there is no room for him
uint32_t events;
Time awake; // when calls are looked at again

struct Address {
    sockaddr_storage bytes = {};
    socklen_t length = sizeof bytes;
    sockaddr *get() { return reinterpret_cast<sockaddr *>(&bytes); }
};

bool parse(const std::string &where, Address &address) {
    const size_t colon = where.rfind(':');
    if (colon == where.npos || colon + 1 == where.size()) {
        return false;
    }
    const bool bracketed = where[0] == '[' && colon > 1 && where[colon - 1] == ']';
    const std::string host = bracketed ? where.substr(1, colon - 2) : where.substr(0, colon);
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_family = bracketed ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    double port = 0; // the resolver would take what is left of a greater one
    if (host.empty() || !readnumber(where.substr(colon + 1), 0, UINT16_MAX, port) ||
        getaddrinfo(host.c_str(), where.c_str() + colon + 1, &hints, &found) != 0) {
        return false;
    }
    memcpy(address.get(), found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
    freeaddrinfo(found);
    return true;
}

std::string named(Address &address) {
    char host[NI_MAXHOST] = "?";
    char port[NI_MAXSERV] = "?";
    getnameinfo(address.get(), address.length, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    const std::string name =
        address.bytes.ss_family == AF_INET6 ? "[" + std::string(host) + "]" : std::string(host);
    return name + ":" + port;
}

int acceptone(Address &from) {
    return accept4(listener, from.get(), &from.length, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

// To one who cannot be served: in plain words, once, and without waiting.
void turnaway(int caller, int number) {
    const std::string why = text(0, number);
    send(caller, why.data(), why.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(caller, SHUT_WR);
    close(caller);
}

// There is no descriptor for the next caller. The spare one makes room to tell him; where even that
// fails calls are left alone for a while, as the listener would only say again that one waits.
void noroom() {
    Address from;
    rules.tell(text(0, O_NOROOM));
    close(spare);
    const int caller = acceptone(from);
    if (caller >= 0) {
        turnaway(caller, T_NOROOM);
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (caller < 0 || spare < 0) {
        awake = rightnow + nap;
        pollfor(listener, 0, events, Source::listener);
    }
}

} // namespace

std::string openlistener(const std::string &where, std::string &at) {
    Address address;
    if (!parse(where, address)) {
        return "LISTEN is not of the form ADDRESS:PORT: " + where;
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    listener = socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener, address.get(), address.length) != 0 || listen(listener, SOMAXCONN) != 0) {
        return "cannot listen at " + where + ": " + strerror(errno);
    }
    getsockname(listener, address.get(), &address.length);
    at = named(address);
    listenagain();
    return "";
}

void closelistener() {
    pollfor(listener, 0, events, Source::listener);
    close(listener);
    listener = -1;
}

bool loopback(const std::string &at) {
    return at.starts_with("127.") || at.starts_with("[::1]");
}

void takecalls() {
    for (int n = 0; n < atonce; n++) {
        Address from;
        const int caller = acceptone(from);
        if (caller < 0) {
            if (errno == EMFILE || errno == ENFILE) {
                noroom();
            }
            return;
        }
        const auto line = std::find_if(lines.begin(), lines.end(),
                                       [](const Line &l) { return l.state == State::none; });
        if (line == lines.end()) {
            turnaway(caller, T_BUSY);
            continue;
        }
        const int on = 1;
        setsockopt(caller, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(caller, SOL_SOCKET, SO_OOBINLINE, &on, sizeof on); // an interrupt's mark
        setsockopt(caller, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        answer(*line, caller, named(from));
    }
}

int listenerwait() {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(awake - rightnow).count();
    return events != 0 || listener < 0 ? -1 : static_cast<int>(std::max<int64_t>(left, 0));
}

void listenagain() {
    pollfor(listener, EPOLLIN, events, Source::listener);
}

} // namespace harbour
