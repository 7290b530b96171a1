// The endpoint, descriptor passing, pseudo-terminals, the terminal template, the console switch.

#include "libunix/console/trm.h"
#include "libunix/daemon/template.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/pty.h"
#include "libunix/plumbing/svr4fd.h"
#include "libunix/runtime/bgnlog.h"
#include "tests/support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using test::Home;
using test::inchild;
using test::Outcome;

// Sends what the log would get to standard error, where inchild captures it.
void logtostderr() {
    setenv("BBSLOG", "stderr", 1);
    plex::bgnlog("");
}

// The descriptor that would be opened next: the same as before when nothing was left open.
int nextfd() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

void sendtwo(int to, int fd) {
    const int fds[2] = {fd, fd};
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof fds), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), fds, sizeof fds);
    EXPECT_EQ(sendmsg(to, &message, 0), 1);
}

TEST(Endpoint, IsMadeAfreshForEverybody) {
    const Home home;
    umask(077);
    for (int i = 0; i < 2; i++) { // the second time a stale one is in the way
        i == 0 ? test::spew("e", "a file left behind") : void();
        const int fd = plex::lsnsoc("e");
        ASSERT_GE(fd, 0);
        struct stat st = {};
        ASSERT_EQ(lstat("e", &st), 0);
        EXPECT_EQ(st.st_mode, S_IFSOCK | 0666U);
        EXPECT_EQ(umask(077), 077U);
        // Six openers get a stream at once and wait for nobody; accepted in their order.
        std::vector<int> fds = {fd};
        for (const char *byte : {"A", "B", "C", "D", "E", "F"}) {
            fds.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
            const sockaddr_un addr = {AF_UNIX, "e"};
            ASSERT_EQ(connect(fds.back(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr),
                      0)
                << byte;
            EXPECT_EQ(write(fds.back(), byte, 1), 1);
        }
        for (const char *byte : {"A", "B"}) {
            fds.push_back(plex::acceptfd(fd));
            EXPECT_EQ(test::take(fds.back(), 1), byte);
        }
        for (const int f : fds) {
            close(f);
        }
    }
}

TEST(Endpoint, Failures) {
    const Home home;
    const Outcome o = inchild([] {
        logtostderr();
        umask(022);
        printf("%d ", plex::lsnsoc("no/such/e"));
        printf("%03o ", umask(022)); // deliberately left at 0
        printf("%d ", plex::lsnsoc(std::string(200, 'x').c_str()));
        printf("%d ", plex::fdserver("missing"));
        test::spew("file", "text");
        printf("%d ", plex::fdserver("file") >= 0);
        close(plex::lsnsoc("closed"));
        printf("%d ", plex::fdserver("closed"));
        printf("%d ", plex::acceptfd(99));
    });
    EXPECT_EQ(o.out, "-1 000 -1 -1 1 -1 -1 ");
    EXPECT_EQ(o.err, "creat: No such file or directory\ncreat: File name too long\n"
                     "fdserver:open: No such file or directory"
                     "fdserver:open: Connection refused"
                     "I_RECVFD: Bad file descriptor (9)\n");
}

// Each letter puts something into the stream: d a descriptor, D two in one message, x a byte, e the
// end, r the end with bytes of ours unread; then what recv_fd makes of it, and what stays.
TEST(Passing, WhatCanCome) {
    const struct {
        const char *sent;
        std::vector<int> results; // 0: a descriptor
        const char *left;
    } rows[] = {{"dd", {0, 0}, ""},        {"xd", {EBADMSG}, "x"},    {"xxd", {EBADMSG}, "xx"},
                {"x", {EBADMSG}, "x"},     {"dx", {0, EBADMSG}, "x"}, {"de", {0, ENXIO}, ""},
                {"e", {ENXIO, ENXIO}, ""}, {"r", {ENXIO}, ""},        {"Dd", {0, 0}, ""}};
    for (const auto &r : rows) {
        const int unused = nextfd();
        int s[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
        for (const char what : std::string(r.sent)) {
            if (what == 'd') {
                EXPECT_EQ(plex::send_fd(s[0], s[1]), 0);
            } else if (what == 'D') {
                sendtwo(s[0], s[1]);
            } else if (what == 'x') {
                EXPECT_EQ(write(s[0], "x", 1), 1);
            } else {
                EXPECT_EQ(write(s[1], "y", what == 'r' ? 1 : 0), what == 'r' ? 1 : 0);
                close(s[0]);
            }
        }
        for (const int result : r.results) {
            errno = 0;
            const int fd = plex::recv_fd(s[1]);
            EXPECT_EQ(fd < 0 ? errno : 0, result) << r.sent;
            close(fd);
        }
        EXPECT_EQ(test::take(s[1], strlen(r.left)), r.left) << r.sent;
        close(s[0]);
        close(s[1]);
        EXPECT_EQ(nextfd(), unused) << r.sent;
    }
}

TEST(Passing, Failures) {
    const Home home;
    const Outcome o = inchild([] {
        logtostderr();
        int s[2];
        socketpair(AF_UNIX, SOCK_STREAM, 0, s);
        printf("%d ", plex::send_fd(s[0], -1));
        plex::send_fd(s[0], 0);
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(s[1]) + 1;
        setrlimit(RLIMIT_NOFILE, &limit);
        printf("%d ", plex::recv_fd(s[1])); // no descriptor left to receive it
        close(s[1]);
        printf("%d ", plex::send_fd(s[0], 0)); // and no SIGPIPE
    });
    EXPECT_EQ(o.code(), 0);
    EXPECT_EQ(o.out, "-1 -1 -1 ");
    EXPECT_EQ(o.err, "I_SENDFD: Bad file descriptor (9)\nI_RECVFD: Too many open files (24)\n"
                     "I_SENDFD: Broken pipe (32)\n");
}

TEST(Terminal, ChildLeadsASessionOnIt) {
    termios settings;
    memset(&settings, 0x55, sizeof settings);
    plex::set_termios(&settings);
    EXPECT_EQ(settings.c_cc[VSWTC], 0x55); // what the template leaves alone
    EXPECT_EQ(settings.c_line, 0x55);
    settings = {};
    plex::set_termios(&settings);
    winsize size = {};
    plex::set_winsize(&size);
    for (const bool set : {true, false}) { // a size alone sets nothing
        int fdm = -1;
        char name[plex::PTYNAME];
        const int pid = plex::pty_fork(&fdm, name, set ? &settings : nullptr, &size);
        if (pid == 0) {
            winsize w = {};
            ioctl(0, TIOCGWINSZ, &w);
            printf("%d%d%d %d %d %d", isatty(0), isatty(1), isatty(2),
                   getsid(0) == getpid() && tcgetpgrp(0) == getpid(), w.ws_row, w.ws_col);
            fflush(stdout);
            _exit(0);
        }
        ASSERT_GT(pid, 0);
        EXPECT_EQ(test::drain(fdm), set ? "111 1 24 80" : "111 1 0 0");
        EXPECT_EQ(strncmp(name, "/dev/pts/", 9), 0) << name;
        close(fdm);
        waitpid(pid, nullptr, 0);
    }
}

TEST(Terminal, Failures) {
    const Home home;
    const Outcome o = inchild([] {
        char name[plex::PTYNAME] = "";
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        printf("%d ", plex::ptys_open(p[0], "/no/such"));
        printf("%d ", fcntl(p[0], F_GETFD)); // closed on the way
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = 3;
        setrlimit(RLIMIT_NOFILE, &limit);
        int fdm = -1;
        const int pid = plex::pty_fork(&fdm, name, nullptr, nullptr);
        printf("%d %d", pid, fdm);
    });
    EXPECT_EQ(o.out, "-5 -1 -1 -1");
    EXPECT_EQ(o.err,
              "ptym_open:open: Too many open files\npty_fork:ptym_open: Too many open files\n");
}

TEST(Switch, ChoosesTheMethod) {
    // What opening the method tells: only the null console needs nothing.
    const struct {
        const char *bbsdisp;
        int type;
        const char *name;
        int method; // 0: none is meant
    } rows[] = {
        {"xwindow", 8, "vosterd", 8},      {"NULLCON", 0, nullptr, 8},  {nullptr, 0, "PlexHost", 1},
        {"XWindow", 0, "plexhost", 1},     {"xwindow", 0, nullptr, 2},  {nullptr, 0, "other", 2},
        {"unixcon", 0, "plexhost", 0x100}, {"bogus", 0, "plexhost", 0}, {nullptr, 0x40, "x", 0}};
    for (const auto &r : rows) {
        const Home home;
        test::spew("cfg", "BBSLOG=stdout\n");
        const Outcome o = inchild([&] {
            setenv("BBSCONFIG", "cfg", 1);
            unsetenv("BBSDISP");
            if (r.bbsdisp != nullptr) {
                setenv("BBSDISP", r.bbsdisp, 1);
            }
            unsetenv("DISPLAY");
            plex::bgnlog("");
            atexit([] { printf("%d", plex::dsptyp); });
            plex::opntrm(r.type, r.name);
            if (plex::dsptyp == plex::DSP_NULL) {
                plex::updtrm(1);
                plex::trmbel(1);
                EXPECT_EQ(plex::getch() + plex::getchc() + plex::kbhit(), 0);
                plex::clstrm();
            }
            exit(plex::xapnam == r.name && plex::lascan() == 1 ? 42 : 43);
        });
        SCOPED_TRACE(r.bbsdisp != nullptr ? r.bbsdisp : "unset");
        if (r.method == 0) {
            EXPECT_TRUE(o.out.starts_with("FATAL ERROR: screen/keyboard method not specified!\n"));
            EXPECT_EQ(o.code(), 1);
            continue;
        }
        EXPECT_TRUE(o.out.ends_with(std::to_string(r.method))) << o.out;
        EXPECT_EQ(o.code(), o.err.empty() ? 42 : 1) << o.err;
        if (r.method == plex::DSP_X11) { // there is no display here, whatever is linked
            EXPECT_EQ(o.err, "Display open failed. Exiting.\n");
        }
    }
}

} // namespace
