// A host's side of the link, and the passing of descriptors below it, against a peer that says
// whatever the test wants.

#include "libunix/host/hostlink.h"
#include "libunix/plumbing/svr4fd.h"
#include "tests/support.h"

#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

using plex::Link;

struct Pair {
    // The lowest number is free: it is a descriptor as any other.
    Pair() { getrlimit(RLIMIT_NOFILE, &all), socketpair(AF_UNIX, SOCK_STREAM, 0, fd), close(0); }
    ~Pair() {
        EXPECT_NE(close(0), 0) << "it stayed open";
        setrlimit(RLIMIT_NOFILE, &all), dup2(2, 0), close(fd[0]), close(fd[1]);
    }

    // Each letter is a step of the peer's: a letter of the alphabet as many bytes of a record, + a
    // descriptor, . the end, ! a request of ours that stays unread, < no room for descriptors, ? a
    // link that is none.
    void say(const char *steps) {
        const plex::clientmsg record = {-7, plex::MSG_ENDED, 0x0300};
        const rlimit tight = {0, all.rlim_max};
        for (; *steps != '\0'; steps++) {
            const ssize_t len = *steps - 'A' + 1;
            EXPECT_EQ(*steps == '+'   ? plex::send_fd(fd[1], 2)
                      : *steps == '.' ? close(std::exchange(fd[1], -1))
                      : *steps == '!' ? plex::hostkill(fd[0], 1)
                      : *steps == '<' ? setrlimit(RLIMIT_NOFILE, &tight)
                      : *steps == '?' ? dup2(2, fd[0]) - fd[0]
                                      : write(fd[1], &record, static_cast<size_t>(len)) - len,
                      0);
        }
    }

    int fd[2] = {-1, -1};
    rlimit all = {};
};

TEST(Hostlink, WhatCanCome) {
    using enum plex::Link;
    // What a peer does; what a read of a record, of a descriptor, of another makes of it.
    const std::tuple<const char *, Link, Link, Link> rows[] = {
        {"L", got, plain, plain},      {"EL", got, plain, plain},     {"+", strayfd, got, more},
        {"++", strayfd, got, got},     {"+A", strayfd, got, plain},   {"+.", strayfd, got, ended},
        {"+<", strayfd, lostfd, more}, {"A+", strayfd, plain, plain}, {"D+", strayfd, plain, plain},
        {"A.", cut, plain, plain},     {"K.", cut, plain, plain},     {".", ended, ended, ended},
        {"!.", ended, ended, ended},   {"?", failed, failed, failed},
    };
    const test::Home home;
    for (const auto &[peer, record, descriptor, another] : rows) {
        SCOPED_TRACE(peer);
        plex::Hostpart part;
        for (const bool waits : {true, false}) {
            Pair pair;
            part = {};
            plex::Hostitem item = {{}, -1};
            pair.say(peer);
            EXPECT_EQ(waits ? plex::hostread(pair.fd[0], item.record)
                            : plex::hostnext(pair.fd[0], part, item),
                      record);
            EXPECT_LT(item.fd, 0);
        }
        Pair pair;
        pair.say(peer);
        for (const Link want : {descriptor, another}) {
            int fd = -1;
            const Link link = want != more ? plex::hostfd(pair.fd[0], fd) : more;
            EXPECT_EQ(link, want);
            EXPECT_TRUE(link != got || (fcntl(fd, F_GETFD) == FD_CLOEXEC && close(fd) == 0));
        }
        EXPECT_EQ(plex::hostrun(pair.fd[0], 3, std::string(plex::CMDSIZE + 1, 'x')), -1);
        if (another == ended) { // and no SIGPIPE
            EXPECT_EQ(plex::send_fd(pair.fd[0], 0) + plex::hostkill(pair.fd[0], 3), -2);
            EXPECT_EQ(errno, EPIPE);
        }
        EXPECT_TRUE(another != plain || recv(pair.fd[0], &part, 1, MSG_DONTWAIT) == 1)
            << "plain, and taken";
    }
}

// However it is cut, the same is heard: starts with and without a descriptor, a failure, ends.
TEST(Hostlink, EverySplit) {
    std::string stream;
    std::set<size_t> behind; // the bytes that bring a descriptor, where the kernel cuts, too
    for (const int kind : {-3, -1, -1, -2, -1, -3, -1}) {
        const plex::clientmsg m = {static_cast<int>(stream.size()), kind, 0};
        stream.append(reinterpret_cast<const char *>(&m), sizeof m);
        if (kind == -1 && stream.size() != 37) { // the second start's was refused
            stream.push_back('\0');
            behind.insert(stream.size());
        }
    }
    const test::Home home;
    for (size_t most = 1; most <= stream.size(); most++) {
        std::string heard;
        plex::Hostpart part = {};
        plex::Hostitem item;
        for (size_t at = 0, end = 0; at < stream.size(); at = end) {
            end = std::min(at + most, *behind.upper_bound(at));
            plex::Hostbytes in = {reinterpret_cast<unsigned char *>(&stream[at]), end - at,
                                  behind.count(end) != 0 ? dup(0) : plex::NOFD};
            while (plex::hostdecode(part, in, item) == Link::got) {
                heard += std::to_string(item.record.usrnum) + (item.fd >= 0 ? "+ " : " ");
                EXPECT_TRUE(item.fd < 0 || close(item.fd) == 0);
            }
        }
        EXPECT_EQ(heard, "0 12+ 25 37 49+ 62 74+ ") << "in pieces of " << most;
    }
}

} // namespace
