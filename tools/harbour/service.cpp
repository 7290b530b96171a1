#include "tools/harbour/service.h"

#include "tools/harbour/poller.h"
#include "tools/owndaemon.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace harbour {
namespace {

using plex::Link;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds patience(10); // for a daemon to start, and to answer
constexpr int pause = 2;                     // milliseconds between looks at one that starts

struct Request {
    int usrnum;
    Clock::time_point asked;
};

plex::OwnDaemon own;
int sample = -1;                    // a terminal as programs are to have it; its master stays open
bool starting;                      // ours, which does not listen yet
Clock::time_point since;            // when it was started
plex::Hostpart part;                // of an item that is not whole
uint32_t events;                    // asked of the link
std::deque<plex::servermsg> unsent; // the link's buffer is full, or there is no link yet
std::deque<Request> unanswered;     // the oldest first

void joined() {
    starting = false;
    part = {};
    fcntl(own.link, F_SETFL, O_RDWR | O_NONBLOCK);
    pollfor(own.link, EPOLLIN, events, Source::service);
}

// Our daemon gives its programs the settings of its standard input: a new terminal's, as callers
// expect them, and with whole UTF-8 characters erased.
void maketemplate(bool utf8) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    unlockpt(master);
    sample = ioctl(master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    struct termios settings = {};
    winsize size = {};
    size.ws_row = 24;
    size.ws_col = 80;
    if (sample >= 0 && tcgetattr(sample, &settings) == 0) {
        settings.c_iflag |= utf8 ? IUTF8 : 0U;
        tcsetattr(sample, TCSANOW, &settings);
        ioctl(sample, TIOCSWINSZ, &size);
    }
}

// Connects to a daemon that runs, or starts one.
std::string reach() {
    own.home = ".";
    own.kept = true;
    own.input = sample;
    own.link = plex::hostopen(".");
    if (own.link >= 0) {
        joined();
        return "";
    }
    std::string why = plex::startdaemon(own);
    starting = why.empty();
    since = Clock::now();
    return why;
}

void flush() {
    while (own.link >= 0 && !unsent.empty()) {
        if (plex::hostsend(own.link, unsent.front()) != 0) {
            break; // full; or gone, which reading tells
        }
        unsent.pop_front();
    }
    pollfor(own.link, EPOLLIN | (unsent.empty() ? 0U : EPOLLOUT), events, Source::service);
}

void ask(const plex::servermsg &request) {
    unsent.push_back(request);
    if (own.link < 0 && !starting) {
        reach(); // a failure is told as the loss of what was asked
        since = Clock::now();
    }
    flush();
}

void lose() {
    pollfor(own.link, 0, events, Source::service);
    plex::stopdaemon(own);
    starting = false;
    unsent.clear();
    unanswered.clear();
}

} // namespace

std::string openservice(bool utf8) {
    maketemplate(utf8);
    if (sample < 0) {
        return std::string("cannot open a terminal: ") + strerror(errno);
    }
    std::string why = reach();
    while (why.empty() && starting) {
        poll(nullptr, 0, pause);
        const int result = plex::joindaemon(own);
        if (result > 0) {
            joined();
        } else if (result < 0) {
            why = "vosterd ended at once; does another one run without a host?";
        } else if (Clock::now() - since > patience) {
            why = "vosterd does not start";
        }
    }
    return why;
}

void closeservice() {
    lose();
}

void runprogram(int usrnum, const std::string &command) {
    plex::servermsg request = {usrnum, plex::MSG_RUN, {}};
    memcpy(request.cmdstg, command.data(), std::min(command.size(), sizeof request.cmdstg));
    unanswered.push_back({usrnum, Clock::now()});
    ask(request);
}

void killprogram(int usrnum) {
    if (own.link >= 0) {
        ask({usrnum, plex::MSG_KILL, {}});
    }
}

void serviceready() {
    if (starting && plex::joindaemon(own) > 0) {
        joined();
    }
    flush();
}

Link serviceitem(plex::Hostitem &item, std::string &why) {
    Link got = own.link >= 0 ? plex::hostnext(own.link, part, item) : Link::more;
    why = plex::linktext(got);
    const bool late = !unanswered.empty() && Clock::now() - unanswered.front().asked > patience;
    if (got == Link::more && own.link < 0 && !unanswered.empty() && own.pid < 0) {
        got = Link::ended;
        why = "vosterd cannot be started";
    } else if (got == Link::more && late) {
        got = Link::failed;
        why = "vosterd does not answer; perhaps it has a host already";
    }
    if (got == Link::got && item.record.msgtyp != plex::MSG_ENDED && !unanswered.empty()) {
        item.record.usrnum = unanswered.front().usrnum;
        unanswered.pop_front();
    } else if (got != Link::got && got != Link::more) {
        lose();
    }
    return got;
}

int servicewait() {
    return starting ? pause : unanswered.empty() ? -1 : 1000;
}

} // namespace harbour
