#include "tools/harbour/board.h"

#include "libsrc/plex.h"
#include "tools/harbour/console.h"
#include "tools/harbour/messages.h"
#include "tools/options.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace harbour {
namespace {

constexpr milliseconds beat(50);  // between two looks at the console's keys
constexpr milliseconds nap(1000); // while calls cannot even be refused
constexpr int atonce = 64;        // calls taken in one turn

Watch listener;
int spare = -1; // given up for a moment to tell a caller that there is no room for him
bool calls;     // wait to be taken
Time awake;     // when calls are looked at again
Time looked;    // at the console
sigset_t whilewaiting;
volatile sig_atomic_t ending;

// The name of one end of a socket, as getsockname or getpeername has it.
std::string named(int fd, int (*get)(int, sockaddr *, socklen_t *)) {
    sockaddr_storage bytes = {};
    auto *address = reinterpret_cast<sockaddr *>(&bytes);
    socklen_t length = sizeof bytes;
    char host[NI_MAXHOST] = "?";
    char port[NI_MAXSERV] = "?";
    get(fd, address, &length);
    getnameinfo(address, length, host, sizeof host, port, sizeof port,
                NI_NUMERICHOST | NI_NUMERICSERV);
    const bool six = bytes.ss_family == AF_INET6;
    return (six ? "[" + std::string(host) + "]:" : std::string(host) + ":") + port;
}

int acceptone() {
    return accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

// To one who cannot be served: in plain words, once, and without waiting.
void turnaway(int caller, int number) {
    const std::string why = text(0, number);
    send(caller, why.data(), why.size(), MSG_DONTWAIT);
    close(caller);
}

// There is no descriptor for the next caller. The spare one makes room to tell him; where even that
// fails calls are left alone for a while, as the listener would only say again that one waits.
void noroom() {
    tell(text(0, O_NOROOM));
    close(spare);
    const int caller = acceptone();
    if (caller != -1) {
        turnaway(caller, T_NOROOM);
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (caller == -1 || spare == -1) {
        awake = rightnow + nap;
        watch(listener, 0);
    }
}

void takecalls() {
    for (int n = 0; n < atonce; n++) {
        const int caller = acceptone();
        if (caller == -1) {
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
        answer(*line, caller, named(caller, getpeername));
    }
}

// Signals end the board while it waits, and at no other time. SIGPIPE is held back for good: not
// ignored, as its programs would inherit that.
void catchsignals() {
    sigset_t held;
    sigemptyset(&held);
    sigaddset(&held, SIGPIPE);
    sigprocmask(SIG_BLOCK, &held, nullptr);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) {
        plex::usignal(signo, [](int) { ending = 1; });
        sigaddset(&held, signo);
    }
    sigprocmask(SIG_BLOCK, &held, &whilewaiting);
}

// Milliseconds until something is to be done although nothing happens; -1: for ever.
int quiet() {
    Time next = std::min(due, answerdue());
    if (listener.fd != -1 && listener.asked == 0) {
        next = std::min(next, awake);
    }
    if (rules.watched) {
        next = std::min(next, looked + beat);
    }
    const auto left = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
    return next == Time::max() ? -1 : static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

// One turn: what has come, then what has run out.
void turn() {
    std::array<epoll_event, 256> came;
    const int n =
        epoll_pwait(epoll, came.data(), static_cast<int>(came.size()), quiet(), &whilewaiting);
    rightnow = Clock::now();
    for (int i = 0; i < n; i++) {
        const auto &event = came[static_cast<size_t>(i)];
        const Watch &what = *static_cast<const Watch *>(event.data.ptr);
        if (what.fd != -1) {
            what.ready(what.index, event.events);
        }
    }
    if (rightnow >= due) {
        look();
    }
    askdaemon();
    // Last, so that no event of this turn meets a new caller on its line.
    if (calls) {
        calls = false;
        takecalls();
    } else if (rightnow >= awake) {
        watch(listener, EPOLLIN);
    }
    if (rules.watched && rightnow - looked >= beat) {
        looked = rightnow;
        if (!serveconsole()) {
            ending = 1;
        }
    }
}

} // namespace

std::string openboard(const std::string &where) {
    const size_t colon = std::min(where.rfind(':'), where.size());
    const bool six = colon > 1 && where[0] == '[' && where[colon - 1] == ']';
    const std::string host = six ? where.substr(1, colon - 2) : where.substr(0, colon);
    const std::string port = where.substr(std::min(colon + 1, where.size()));
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_family = six ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    double number = 0; // the resolver would take what is left of a greater one
    if (host.empty() || !readnumber(port, 0, UINT16_MAX, number) ||
        getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
        plex::fail(1, "LISTEN is not of the form ADDRESS:PORT: %s", where.c_str());
    }
    rightnow = Clock::now();
    catchsignals();
    epoll = epoll_create1(EPOLL_CLOEXEC);
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    listener.fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    listener.ready = [](int /*index*/, uint32_t /*events*/) { calls = true; };
    // Callers' sockets inherit these; an interrupt's mark comes in line.
    constexpr std::pair<int, int> options[] = {{SOL_SOCKET, SO_REUSEADDR},
                                               {SOL_SOCKET, SO_KEEPALIVE},
                                               {SOL_SOCKET, SO_OOBINLINE},
                                               {IPPROTO_TCP, TCP_NODELAY}};
    for (const auto &[level, option] : options) {
        const int on = 1;
        setsockopt(listener.fd, level, option, &on, sizeof on);
    }
    if (listener.fd == -1 || bind(listener.fd, found->ai_addr, found->ai_addrlen) != 0 ||
        listen(listener.fd, SOMAXCONN) != 0) {
        plex::fail(1, "cannot listen at %s: %s", where.c_str(), strerror(errno));
    }
    freeaddrinfo(found);
    watch(listener, EPOLLIN);
    return named(listener.fd, getsockname);
}

void runboard(const std::string &at) {
    openconsole(at);
    if (!at.starts_with("127.") && !at.starts_with("[::1]")) {
        tell(text(0, O_NOTLOOPBACK, {at}));
    }
    plex::inform("listening at %s\n", at.c_str());
    while (ending == 0) {
        turn();
    }
    watch(listener, 0);
    close(listener.fd);
    listener.fd = -1;
    for (Line &line : lines) {
        endcall(line, T_CLOSING);
        settle(line);
    }
    const auto calling = [](const Line &l) { return l.state != State::none; };
    while (std::any_of(lines.begin(), lines.end(), calling)) {
        turn(); // the goodbyes have their limits
    }
    plex::clstrm();
}

} // namespace harbour
