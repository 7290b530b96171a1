#include "tools/harbour/board.h"

#include "harbour_texts.h"
#include "libsrc/plex.h"
#include "tools/harbour/console.h"
#include "tools/harbour/line.h"
#include "tools/harbour/poller.h"
#include "tools/harbour/service.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harbour {
namespace {

constexpr int mostlines = 1000;
constexpr double mostminutes = 10000;
constexpr int descriptors = 64;                // besides a socket and a terminal for each line
constexpr std::chrono::milliseconds nap(1000); // while calls cannot even be refused
constexpr std::chrono::milliseconds parting(1000);

int listener = -1;
int signals = -1;
int spare = -1; // given up for a moment to tell a caller that there is no room for him
uint32_t listenerevents;
uint32_t signalsevents;
Time awake; // when calls are looked at again
bool ending;

std::string setting(const char *name, const char *otherwise) {
    const char *value = plex::getcfg(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

bool minutes(const char *name, const char *otherwise, std::chrono::milliseconds &time) {
    double value = 0;
    const bool good = readminutes(setting(name, otherwise), mostminutes, value);
    time = std::chrono::milliseconds(static_cast<int64_t>(value * 60000));
    return good;
}

std::string readsettings() {
    const std::string count = setting("LINES", "32");
    char *end = nullptr;
    const long n = strtol(count.c_str(), &end, 10);
    if (*end != '\0' || n < 1 || n > mostlines) {
        return "LINES is no number from 1 to " + std::to_string(mostlines);
    }
    lines.resize(static_cast<size_t>(n));
    for (size_t i = 0; i < lines.size(); i++) {
        lines[i].index = static_cast<int>(i);
    }
    if (!minutes("IDLE", "5", rules.idle) || !minutes("MINUTES", "60", rules.call)) {
        return "IDLE or MINUTES is no number of minutes";
    }
    rlimit limit = {};
    const int wanted = 2 * static_cast<int>(n) + descriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < static_cast<rlim_t>(wanted)) {
        plex::maxfil(wanted); // where that is refused, callers will hear it
    }
    return "";
}

// ADDRESS:PORT; an address of version 6 stands in brackets.
bool parse(const std::string &where, sockaddr_storage &address, socklen_t &length) {
    const size_t colon = where.rfind(':');
    if (colon == where.npos) {
        return false;
    }
    char *end = nullptr;
    const long port = strtol(where.c_str() + colon + 1, &end, 10);
    std::string host = where.substr(0, colon);
    auto *four = reinterpret_cast<sockaddr_in *>(&address);
    auto *six = reinterpret_cast<sockaddr_in6 *>(&address);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        six->sin6_family = AF_INET6;
        six->sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof *six;
        host = host.substr(1, host.size() - 2);
    } else {
        four->sin_family = AF_INET;
        four->sin_port = htons(static_cast<uint16_t>(port));
        length = sizeof *four;
    }
    return *end == '\0' && end != where.c_str() + colon + 1 && port >= 0 && port < 65536 &&
           (bracketed ? inet_pton(AF_INET6, host.c_str(), &six->sin6_addr)
                      : inet_pton(AF_INET, host.c_str(), &four->sin_addr)) == 1;
}

bool loopback(const sockaddr_storage &address) {
    const auto *four = reinterpret_cast<const sockaddr_in *>(&address);
    const auto *six = reinterpret_cast<const sockaddr_in6 *>(&address);
    return address.ss_family == AF_INET ? ntohl(four->sin_addr.s_addr) >> 24 == 127
                                        : IN6_IS_ADDR_LOOPBACK(&six->sin6_addr);
}

std::string named(const sockaddr_storage &address) {
    char text[INET6_ADDRSTRLEN] = "?";
    const auto *four = reinterpret_cast<const sockaddr_in *>(&address);
    const auto *six = reinterpret_cast<const sockaddr_in6 *>(&address);
    if (address.ss_family == AF_INET6) {
        inet_ntop(AF_INET6, &six->sin6_addr, text, sizeof text);
        return "[" + std::string(text) + "]:" + std::to_string(ntohs(six->sin6_port));
    }
    inet_ntop(AF_INET, &four->sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(four->sin_port));
}

std::string listenat(const std::string &where) {
    sockaddr_storage address = {};
    socklen_t length = 0;
    if (!parse(where, address, length)) {
        return "LISTEN is not of the form ADDRESS:PORT: " + where;
    }
    listener = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        return "cannot listen at " + where + ": " + strerror(errno);
    }
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    openconsole(named(address));
    if (!loopback(address)) {
        tell(text(0, O_NOTLOOPBACK, {named(address)}));
    }
    plex::inform("listening at %s\n", named(address).c_str());
    return "";
}

// To one who cannot be served: in plain words, once, and without waiting.
void turnaway(int caller, int number) {
    const std::string why = text(0, number);
    send(caller, why.data(), why.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(caller, SHUT_WR);
    close(caller);
}

int acceptone(sockaddr_storage &from) {
    socklen_t length = sizeof from;
    return accept4(listener, reinterpret_cast<sockaddr *>(&from), &length,
                   SOCK_CLOEXEC | SOCK_NONBLOCK);
}

// There is no descriptor for the next caller. The spare one makes room to tell him; where even that
// fails calls are left alone for a while, as the listener would only say again that one waits.
void noroom() {
    sockaddr_storage from = {};
    tell(text(0, O_NOROOM));
    close(spare);
    const int caller = acceptone(from);
    if (caller >= 0) {
        turnaway(caller, T_NOROOM);
    }
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (caller < 0 || spare < 0) {
        awake = rightnow + nap;
        pollfor(listener, 0, listenerevents, Source::listener);
    }
}

void takecalls() {
    for (int n = 0; n < 64; n++) {
        sockaddr_storage from = {};
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
        plex::inform("line %d: %s\n", line->index + 1, named(from).c_str());
        answer(*line, caller, named(from));
    }
}

void hearservice() {
    serviceready();
    for (;;) {
        plex::Hostitem item = {};
        std::string why;
        const plex::Link got = serviceitem(item, why);
        if (got == plex::Link::more) {
            return;
        }
        if (got != plex::Link::got) {
            tell(text(0, O_SERVICELOST, {why}));
            std::for_each(lines.begin(), lines.end(), servicelost);
            return;
        }
        Line *line = lineof(item.record.usrnum);
        if (item.record.msgtyp == plex::MSG_STARTED && line != nullptr) {
            started(*line, item.fd);
        } else if (item.record.msgtyp == plex::MSG_STARTED && item.fd >= 0) {
            close(item.fd); // he has gone meanwhile, and his program was killed
        } else if (item.record.msgtyp == plex::MSG_FAILED && line != nullptr) {
            refused(*line);
        } else if (item.record.msgtyp == plex::MSG_ENDED && line != nullptr &&
                   !WIFSTOPPED(item.record.message)) {
            ended(*line, item.record.message);
        }
    }
}

void hearsignals() {
    signalfd_siginfo info = {};
    while (read(signals, &info, sizeof info) > 0) {
        ending = ending || info.ssi_signo == SIGTERM || info.ssi_signo == SIGINT ||
                 info.ssi_signo == SIGHUP;
    }
}

bool watchsignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
        sigaddset(&set, signo);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    return signals >= 0;
}

int milliseconds(Time until) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 60000));
}

// How long nothing is to be done unless something happens.
int quiet() {
    int wait = due == Time::max() ? -1 : milliseconds(due);
    const auto atmost = [&wait](int ms) { wait = ms >= 0 && (wait < 0 || ms < wait) ? ms : wait; };
    atmost(attended() ? beat : -1);
    atmost(servicewait());
    atmost(listenerevents == 0 && awake != Time() ? milliseconds(awake) : -1);
    return wait;
}

// One turn: what has come, then what has run out.
void turn() {
    const int n = waitevents(quiet());
    rightnow = Clock::now();
    bool calls = false;
    for (int i = 0; i < n; i++) {
        const Event e = event(i);
        const auto at = static_cast<size_t>(e.index);
        switch (e.source) {
        case Source::listener:
            calls = true;
            break;
        case Source::signals:
            hearsignals();
            break;
        case Source::service:
            hearservice();
            break;
        case Source::caller:
            if (lines[at].caller >= 0) {
                callerready(lines[at], e.events);
            }
            break;
        case Source::command:
            if (lines[at].master >= 0) {
                masterready(lines[at], e.events);
            }
        }
    }
    if (servicewait() >= 0) {
        hearservice();
    }
    if (rightnow >= due) {
        look();
    }
    // Last, so that no event of this turn meets a new caller on its line.
    if (listenerevents == 0 && rightnow >= awake && !ending) {
        pollfor(listener, EPOLLIN, listenerevents, Source::listener);
    }
    if (calls && !ending) {
        takecalls();
    }
}

bool beating() {
    static Time last;
    if (!attended() || rightnow - last < std::chrono::milliseconds(beat)) {
        return true;
    }
    last = rightnow;
    return serveconsole();
}

void saygoodbye() {
    ending = true;
    pollfor(listener, 0, listenerevents, Source::listener);
    close(listener);
    rightnow = Clock::now();
    for (Line &line : lines) {
        if (line.state != State::none) {
            endcall(line, T_CLOSING);
        }
    }
    const Time end = rightnow + parting;
    const auto calling = [] {
        return std::any_of(lines.begin(), lines.end(),
                           [](const Line &l) { return l.state != State::none; });
    };
    while (calling() && rightnow < end) {
        due = std::min(due, end);
        turn();
    }
    for (Line &line : lines) {
        if (line.state != State::none) {
            hangup(line);
        }
    }
}

} // namespace

std::string openboard(bool demo) {
    rightnow = Clock::now();
    spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
    rules.tell = tell;
    rules.seen = seen;
    std::string why = readsettings();
    if (why.empty() && (!openpoller() || !watchsignals())) {
        why = strerror(errno);
    }
    if (why.empty()) {
        why = openservice();
    }
    if (why.empty()) {
        why = listenat(demo ? "127.0.0.1:0" : setting("LISTEN", "127.0.0.1:2323"));
    }
    rules.watched = why.empty() && attended();
    if (why.empty()) {
        pollfor(listener, EPOLLIN, listenerevents, Source::listener);
        pollfor(signals, EPOLLIN, signalsevents, Source::signals);
    } else {
        closeservice();
    }
    return why;
}

int boardport() {
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(
        reinterpret_cast<sockaddr_in *>(&address)->sin_port); // where version 6 has it, too
}

void runboard() {
    while (!ending && beating()) {
        turn();
    }
    saygoodbye();
    closeservice();
    closeconsole();
}

} // namespace harbour
