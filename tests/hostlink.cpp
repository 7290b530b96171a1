// A host's side of the link, against a peer that says whatever the test wants.

#include "libunix/host/hostlink.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/svr4fd.h"
#include "tests/support.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using plex::Link;

struct Pair {
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
    ~Pair() { close(fd[0]), hangup(); }
    void hangup() { close(std::exchange(fd[1], -1)); }
    void say(size_t len) { EXPECT_EQ(write(fd[1], &said, len), static_cast<ssize_t>(len)); }
    const plex::clientmsg said = {-7, plex::MSG_ENDED, 0x0300};
    int fd[2] = {-1, -1};
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
        {"a descriptor", [](Pair &p) { plex::send_fd(p.fd[1], 0); }, Link::strayfd, Link::got},
        {"a record in pieces", [](Pair &p) { p.say(5), p.say(12); }, Link::got, Link::plain},
        {"a cut record", [](Pair &p) { p.say(11), p.hangup(); }, Link::cut, Link::plain},
        {"the end", [](Pair &p) { p.hangup(); }, Link::ended, Link::ended},
        {"the end with bytes unread", [](Pair &p) { plex::hostkill(p.fd[0], 1), p.hangup(); },
         Link::ended, Link::ended},
        {"a descriptor within a record", [](Pair &p) { p.say(4), plex::send_fd(p.fd[1], 0); },
         Link::strayfd, Link::plain},
        {"nothing, ever", [](Pair &p) { dup2(0, p.fd[0]); }, Link::failed, Link::failed},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        const int before = lowestfree();
        {
            Pair pair;
            r.peer(pair);
            plex::clientmsg record = {};
            EXPECT_EQ(plex::hostread(pair.fd[0], record), r.record);
        }
        EXPECT_EQ(lowestfree(), before) << "a stray descriptor stayed open";
        Pair pair;
        r.peer(pair);
        int fd = -1;
        EXPECT_EQ(plex::hostfd(pair.fd[0], fd), r.descriptor);
        EXPECT_EQ(fd >= 0, r.descriptor == Link::got);
        if (fd >= 0) {
            EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
            close(fd);
        }
    }
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
    std::string heard;
    const auto hear = [&](const plex::Hostitem &item) {
        heard += std::to_string(item.record.usrnum) + (item.fd >= 0 ? "+ " : " ");
        EXPECT_TRUE(item.fd < 0 || (fcntl(item.fd, F_GETFD) == FD_CLOEXEC && close(item.fd) == 0));
    };
    const auto cuts = [&](size_t from) { // as the kernel does, behind a descriptor's byte
        const auto at = std::lower_bound(passed.begin(), passed.end(), from);
        return at == passed.end() ? stream.size() : *at + 1;
    };
    const int before = lowestfree();
    for (size_t cut = 0; cut <= stream.size(); cut++) {
        plex::Hostpart given = {}; // fed
        plex::Hostpart read = {};  // read from a link
        Pair pair;
        plex::Hostitem item;
        std::string fed;
        for (size_t at = 0; at < stream.size();) {
            const size_t end = std::min(cuts(at), at < cut ? cut : stream.size());
            const bool brings = std::count(passed.begin(), passed.end(), end - 1) != 0;
            plex::Hostbytes in = {reinterpret_cast<unsigned char *>(&stream[at]), end - at,
                                  brings ? fcntl(0, F_DUPFD_CLOEXEC, 0) : plex::NOFD};
            for (heard.swap(fed); plex::hostdecode(given, in, item) == Link::got;) {
                hear(item);
            }
            heard.swap(fed);
            const size_t plain = end - at - (brings ? 1 : 0);
            EXPECT_EQ(write(pair.fd[1], &stream[at], plain), static_cast<ssize_t>(plain));
            EXPECT_TRUE(!brings || plex::send_fd(pair.fd[1], 0) == 0);
            while (plex::hostnext(pair.fd[0], read, item) == Link::got) {
                hear(item);
            }
            at = end;
        }
        EXPECT_EQ(fed, "0 12+ 25 37 49+ 62 74+ ") << "cut at " << cut;
        EXPECT_EQ(heard, fed) << "cut at " << cut;
        heard.clear();
        plex::send_fd(pair.fd[1], 0);
        EXPECT_EQ(plex::hostnext(pair.fd[0], read, item), Link::strayfd);
        pair.say(3), pair.hangup();
        EXPECT_EQ(plex::hostnext(pair.fd[0], read, item), Link::cut);
    }
    EXPECT_EQ(lowestfree(), before) << "a descriptor stayed open";
}

TEST(Hostlink, DescriptorWithoutRoom) {
    Pair pair;
    plex::send_fd(pair.fd[1], 0);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit tight = {1, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    int fd = -1;
    const Link link = plex::hostfd(pair.fd[0], fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(link, Link::lostfd) << plex::linktext(link);
}

TEST(Hostlink, RequestsAreWhole) {
    Pair pair;
    const std::string full(plex::CMDSIZE, 'x');
    for (const std::string &command : {std::string("/bin/ls"), full}) {
        ASSERT_EQ(plex::hostrun(pair.fd[0], 3, command), 0);
        plex::servermsg want = {3, 1, {}};
        memcpy(want.cmdstg, command.data(), command.size());
        EXPECT_EQ(test::take(pair.fd[1], 1032), std::string(reinterpret_cast<char *>(&want), 1032));
    }
    EXPECT_EQ(plex::hostrun(pair.fd[0], 3, full + "x"), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_FALSE(test::readable(pair.fd[1], 0));
    pair.hangup();
    EXPECT_EQ(plex::hostkill(pair.fd[0], 3), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(Hostlink, Opening) {
    test::Home home;
    const auto opened = [](const std::string &path) {
        const int fd = plex::hostopen(path.c_str());
        return fd < 0 ? errno : (close(fd), 0);
    };
    EXPECT_EQ(opened(home.path), ENOENT);
    EXPECT_EQ(opened(home.path + "/none"), ENOENT);
    test::spew(plex::ENDPOINT, "");
    EXPECT_EQ(opened(home.path), ENOTSOCK);
    // A path that is longer than a socket's address may be.
    const std::string deep = home.path + "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
    ASSERT_EQ(chdir(deep.c_str()), 0);
    const int listening = plex::lsnsoc(plex::ENDPOINT);
    ASSERT_GE(listening, 0);
    EXPECT_EQ(opened(deep), 0);
    close(listening);
    EXPECT_EQ(opened(deep), ECONNREFUSED);
}

} // namespace
