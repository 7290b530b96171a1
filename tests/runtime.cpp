// What programs stand on: configuration, log, lock, processes, files; endpoint, descriptor passing,
// terminals, the choice of a console.

#include "libunix/console/trm.h"
#include "libunix/daemon/template.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/pty.h"
#include "libunix/plumbing/svr4fd.h"
#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/files.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"
#include "tests/support.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace plex;
using namespace std::string_literals;
using test::inchild;
using test::slurp;
using test::spew;
using test::told;

// A home of its own with an empty configuration.
struct Runtime : testing::Test {
    Runtime() { setenv("BBSCONFIG", "cfg", 1), spew("cfg", ""); }
    test::Home home;
};

struct Plumbing : Runtime {};

TEST_F(Runtime, Configuration) {
    const std::string name64(64, 'n');
    const std::string longline = "X=" + std::string(1020, 'v'); // one piece of 1022
    const std::string rows[][3] = {
        {"home=/srv/bbs\n", "HOME", "/srv/bbs"},
        {"HOME =/srv\n HOME=/srv\nHOMER=x\n", "HOME", "none"},
        {"HOME=/srv/bbs", "HOME", "/srv/bb"}, // no newline: the last character is lost
        {"X=", "X", ""},
        {"x=1\nX=2\n", "X", "1"},
        {"X=  v= \n", "X", "  v= "},
        {name64 + "=y\n", name64, "y"},
        {name64 + "n=y\n", name64 + "n", "none"}, // 65 characters
        {longline + "Y=2\n", "Y", "2"},           // the next piece counts as a line
        {longline + "\n", "X", longline.substr(2, 1019)},
    };
    for (const auto &[file, option, want] : rows) {
        spew("cfg", file);
        const char *value = getcfg(option.c_str());
        EXPECT_EQ(value != nullptr ? value : "none", want) << option << " in " << file;
    }
    setenv("X", "", 1); // the environment comes first
    EXPECT_STREQ(getoption("X"), "");
    unsetenv("X");
    EXPECT_EQ(getoption("X"), longline.substr(2, 1019));
    spew("cfg", "HOME=/no/such\n");
    spew("root", "HOME=/\n");
    const std::string unopened = "|Unable to open plexhost.cfg!\n|1";
    const std::string ends[][2] = {
        {"/no/such", unopened},
        {".", unopened},
        {"cfg",
         "|Unable to change to BBS home directory: /no/such (No such file or directory)\n|1"},
        {"/dev/null", "0||0"},
        {"root", "1||0"}};
    for (const auto &[config, want] : ends) {
        EXPECT_EQ(told([&, file = config] {
                      setenv("BBSCONFIG", file.c_str(), 1);
                      bbshome();
                      printf("%d", test::exists("dev/null"));
                  }),
                  want);
    }
}

TEST_F(Runtime, Log) {
    const char *const targets[][3] = {
        {nullptr, "", "||0"},    {"NULL", "", "||0"},     {"File", "x1", "||0"},
        {"STDOUT", "", "x1||0"}, {"stderr", "", "|x1|0"}, {"/no/such/file", "", "||0"},
    };
    for (const auto &[target, file, want] : targets) {
        spew("default.log", file[0] != '\0' ? "old text to be emptied" : "");
        EXPECT_EQ(told([name = target] {
                      name != nullptr ? setenv("BBSLOG", name, 1) : 0;
                      bgnlog("default.log");
                      inform("%s%d", "x", 1);
                      _exit(0); // nothing may be left in a buffer
                  }),
                  want);
        EXPECT_EQ(slurp("default.log"), file);
    }
    char data[20];
    for (int i = 0; i < 20; i++) {
        data[i] = static_cast<char>(i < 16 ? i * 17 : 'a' + i);
    }
    const std::string name65(65, 'n');
    const std::string longest(3000, 'l');
    char path[64] = "no/such/";
    const auto o = inchild([&] {
        printf("before, ");
        test::logout();
        printf("and between ");
        errno = 7; // handlers report it afterwards
        inform("%s\n", longest.c_str());
        infbyt("x", data, 20);
        infbyt("none", data, 0);
        fprintf(stderr, "%d", errno);
        getcfg(name65.c_str());
        creattemp(path, 7);
        dskfre("/no/such");
        dskkfre("/no/such");
        clsize("/no/such");
        fputs(path, stderr); // its name holds the process id
    });
    char dump[1024];
    snprintf(dump, sizeof dump,
             "x (20 bytes at %p):\n"
             "%p : 00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF  : ..\"3DUfw........\n"
             "%p : 71 72 73 74 %36s : qrst************\n"
             "none (0 bytes at %p):\n"
             "%p : %48s : ****************\n",
             data, data, data + 16, "", data, data, "");
    const std::string why = "No such file or directory";
    const std::string disk = "dskfre: statvfs/statfs errno=2 (" + why + ")\n";
    EXPECT_EQ(o.err[0], '7');
    EXPECT_EQ(o.out, "before, and between " + longest + "\n" + dump + "getcfg: option " + name65 +
                         " longer than max 64 bytes\ncreattemp: path=[" + o.err.substr(1) +
                         "] attrib=7 fd=-1\ncreattemp: errno = 2 [" + why + "]\n" + disk + disk +
                         "dskfre: statvfs/statfs : " + why + "\n");
}

TEST_F(Runtime, LockHasOneOwner) {
    spew("pid", "garbagefrom a dead process\n");
    const int fd = maklck("pid");
    char id[32];
    snprintf(id, sizeof id, "%6d\nfrom a dead process\n", getpid());
    // Read by another process: closing any descriptor of the file would drop our lock.
    EXPECT_EQ(told([] {
                  printf("%s", slurp("pid").c_str());
                  const int held = maklck("pid");
                  const int closed = dellck(99, "pid");
                  printf("%d %d %d", held, closed, maklck("no/pid"));
              }),
              id + "-1 -1 -1|fcntl: 11 (Resource temporarily unavailable)\n"s +
                  "fcntl: 9 (Bad file descriptor)\nmaklck:open: 2 (No such file or directory)\n|0");
    EXPECT_EQ(dellck(fd, "pid"), 1);
    EXPECT_FALSE(test::exists("pid"));
    EXPECT_LT(fcntl(fd, F_GETFD), 0);
    umask(0);
    close(maklck("new"));
    struct stat st = {};
    stat("new", &st);
    EXPECT_EQ(st.st_mode & 07777, 0700U);
}

TEST_F(Runtime, HandlersStayAndInterrupt) {
    static volatile sig_atomic_t caught;
    EXPECT_EQ(usignal(SIGUSR1, [](int) { caught = caught + 1; }), SIG_DFL);
    test::Program sender([] { // its end would end the reads
        test::eventually([] { return kill(getppid(), SIGUSR1) != 0; });
    });
    for (int i = 0; i < 2; i++) {
        char c;
        EXPECT_EQ(read(sender.out, &c, 1), -1) << "the read was restarted";
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_GE(caught, 2);
    EXPECT_NE(usignal(SIGUSR1, SIG_IGN), SIG_DFL);
    EXPECT_EQ(usignal(SIGKILL, SIG_IGN), SIG_ERR);
    ignore_sigpipe();
    EXPECT_EQ(usignal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(Runtime, Background) {
    const std::pair<void (*)(), const char *> ends[] = {{[] { _exit(7); }, "1||7"},
                                                        {[] { raise(SIGTERM); }, "1||115"},
                                                        {[] { raise(SIGSTOP); }, "1||169"}};
    for (const auto &[end, want] : ends) { // the parent that waits tells how its child ended
        EXPECT_EQ(told([end = end] {
                      daemon_wait();
                      printf("%d", getsid(0) == getpid());
                      fflush(stdout);
                      close(1);
                      close(2);
                      prctl(PR_SET_PDEATHSIG, SIGKILL); // a stopped one must not stay behind
                      end();
                  }),
                  want);
    }
    EXPECT_EQ(told([parent = getpid()] {
                  setenv("BBSDEBUG", "", 1);
                  daemon_wait();
                  printf("%d", getppid() == parent);
              }),
              "1||0");
    EXPECT_EQ(told([] {
                  const pid_t parent = getpid();
                  daemon_init();
                  fprintf(stderr, "%d%d%d%03o", fcntl(0, F_GETFD) < 0, fcntl(1, F_GETFD) < 0,
                          getsid(0) == getpid() && getpid() != parent, umask(0));
              }),
              "|111000|0");
    const uid_t user = getuid() == 0 ? 65534 : getuid(); // root may be somebody's program
    EXPECT_EQ(told([&] {
                  EXPECT_EQ(getuid() == 0 ? setresuid(user, 0, 0) : 0, 0);
                  const uid_t first = geteuid();
                  relpriv();
                  const uid_t released = geteuid();
                  getpriv();
                  printf("%d%d", released == user, geteuid() == first);
              }),
              "11||0");
}

TEST_F(Runtime, OpenFiles) {
    EXPECT_EQ(told([] {
                  test::logout();
                  printf("%d ", maxfil(50));
                  rlimit limit = {};
                  getrlimit(RLIMIT_NOFILE, &limit);
                  const int bad = maxfil(-1);
                  gfinit();
                  printf("%d %d %d", static_cast<int>(limit.rlim_cur), bad, fopavl);
              }),
              "maxfil: Maximum open files = 50\n0 50 -1 50||0");
    fopavl = 1;
    EXPECT_EQ(gfopen("missing", "r"), nullptr);
    EXPECT_EQ(fopavl, 1);
    FILE *f = gfopen("f", "w");
    EXPECT_EQ(fopavl, 0);
    EXPECT_EQ(gfopen("f", "r"), nullptr);
    EXPECT_EQ(gfclose(f) + gfclose(nullptr), -1);
    EXPECT_EQ(fopavl, 1);
}

TEST_F(Runtime, FilesAndDisks) {
    char path[64] = "./";
    const int fd = creattemp(path, 0);
    struct stat st = {};
    ASSERT_EQ(fstat(fd, &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    ASSERT_EQ(ftruncate(fd, 5'000'000'000), 0);
    lseek(fd, 4'500'000'000, SEEK_SET);
    EXPECT_EQ(filelength(fd), 5'000'000'000U);
    EXPECT_EQ(fdtell(fd), 4'500'000'000U);
    EXPECT_TRUE(test::exists(path) && strstr(path, ".tmp") != nullptr) << path;
    close(fd);
    struct statvfs disk = {};
    EXPECT_TRUE(test::eventually([&] { // others write, too
        statvfs(".", &disk);
        return dskfre(".") == uint64_t{disk.f_bavail} * disk.f_frsize &&
               dskkfre(".") == uint64_t{disk.f_bavail >> 10} * disk.f_frsize;
    }));
    EXPECT_EQ(clsize("."), disk.f_bsize);
    EXPECT_EQ(dskfre("/no/such") + dskkfre("/no/such") + clsize("/no/such"), 0U);
    EXPECT_EQ(clfit(5, 4096), 5);
    for (const char *tz : {"UTC0", "XXX5YYY,M4.1.0,M10.5.0"}) { // as it changes, with summer time
        setenv("TZ", tz, 1);
        for (const uint32_t day : {0x2065U, 0x20E5U, 0x2065U}) { // 1996: 5 March, 5 July
            ASSERT_EQ(unxstd("cfg", 0x70E4, static_cast<uint16_t>(day)), 1); // 14:07:08
            const int cfg = open("cfg", O_RDONLY);
            EXPECT_EQ(unxgtd(cfg), day << 16 | 0x70E4) << tz;
            close(cfg);
        }
    }
    unsetenv("TZ");
    EXPECT_EQ(unxgtd(-1) + static_cast<unsigned>(unxstd("missing", 0, 0x2065)), 0U);
}

TEST_F(Plumbing, TheEndpointIsMadeAfreshForEverybody) {
    umask(077);
    spew("e", "a file left behind");
    for (int i = 0; i < 2; i++) { // the second time a stale one is in the way
        std::vector<int> fds = {lsnsoc("e")};
        struct stat st = {};
        ASSERT_EQ(lstat("e", &st), 0);
        EXPECT_EQ(st.st_mode, S_IFSOCK | 0666U);
        EXPECT_EQ(umask(077), 077U);
        // Six openers get a stream at once and wait for nobody; accepted in their order.
        for (const char *byte : {"A", "B", "C", "D", "E", "F"}) {
            fds.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
            const sockaddr_un addr = {AF_UNIX, "e"};
            EXPECT_EQ(connect(fds.back(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr),
                      0);
            EXPECT_EQ(write(fds.back(), byte, 1), 1);
        }
        for (const char *byte : {"A", "B"}) {
            fds.push_back(acceptfd(fds[0]));
            EXPECT_EQ(test::take(fds.back(), 1), byte);
        }
        for (const int f : fds) {
            close(f);
        }
    }
}

void sendtwo(int to, int fd) {
    const int fds[2] = {fd, fd};
    iovec data = {const_cast<char *>(""), 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
    msghdr message = {nullptr, 0, &data, 1, control, sizeof control, 0};
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof fds), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), fds, sizeof fds);
    EXPECT_EQ(sendmsg(to, &message, 0), 1);
}

// Each letter puts something into the stream: d a descriptor, D two in one message, x a byte, e the
// end, r the end with bytes of ours unread; then what recv_fd makes of it, and what stays.
TEST_F(Plumbing, DescriptorsPass) {
    const struct {
        const char *sent;
        std::vector<int> results; // 0: a descriptor
        const char *left;
    } rows[] = {{"dd", {0, 0}, ""},        {"xd", {EBADMSG}, "x"},    {"xxd", {EBADMSG}, "xx"},
                {"x", {EBADMSG}, "x"},     {"dx", {0, EBADMSG}, "x"}, {"de", {0, ENXIO}, ""},
                {"e", {ENXIO, ENXIO}, ""}, {"r", {ENXIO}, ""},        {"Dd", {0, 0}, ""}};
    for (const auto &r : rows) {
        const int unused = test::nextfd();
        int s[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, s), 0);
        for (const char what : std::string(r.sent)) {
            if (what == 'd') {
                EXPECT_EQ(send_fd(s[0], s[1]), 0);
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
            const int fd = recv_fd(s[1]);
            EXPECT_EQ(fd < 0 ? errno : 0, result) << r.sent;
            close(fd);
        }
        EXPECT_EQ(test::take(s[1], strlen(r.left)), r.left) << r.sent;
        close(s[0]);
        close(s[1]);
        EXPECT_EQ(test::nextfd(), unused) << r.sent;
    }
}

TEST_F(Plumbing, ChildLeadsASessionOnItsTerminal) {
    termios settings;
    memset(&settings, 0x55, sizeof settings);
    set_termios(&settings);
    EXPECT_EQ(settings.c_cc[VSWTC] + settings.c_line, 0xAA); // what the template leaves alone
    winsize size = {};
    set_winsize(&size);
    for (const bool set : {true, false}) { // a size alone sets nothing
        int fdm = -1;
        char name[PTYNAME];
        const int pid = pty_fork(&fdm, name, set ? &settings : nullptr, &size);
        if (pid == 0) {
            winsize w = {};
            ioctl(0, TIOCGWINSZ, &w);
            printf("%d%d%d %d %d %d", isatty(0), isatty(1), isatty(2),
                   getsid(0) == getpid() && tcgetpgrp(0) == getpid(), w.ws_row, w.ws_col);
            fflush(stdout);
            _exit(0);
        }
        EXPECT_EQ(test::drain(fdm), set ? "111 1 24 80" : "111 1 0 0");
        EXPECT_EQ(strncmp(name, "/dev/pts/", 9), 0) << name;
        close(fdm);
        waitpid(pid, nullptr, 0);
    }
}

void mostfiles(int n) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = static_cast<rlim_t>(n);
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(Plumbing, Failures) {
    EXPECT_EQ(told([] {
                  test::logout("stderr");
                  printf("%d ", lsnsoc("no/such/e"));
                  printf("%03o ", umask(022)); // deliberately left at 0
                  printf("%d ", lsnsoc(std::string(200, 'x').c_str()));
                  printf("%d ", fdserver("missing"));
                  printf("%d ", fdserver("cfg") >= 0);
                  close(lsnsoc("closed"));
                  printf("%d ", fdserver("closed"));
                  printf("%d", acceptfd(99));
              }),
              "-1 000 -1 -1 1 -1 -1|creat: No such file or directory\ncreat: File name too long\n"
              "fdserver:open: No such file or directoryfdserver:open: Connection refused"
              "I_RECVFD: Bad file descriptor (9)\n|0");
    EXPECT_EQ(told([] {
                  test::logout("stderr");
                  int s[2];
                  socketpair(AF_UNIX, SOCK_STREAM, 0, s);
                  printf("%d ", send_fd(s[0], -1));
                  send_fd(s[0], 0);
                  mostfiles(s[1] + 1);
                  printf("%d ", recv_fd(s[1])); // no descriptor left to receive it
                  close(s[1]);
                  printf("%d", send_fd(s[0], 0)); // and no SIGPIPE
              }),
              "-1 -1 -1|I_SENDFD: Bad file descriptor (9)\nI_RECVFD: Too many open files (24)\n"
              "I_SENDFD: Broken pipe (32)\n|0");
    EXPECT_EQ(told([] {
                  const int fdm = dup(0);
                  printf("%d ", ptys_open(fdm, "/no/such"));
                  printf("%d ", fcntl(fdm, F_GETFD)); // closed on the way
                  mostfiles(3);
                  char name[PTYNAME] = "";
                  int none = -1;
                  const int pid = pty_fork(&none, name, nullptr, nullptr);
                  printf("%d %d", pid, none);
              }),
              "-5 -1 -1 -1|ptym_open:open: Too many open files\n"
              "pty_fork:ptym_open: Too many open files\n|0");
}

// The choice of a console, and how opening it ends here: only the null console needs nothing.
TEST_F(Plumbing, TheSwitchChoosesTheMethod) {
    const char *const none = "FATAL ERROR: screen/keyboard method not specified!\n";
    const char *const nodisplay = "2|Display open failed. Exiting.\n|1";
    const struct {
        const char *bbsdisp;
        int type;
        const char *name, *told;
    } rows[] = {{"xwindow", 8, "vosterd", "8||42"}, {"NULLCON", 0, nullptr, "8||42"},
                {nullptr, 0, "PlexHost", "1||42"},  {"XWindow", 0, "plexhost", "1||42"},
                {"xwindow", 0, nullptr, nodisplay}, {nullptr, 0, "other", nodisplay},
                {"unixcon", 0, "plexhost", "256|"}, {"bogus", 0, "plexhost", none},
                {nullptr, 0x40, "x", none}};
    for (const auto &r : rows) {
        const std::string end = told([&] {
            unsetenv("DISPLAY");
            unsetenv("BBSDISP");
            r.bbsdisp != nullptr ? setenv("BBSDISP", r.bbsdisp, 1) : 0;
            test::logout();
            atexit([] { printf("%d", dsptyp); });
            opntrm(r.type, r.name);
            if (dsptyp == DSP_NULL) {
                updtrm(1);
                trmbel(1);
                EXPECT_EQ(plex::getch() + getchc() + kbhit(), 0);
                clstrm();
            }
            exit(xapnam == r.name && lascan() == 1 ? 42 : 43);
        });
        EXPECT_NE(end.find(r.told), std::string::npos) << &r - rows << ": " << end;
        EXPECT_TRUE(end.ends_with("||42") || end.ends_with("|1")) << end;
    }
}

} // namespace
