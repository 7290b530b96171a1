#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/harbour/messages.h"
#include "tools/options.h"
#include "tools/owndaemon.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <termios.h>

namespace harbour {
namespace {

using plex::Link;

constexpr milliseconds patience(10000); // for an answer, and for a start
constexpr milliseconds pause(2);        // between two looks for a daemon that starts

plex::OwnDaemon own;
int sample = -1;            // a terminal as programs are to have it; its master stays open
Watch link;                 // the connection
plex::Hostpart part;        // of an item that is not whole
std::deque<int> unanswered; // the usrnums of requests to run, the oldest first
Time late;                  // when that one should have been, or a connection made

void lose(const std::string &why) {
    closedaemon();
    asked.clear();
    unanswered.clear();
    tell(text(0, O_SERVICELOST, {why}));
    std::for_each(lines.begin(), lines.end(), daemonlost);
}

void hear(int /*index*/, uint32_t /*events*/) {
    plex::Hostitem item = {};
    Link got = Link::got;
    while ((got = plex::hostnext(own.link, part, item)) == Link::got) {
        int usrnum = item.record.usrnum;
        const int32_t type = item.record.msgtyp;
        if (type != plex::MSG_ENDED && !unanswered.empty()) { // a refusal does not say whom
            usrnum = unanswered.front();
            unanswered.pop_front();
            late = rightnow + patience;
        }
        daemonsays(usrnum, type, type == plex::MSG_STARTED ? item.fd : item.record.message);
    }
    if (got != Link::more) {
        lose(plex::linktext(got));
    }
}

// Finds a daemon that runs, else starts one. Returns an empty string, or what went wrong; so does
// what follows.
std::string begin() {
    own = {".", -1, plex::hostopen("."), sample, true};
    late = rightnow + patience;
    return own.link == -1 ? plex::startdaemon(own) : "";
}

// One that starts is looked for again, as often as need be.
std::string again() {
    const int joined = plex::joindaemon(own);
    return joined < 0                        ? "vosterd ended at once"
           : joined == 0 && rightnow >= late ? "vosterd does not start"
                                             : "";
}

void listen() {
    part = {};
    link = {own.link, hear, 0, 0};
    fcntl(own.link, F_SETFL, O_RDWR | O_NONBLOCK);
    watch(link, EPOLLIN);
}

} // namespace

// Our daemon gives its programs the settings of its standard input: a new terminal's, as callers
// expect them, and with whole UTF-8 characters erased.
void opendaemon(bool utf8) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    unlockpt(master);
    sample = ioctl(master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    struct termios settings = {};
    ioctl(sample, TIOCSWINSZ, &terminalsize);
    if (tcgetattr(sample, &settings) != 0) {
        plex::fail(1, "cannot open a terminal: %s", strerror(errno));
    }
    settings.c_iflag |= utf8 ? IUTF8 : 0U;
    tcsetattr(sample, TCSANOW, &settings);
    std::string why = begin();
    if (why.empty() && own.link == -1) {
        why = plex::awaitdaemon(own);
    }
    if (!why.empty()) {
        plex::fail(1, "%s", why.c_str());
    }
    listen();
}

void closedaemon() {
    watch(link, 0);
    link = {};
    plex::stopdaemon(own);
}

void askdaemon() {
    std::string why;
    bool wait = false;
    while (why.empty() && !wait && !asked.empty()) {
        const plex::servermsg &request = asked.front();
        const bool run = request.msgtyp == plex::MSG_RUN;
        if (own.link == -1 && run) {
            why = own.pid == -1 ? begin() : again();
            wait = own.link == -1; // for one that starts, while the board goes on
            if (!wait) {
                listen();
            }
        } else if (own.link == -1 || plex::hostsend(own.link, request) == 0) {
            if (run) {
                late = unanswered.empty() ? rightnow + patience : late;
                unanswered.push_back(request.usrnum);
            }
            asked.pop_front();
        } else {
            wait = true; // full; or gone, which reading tells
        }
    }
    watch(link, EPOLLIN | (asked.empty() ? 0U : EPOLLOUT));
    if (why.empty() && rightnow >= answerdue()) {
        why = "vosterd does not answer; perhaps it has a host already";
    }
    if (!why.empty()) {
        lose(why);
    }
}

Time answerdue() {
    const bool starting = own.pid != -1 && own.link == -1;
    return starting ? rightnow + pause : unanswered.empty() ? Time::max() : late;
}

} // namespace harbour
