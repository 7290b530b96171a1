#include "tools/harbour/board.h"

#include "libsrc/plex.h"
#include "tools/harbour/console.h"
#include "tools/harbour/listener.h"
#include "tools/harbour/messages.h"
#include "tools/harbour/poller.h"
#include "tools/harbour/program.h"
#include "tools/harbour/service.h"
#include "tools/harbour/visit.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

namespace harbour {
namespace {

constexpr double mostlines = 1000;
constexpr double mostminutes = 10000;
constexpr int descriptors = 64; // besides a socket and a terminal for each line
constexpr std::chrono::milliseconds parting(1000);

int signals = -1;
uint32_t signalsevents;
bool ending;

std::string setting(const char *name, const char *otherwise) {
    const char *value = plex::getcfg(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

std::chrono::milliseconds minutes(double number) {
    return std::chrono::milliseconds(static_cast<int64_t>(number * 60000));
}

std::string readsettings() {
    struct {
        const char *name;
        const char *otherwise;
        double least;
        double most;
        double value;
    } numbers[] = {{"LINES", "32", 1, mostlines, 0},
                   {"IDLE", "5", 0, mostminutes, 0},
                   {"MINUTES", "60", 0, mostminutes, 0}};
    for (auto &n : numbers) {
        if (!readnumber(setting(n.name, n.otherwise), n.least, n.most, n.value)) {
            return std::string(n.name) + " is no number from " +
                   std::to_string(static_cast<int>(n.least)) + " to " +
                   std::to_string(static_cast<int>(n.most));
        }
    }
    rules = {minutes(numbers[1].value),
             minutes(numbers[2].value),
             false,
             tell,
             seen,
             keypressed,
             programhungup,
             showmenu};
    lines.resize(static_cast<size_t>(numbers[0].value));
    for (size_t i = 0; i < lines.size(); i++) {
        lines[i].index = static_cast<int>(i);
    }
    rlimit limit = {};
    const rlim_t wanted = 2 * lines.size() + descriptors;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
        plex::maxfil(static_cast<int>(wanted)); // where that is refused, callers will hear it
    }
    return "";
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
    atmost(listenerwait());
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
    if (listenerwait() == 0) {
        listenagain();
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
    closelistener();
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

std::string openboard(bool demo, std::string &at) {
    rightnow = Clock::now();
    std::string why = readsettings();
    if (why.empty() && (!openpoller() || !watchsignals())) {
        why = strerror(errno);
    }
    if (why.empty()) {
        why = openservice(setting("IUTF8", "yes") != "no");
    }
    if (why.empty()) {
        why = openlistener(demo ? "127.0.0.1:0" : setting("LISTEN", "127.0.0.1:2323"), at);
    }
    if (!why.empty()) {
        closeservice();
        return why;
    }
    pollfor(signals, EPOLLIN, signalsevents, Source::signals);
    openconsole(at);
    rules.watched = attended();
    if (!loopback(at)) {
        tell(text(0, O_NOTLOOPBACK, {at}));
    }
    plex::inform("listening at %s\n", at.c_str());
    return "";
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
