// A host's side of the link, against a peer that says whatever the test wants.

#include "libunix/host/hostlink.h"
#include "libunix/plumbing/svr4fd.h"
#include "tests/support.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

using plex::Link;

struct Pair {
    Pair() { getrlimit(RLIMIT_NOFILE, &all), socketpair(AF_UNIX, SOCK_STREAM, 0, fd); }
    ~Pair() { close(fd[0]), hangup(), setrlimit(RLIMIT_NOFILE, &all); }
    void hangup() { close(std::exchange(fd[1], -1)); }
    void say(size_t len) { EXPECT_EQ(write(fd[1], &said, len), static_cast<ssize_t>(len)); }
    void pass() { EXPECT_EQ(plex::send_fd(fd[1], 0), 0); }
    void tighten() {
        const rlimit tight = {1, all.rlim_max};
        setrlimit(RLIMIT_NOFILE, &tight);
    }
    const plex::clientmsg said = {-7, plex::MSG_ENDED, 0x0300};
    int fd[2] = {-1, -1};
    rlimit all = {};
};

int lowestfree() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

TEST(Hostlink, WhatCanCome) {
    struct {
        const char *what;
        std::function<void(Pair &)> peer;
        Link record, descriptor; // what a read of each kind makes of it
    } const rows[] = {
        {"a record", [](Pair &p) { p.say(12); }, Link::got, Link::plain},
        {"a descriptor", [](Pair &p) { p.pass(); }, Link::strayfd, Link::got},
        {"one for which there is no room", [](Pair &p) { p.pass(), p.tighten(); }, Link::strayfd,
         Link::lostfd},
        {"a record in pieces", [](Pair &p) { p.say(5), p.say(12); }, Link::got, Link::plain},
        {"a cut record", [](Pair &p) { p.say(11), p.hangup(); }, Link::cut, Link::plain},
        {"the end", [](Pair &p) { p.hangup(); }, Link::ended, Link::ended},
        {"the end with bytes unread", [](Pair &p) { plex::hostkill(p.fd[0], 1), p.hangup(); },
         Link::ended, Link::ended},
        {"a descriptor within a record", [](Pair &p) { p.say(4), p.pass(); }, Link::strayfd,
         Link::plain},
        {"nothing, ever", [](Pair &p) { dup2(0, p.fd[0]); }, Link::failed, Link::failed},
    };
    for (const auto &r : rows) {
        const int before = lowestfree();
        for (const char *reader : {"hostread", "hostfd", "hostnext"}) {
            SCOPED_TRACE(std::string(r.what) + " for " + reader);
            Pair pair;
            plex::Hostpart part = {};
            plex::Hostitem item = {{}, -1};
            r.peer(pair);
            const bool wantsfd = reader[4] == 'f';
            const Link link = reader[4] == 'r' ? plex::hostread(pair.fd[0], item.record)
                              : wantsfd        ? plex::hostfd(pair.fd[0], item.fd)
                                               : plex::hostnext(pair.fd[0], part, item);
            EXPECT_EQ(link, wantsfd ? r.descriptor : r.record) << plex::linktext(link);
            EXPECT_EQ(item.fd >= 0, wantsfd && link == Link::got);
            EXPECT_TRUE(item.fd < 0 ||
                        (fcntl(item.fd, F_GETFD) == FD_CLOEXEC && close(item.fd) == 0));
        }
        EXPECT_EQ(lowestfree(), before) << "a stray descriptor stayed open of " << r.what;
    }
    Pair pair;
    pair.hangup();
    EXPECT_EQ(plex::hostkill(pair.fd[0], 3), -1);
    EXPECT_EQ(errno, EPIPE);
}

// Whatever the cuts, the same is heard. A start without a descriptor, a failure and ends stand
// between.
TEST(Hostlink, EverySplit) {
    std::string stream;
    std::vector<size_t> passed; // where bytes stand that bring a descriptor
    for (const int kind : {-3, -1, -1, -2, -1, -3, -1}) {
        const plex::clientmsg m = {static_cast<int>(stream.size()), kind, 0};
        stream.append(reinterpret_cast<const char *>(&m), sizeof m);
        if (kind == -1 && stream.size() != 37) { // the second start's was refused
            passed.push_back(stream.size());
            stream.push_back('\0');
        }
    }
    std::string heard[2]; // of bytes that are fed, and read from a link
    const auto hear = [&](bool read, const plex::Hostitem &item) {
        heard[read] += std::to_string(item.record.usrnum) + (item.fd >= 0 ? "+ " : " ");
        EXPECT_TRUE(item.fd < 0 || close(item.fd) == 0);
    };
    const int before = lowestfree();
    for (size_t cut = 0; cut <= stream.size(); cut++) {
        plex::Hostpart parts[2] = {};
        plex::Hostitem item;
        Pair pair;
        for (size_t at = 0, end = 0; at < stream.size(); at = end) {
            // The kernel cuts behind a descriptor's byte.
            const auto next = std::lower_bound(passed.begin(), passed.end(), at);
            end = std::min(next == passed.end() ? stream.size() : *next + 1,
                           at < cut ? cut : stream.size());
            const bool brings = std::count(passed.begin(), passed.end(), end - 1) != 0;
            plex::Hostbytes in = {reinterpret_cast<unsigned char *>(&stream[at]), end - at,
                                  brings ? fcntl(0, F_DUPFD_CLOEXEC, 0) : plex::NOFD};
            while (plex::hostdecode(parts[0], in, item) == Link::got) {
                hear(false, item);
            }
            const size_t plain = end - at - (brings ? 1 : 0);
            EXPECT_EQ(write(pair.fd[1], &stream[at], plain), static_cast<ssize_t>(plain));
            EXPECT_TRUE(!brings || plex::send_fd(pair.fd[1], 0) == 0);
            while (plex::hostnext(pair.fd[0], parts[1], item) == Link::got) {
                hear(true, item);
            }
        }
        for (std::string &one : heard) {
            EXPECT_EQ(std::exchange(one, ""), "0 12+ 25 37 49+ 62 74+ ") << "cut at " << cut;
        }
    }
    EXPECT_EQ(lowestfree(), before) << "a descriptor stayed open";
}

} // namespace
