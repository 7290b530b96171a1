// The shared segment and the link to a viewer.

#include "libunix/console/trm.h"
#include "libunix/plumbing/svr4shm.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/print.h"
#include "tests/faults/calls.h"
#include "tests/segments.h"
#include "tools/play.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

volatile sig_atomic_t told; // how often a viewer of this process was told to go

void ontold(int /*signo*/) {
    told = told + 1;
}

// The program's side of the link, open in a home of its own.
class Link : public testing::Test {
protected:
    Link() {
        plex::usignal(SIGUSR1, ontold);
        EXPECT_GE(plex::rx11trm.trmopn(), 0);
        const int fd = connected(); // a failed announcement: no viewer of an earlier test is known
        say(fd, 0, 2);
        key();
        close(fd);
        told = 0;
    }
    ~Link() override {
        plex::rx11trm.trmcls();
        EXPECT_FALSE(test::exists("plexhost.console"));
    }

    static int connected() {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, "plexhost.console");
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        return fd;
    }
    // A viewer that has announced itself and been accepted.
    static int viewer(int32_t pid = getpid()) {
        const int fd = connected();
        say(fd, pid);
        EXPECT_EQ(plex::rx11trm.trmhit(), 0) << "a newcomer is no key";
        return fd;
    }
    static void say(int fd, int32_t word, size_t len = 4) {
        EXPECT_EQ(send(fd, &word, len, MSG_NOSIGNAL), static_cast<ssize_t>(len));
    }
    // Whether the program has closed this connection.
    static bool closed(int fd) {
        char byte = 0;
        return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
    }
    static int32_t key() { return plex::rx11trm.trmhit() != 0 ? plex::rx11trm.trminp() : 0; }

    test::Home home;
};

TEST_F(Link, KeysComeUntilTheViewerLeaves) {
    EXPECT_EQ(key(), 0);
    const int fd = viewer();
    EXPECT_EQ(key(), 0);
    say(fd, 0x4800);
    say(fd, 'q');
    EXPECT_EQ(plex::rx11trm.trmhit(), 1);
    EXPECT_EQ(plex::rx11trm.trmhit(), 1); // not removed by looking
    EXPECT_EQ(plex::rx11trm.trminp(), 0x4800);
    EXPECT_EQ(plex::rx11trm.trminp(), 'q');
    say(fd, -1);
    say(fd, 'x');
    EXPECT_EQ(key(), 0);
    EXPECT_EQ(told, 1);
    char byte = 0;
    EXPECT_LE(recv(fd, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(key(), 0);
    const int next = viewer(); // the viewer that has gone is told once more
    EXPECT_EQ(told, 2);
    close(next); // one that dies is dropped too
    EXPECT_EQ(key(), 0);
    EXPECT_EQ(told, 3);
    close(fd);
}

TEST_F(Link, NewcomerTakesOver) {
    const int first = viewer();
    const int second = connected();
    say(second, getpid());
    say(first, 'a'); // keys that have come are taken before the newcomer
    EXPECT_EQ(key(), 'a');
    EXPECT_FALSE(closed(first));
    EXPECT_EQ(key(), 0);
    EXPECT_TRUE(closed(first));
    EXPECT_EQ(told, 1);
    say(second, 'b');
    EXPECT_EQ(key(), 'b');
    const int third = connected();
    say(third, getpid());
    test::fault("accept:1:24"); // the viewer has gone all the same; the newcomer waits
    EXPECT_EQ(key(), 0);
    EXPECT_TRUE(closed(second));
    EXPECT_EQ(key(), 0);
    say(third, 'c');
    EXPECT_EQ(key(), 'c');
    for (const int fd : {first, second, third}) {
        close(fd);
    }
}

TEST_F(Link, ShortAnnouncements) {
    const int two = connected();
    say(two, getpid(), 2);
    EXPECT_EQ(key(), 0);
    EXPECT_TRUE(closed(two));
    const int silent = connected(); // bounded: a program must not stand still for it
    EXPECT_EQ(key(), 0);
    EXPECT_TRUE(closed(silent));
    EXPECT_EQ(told, 0) << "nobody announced anything";
    // What names no process must not reach a process group, this one's least of all.
    for (const int32_t pid : {0, -1, -getpgrp()}) {
        const int fd = viewer(pid);
        say(fd, 'k');
        EXPECT_EQ(key(), 'k') << pid;
        close(fd);
        EXPECT_EQ(key(), 0);
    }
    EXPECT_EQ(told, 0);
    close(two);
    close(silent);
}

TEST_F(Link, ShortKeyKeepsTheBytesBefore) {
    const int fd = viewer();
    say(fd, 0x12345678);
    EXPECT_EQ(key(), 0x12345678);
    say(fd, 0x4800, 2);
    EXPECT_EQ(key(), 0x12344800);
    close(fd);
    EXPECT_EQ(key(), 0);
}

TEST_F(Link, UpdateAsksForARepaint) {
    unsigned char flags[29] = {};
    plex::updflg = flags;
    plex::dsptyp = plex::DSP_REMOTE;
    plex::rx11trm.trmupd(0);
    plex::updflg = nullptr;
    plex::dsptyp = 0;
    EXPECT_EQ(flags[plex::UPD_ALL], 1);
}

TEST(LinkOpening, StaleEndpointsGo) {
    const test::Home home;
    for (const char *left : {"a file", ""}) {
        if (*left != '\0') {
            test::spew("plexhost.console", left);
        } else {
            plex::rx11trm.trmopn(); // and its process dies
        }
        EXPECT_GE(plex::rx11trm.trmopn(), 0);
        plex::rx11trm.trmcls();
        EXPECT_FALSE(test::exists("plexhost.console"));
    }
}

TEST(LinkOpening, FailureEndsTheProgram) {
    const test::Home home;
    ASSERT_EQ(mkdir("plexhost.console", 0700), 0); // no file: not to be removed
    const char *const rows[][2] = {{"", "xopen:bind() Address already in use\n"},
                                   {"socket:1:24", ""}};
    for (const auto &[fault, log] : rows) {
        const auto outcome = test::inchild([fault = fault] {
            setenv("BBSLOG", "stdout", 1);
            plex::bgnlog("");
            test::fault(fault);
            plex::opntrm(plex::DSP_REMOTE, "plexhost");
        });
        EXPECT_EQ(outcome.out, log);
        EXPECT_EQ(outcome.err, "Display open failed. Exiting.\n");
        EXPECT_EQ(outcome.code(), 1);
    }
}

// Runs `body` with the log on standard output and a private screen image.
test::Outcome logged(const std::function<void()> &body) {
    return test::inchild([&] {
        const rlimit nothing = {0, 0};
        setrlimit(RLIMIT_CORE, &nothing);
        setenv("BBSLOG", "stdout", 1);
        plex::bgnlog("");
        plex::opntrm(plex::DSP_NULL, "test");
        body();
    });
}

TEST(Segment, IsSharedAndOutlivesItsWriter) {
    NEED_OWN_SEGMENTS();
    const auto writer = logged([] {
        auto *mem = static_cast<char *>(plex::opnsshm(4029));
        _exit(mem[0] == '\0' && mem[4028] == '\0' && strcpy(mem, "left") == mem ? 0 : 1);
    });
    EXPECT_EQ(writer.code(), 0);
    const int id = shmget(test::segmentkey(), 4029, 0);
    ASSERT_GE(id, 0);
    shmid_ds info = {};
    shmctl(id, IPC_STAT, &info);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0644);
    const auto reader = logged([] {
        auto *seen = static_cast<char *>(plex::opncshm(4029));
        auto *mem = static_cast<char *>(plex::opnsshm(4029)); // a second writer has the same
        strcat(mem, " over");
        const bool same = strcmp(seen, "left over") == 0;
        plex::clscshm(seen);
        plex::clscshm(seen);
        plex::clssshm(mem);
        plex::clssshm(mem);
        _exit(same ? 0 : 1);
    });
    EXPECT_EQ(reader.code(), 0);
    char want[256];
    snprintf(want, sizeof want, "Server: Attached shared memory id %d, len 4029 at 0x", id);
    EXPECT_EQ(writer.out.find(want), 0U) << writer.out;
    snprintf(want, sizeof want, "Client: Attached shared memory id %d, len 4029 at 0x", id);
    EXPECT_EQ(reader.out.find(want), 0U) << reader.out;
    for (const char *line : {"Client: Could not detach shared memory (22 Invalid argument).\n",
                             "Server: Could not detach shared memory (22 Invalid argument).\n",
                             "Server: Could not remove shared memory (22 Invalid argument).\n"}) {
        EXPECT_NE(reader.out.find(line), std::string::npos) << line << reader.out;
    }
    EXPECT_LT(shmget(test::segmentkey(), 0, 0), 0);
}

// What a program of this method, opened after `before`, has in the segment once it has printed.
std::string shared(const std::function<void()> &before) {
    const test::Home home;
    const auto outcome = test::inchild([&] {
        before();
        plex::opntrm(plex::DSP_REMOTE, "test");
        plex::unxprntf("seen");
        const auto *image = static_cast<unsigned char *>(plex::opncshm(plex::imagebytes));
        printf("%c%c%c%c %d", image[0], image[2], image[4], image[6],
               image[plex::cellbytes + plex::UPD_CURCOL]);
        plex::clstrm();
        exit(0);
    });
    test::removesegment();
    return outcome.out + outcome.err;
}

TEST(Methods, TheFirstOutputMakesTheImage) {
    NEED_OWN_SEGMENTS();
    test::removesegment();
    EXPECT_EQ(shared([] {}), "seen 4");
}

TEST(Methods, AnImageFromBeforeTheMethodIsGivenUp) {
    NEED_OWN_SEGMENTS();
    test::removesegment();
    EXPECT_EQ(shared([] { plex::frzseg(); }), "seen 4");
}

TEST(Methods, ShowTheSameCells) {
    using namespace std::string_literals;
    NEED_OWN_SEGMENTS();
    std::string cells[3];
    int at = 0;
    for (const int32_t method : {plex::DSP_NULL, plex::DSP_REMOTE, plex::DSP_X11}) {
        const test::Home home;
        cells[at++] =
            test::inchild([&] {
                setenv("BBSFONT", "f", 1);
                plex::opntrm(method, "test");
                plex::frzseg();
                plex::ansion(1);
                EXPECT_TRUE(plex::playfile(SOURCE_DIR "/tools/harbour.ans"));
                const std::string more =
                    "\033[0m\033[5;20r\033[20;1Hscrolled\0\n\n\033[31;5mred\x1A is the end"s;
                EXPECT_FALSE(plex::playtext(more.data(), more.size()));
                fwrite(plex::frzseg(), 1, plex::cellbytes, stdout);
                plex::clstrm();
            }).out;
    }
    test::removesegment();
    EXPECT_EQ(cells[0].size(), plex::cellbytes);
    EXPECT_EQ(cells[0].substr(19 * 160, 6), "r\x84"
                                            "e\x84"
                                            "d\x84");
    EXPECT_EQ(cells[0].substr(17 * 160, 16), "s\a"
                                             "c\ar\ao\al\al\ae\ad\a");
    EXPECT_TRUE(cells[0] == cells[1]) << "the shared screen differs";
    EXPECT_TRUE(cells[0] == cells[2]) << "the window differs";
}

} // namespace
