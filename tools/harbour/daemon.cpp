#include "libsrc/plex.h"
#include "tools/harbour/board.h"
#include "tools/harbour/messages.h"
#include "tools/owndaemon.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace harbour {
namespace {

using plex::Link;

constexpr milliseconds patience(10000); // for an answer

struct Request {
    int usrnum;
    Time late;
};

plex::OwnDaemon own;
int sample = -1;                // a terminal as programs are to have it; its master stays open
Watch link;                     // the connection
plex::Hostpart part;            // of an item that is not whole
std::deque<Request> unanswered; // the oldest first

void hear(int index, uint32_t events);

// Our daemon gives its programs the settings of its standard input: a new terminal's, as callers
// expect them, and with whole UTF-8 characters erased.
void makesample(bool utf8) {
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

// Connects to a daemon that runs, or starts one, which takes a few milliseconds.
std::string reach() {
    own.home = ".";
    own.kept = true;
    own.input = sample;
    own.link = plex::hostopen(".");
    std::string why = own.link < 0 ? plex::startdaemon(own) : "";
    if (why.empty() && own.link < 0) {
        why = plex::awaitdaemon(own);
    }
    if (why.empty()) {
        part = {};
        link = {own.link, hear, 0, 0};
        fcntl(own.link, F_SETFL, O_RDWR | O_NONBLOCK);
        watch(link, EPOLLIN);
    }
    return why;
}

void lose(const std::string &why) {
    closedaemon();
    asked.clear();
    unanswered.clear();
    tell(text(0, O_SERVICELOST, {why}));
    std::for_each(lines.begin(), lines.end(), servicelost);
}

// A refusal does not say whom it concerns: it answers the oldest request, as does a start.
void take(const plex::Hostitem &item) {
    int usrnum = item.record.usrnum;
    if (item.record.msgtyp != plex::MSG_ENDED && !unanswered.empty()) {
        usrnum = unanswered.front().usrnum;
        unanswered.pop_front();
    }
    Line *line = lineof(usrnum);
    if (item.record.msgtyp == plex::MSG_STARTED && line != nullptr) {
        started(*line, item.fd);
    } else if (item.fd >= 0) {
        close(item.fd); // he has gone meanwhile, and his program was killed
    } else if (item.record.msgtyp == plex::MSG_FAILED && line != nullptr) {
        refused(*line);
    } else if (line != nullptr && !WIFSTOPPED(item.record.message)) {
        ended(*line, item.record.message);
    }
}

void hear(int /*index*/, uint32_t /*events*/) {
    plex::Hostitem item = {};
    Link got = Link::got;
    while ((got = plex::hostnext(own.link, part, item)) == Link::got) {
        take(item);
    }
    if (got != Link::more) {
        lose(plex::linktext(got));
    }
}

} // namespace

std::string opendaemon(bool utf8) {
    makesample(utf8);
    return sample >= 0 ? reach() : std::string("cannot open a terminal: ") + strerror(errno);
}

void closedaemon() {
    watch(link, 0);
    link = {};
    plex::stopdaemon(own);
}

void askdaemon() {
    std::string why;
    while (why.empty() && !asked.empty()) {
        const plex::servermsg &request = asked.front();
        const bool run = request.msgtyp == plex::MSG_RUN;
        if (own.link < 0 && run) {
            why = reach();
        } else if (own.link < 0 || plex::hostsend(own.link, request) == 0) {
            if (run) {
                unanswered.push_back({request.usrnum, rightnow + patience});
            }
            asked.pop_front();
        } else {
            break; // full; or gone, which reading tells
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
    return unanswered.empty() ? Time::max() : unanswered.front().late;
}

} // namespace harbour
