// A host's side of the link, against a peer that says whatever the test wants.

#include "libunix/host/hostlink.h"
#include "libunix/daemon/child.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/svr4fd.h"
#include "tests/support.h"

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
        const int before = dup(0); // the lowest that is free
        close(before);
        {
            Pair pair;
            r.peer(pair);
            plex::clientmsg record = {};
            EXPECT_EQ(plex::hostread(pair.fd[0], record), r.record);
        }
        const int after = dup(0);
        close(after);
        EXPECT_EQ(after, before) << "a stray descriptor stayed open";
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
