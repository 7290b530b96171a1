// What programs stand on: configuration, log, processes, files, and how their calls fail; the
// choice of a console. The lock and what else a daemon shows: tests/daemon.py.

#include "libunix/console/trm.h"
#include "libunix/daemon/endings.h"
#include "libunix/daemon/state.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/pty.h"
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
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

using namespace plex;
using namespace std::string_literals;
using test::say;
using test::slurp;
using test::spew;
using test::told;

// A home of its own with an empty configuration.
struct Runtime : testing::Test {
    Runtime() { setenv("BBSCONFIG", "cfg", 1), spew("cfg", ""); }
    test::Home home;
};

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
    EXPECT_EQ(told([] {
                  setenv("BBSCONFIG", "/dev/null", 1);
                  bbshome(); // nowhere to go
                  setenv("BBSCONFIG", ".", 1);
                  bbshome();
              }),
              "|Unable to open plexhost.cfg!\n|1");
}

TEST_F(Runtime, Log) {
    spew("default.log", "old text to be emptied");
    EXPECT_EQ(told([] {
                  for (const char *target :
                       {"NULL", "STDOUT", "File", "/no/such/file", "stderr", "/dev/full"}) {
                      setenv("BBSLOG", target, 1);
                      bgnlog("default.log");
                      errno = 7; // handlers report it afterwards
                      inform("%s%d ", target, 1);
                      printf("%s%d ", target, errno);
                  }
                  _exit(0); // nothing may be left in a buffer
              }),
              "NULL7 STDOUT1 STDOUT7 File7 /no/such/file7 stderr7 /dev/full7 |stderr1 |0");
    EXPECT_EQ(slurp("default.log"), "File1 ");
    const char data[] = "\0\x11\"3DUfw\x88\x99\xAA\xBB\xCC\xDD\xEE\xFFqrs";
    const std::string name65(65, 'n');
    const std::string longest(3000, 'l');
    char path[64] = "no/such/";
    const int log = test::nextfd();
    test::logout("log");
    inform("%s\n", longest.c_str());
    infbyt("x", data, 20);
    infbyt("none", data, 0);
    getcfg(name65.c_str());
    creattemp(path, 7);
    EXPECT_EQ(dskfre("/no/such") + dskkfre("/no/such") + clsize("/no/such"), 0U);
    close(log); // or it stays open as long as the program runs
    char dump[1024];
    snprintf(dump, sizeof dump,
             "x (20 bytes at %p):\n"
             "%p : 00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF  : ..\"3DUfw........\n"
             "%p : 71 72 73 00 %36s : qrs.************\n"
             "none (0 bytes at %p):\n"
             "%p : %48s : ****************\n",
             data, data, data + 16, "", data, data, "");
    const std::string why = "No such file or directory";
    const std::string disk = "dskfre: statvfs/statfs errno=2 (" + why + ")\n";
    EXPECT_EQ(slurp("log"), longest + "\n" + dump + "getcfg: option " + name65 +
                                " longer than max 64 bytes\ncreattemp: path=[" + path +
                                "] attrib=7 fd=-1\ncreattemp: errno = 2 [" + why + "]\n" + disk +
                                disk + "dskfre: statvfs/statfs : " + why + "\n");
}

TEST_F(Runtime, HandlersStayAndInterrupt) {
    ignore_sigpipe();
    EXPECT_EQ(usignal(SIGPIPE, process_signal), SIG_IGN);
    struct sigaction act = {};
    sigaction(SIGPIPE, nullptr, &act);
    EXPECT_EQ(act.sa_flags & (SA_RESTART | SA_RESETHAND), 0);
    EXPECT_EQ(usignal(SIGPIPE, SIG_DFL), process_signal);
    EXPECT_EQ(usignal(SIGKILL, SIG_IGN), SIG_ERR);
}

// The child of a parent that waits, until it ends; the parent then tells how.
void background() {
    daemon_wait();
    printf("%d", getsid(0) == getpid());
    fflush(stdout);
    close(1);
    close(2);
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a stopped one must not stay behind
}

void unattended() {
    const pid_t parent = getpid();
    daemon_init();
    fprintf(stderr, "%d%d%d%03o", fcntl(0, F_GETFD) < 0, fcntl(1, F_GETFD) < 0,
            getsid(0) == getpid() && getpid() != parent, umask(0));
}

void mostfiles() {
    test::logout();
    rlimit limit = {};
    say({maxfil(50), getrlimit(RLIMIT_NOFILE, &limit), maxfil(-1)});
    gfinit();
    say({static_cast<int>(limit.rlim_cur), fopavl});
}

TEST_F(Runtime, Services) {
    const std::tuple<const char *, void (*)(), const char *> rows[] = {
        {"", [] { background(), _exit(7); }, "1||7"},
        {"", [] { background(), raise(SIGTERM); }, "1||115"},
        {"", [] { background(), raise(SIGSTOP); }, "1||169"},
        {"", [] { setenv("BBSDEBUG", "", 1), background(); }, "0||0"}, // no child, no session
        {"fork:1:11", daemon_wait, "||255"},
        {"", unattended, "|111000|0"},
        {"fork:1:11", daemon_init, "|Fork failed: Resource temporarily unavailable\n|1"},
        {"", mostfiles, "maxfil: Maximum open files = 50\n0 0 -1 50 50 ||0"},
        {"getrlimit:1:1 getrlimit:2:1 setrlimit:1:1",
         [] {
             gfinit(), say({fopavl, maxfil(5), maxfil(5)});
         },
         "60 -1 -1 ||0"},
        {"close_range:1:38",
         [] { closeabove(dup2(2, 99) - 1), _exit(fcntl(99, F_GETFD) == -1 ? 0 : 1); }, "||0"},
        {"", [] { lockfd = maklck(LOCKNAME), usignal(SIGPIPE, process_signal), raise(SIGPIPE); },
         "|SIGPIPE|0"},
    };
    for (const auto &[faults, body, want] : rows) {
        EXPECT_EQ(told([&, fault = faults, run = body] { test::fault(fault), run(); }), want);
    }
    EXPECT_NE(access(LOCKNAME, F_OK), 0);
}

TEST_F(Runtime, FilesAndDisks) {
    fopavl = 1;
    EXPECT_TRUE(gfopen("missing", "r") == nullptr && fopavl == 1);
    FILE *f = gfopen("f", "w");
    EXPECT_TRUE(gfopen("f", "r") == nullptr && fopavl == 0);
    EXPECT_EQ(gfclose(f) + gfclose(nullptr), -1);
    EXPECT_EQ(fopavl, 1);
    char path[64] = "./";
    const int fd = creattemp(path, 0);
    struct stat st = {};
    ASSERT_EQ(fstat(fd, &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    ASSERT_EQ(ftruncate(fd, 5'000'000'000), 0);
    lseek(fd, 4'500'000'000, SEEK_SET);
    EXPECT_EQ(filelength(fd), 5'000'000'000U);
    EXPECT_EQ(fdtell(fd), 4'500'000'000U);
    EXPECT_TRUE(access(path, F_OK) == 0 && strstr(path, ".tmp") != nullptr) << path;
    close(fd);
    struct statvfs disk = {};
    EXPECT_TRUE(test::eventually([&] { // others write, too
        statvfs(".", &disk);
        return dskfre(".") == uint64_t{disk.f_bavail} * disk.f_frsize &&
               dskkfre(".") == uint64_t{disk.f_bavail >> 10} * disk.f_frsize;
    }));
    EXPECT_EQ(clsize("."), disk.f_bsize);
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

// What a host and the daemon say when calls fail; the rest of it tests/daemon.py has.
TEST_F(Runtime, Plumbing) {
    EXPECT_EQ(
        told([] {
            test::logout("stderr");
            say({lsnsoc("no/such/e"), umask(022) == 0}); // deliberately left so
            test::fault("socket:1:24");
            say({lsnsoc("e"), umask(022) == 022});
            say({lsnsoc(std::string(108, 'x').c_str()), umask(022) == 0, fdserver("missing")});
            const int fdm = dup(2); // closed on the way
            close(0);               // the lowest is a descriptor as any other
            say({close(lsnsoc("closed")), umask(022) == 022, fdserver("closed")});
            const int lock = maklck("lock");
            say({dellck(lock, "lock"), fcntl(lock, F_GETFD)});
            say({fdserver("cfg") >= 0, ptys_open(fdm, "/no/such"), fcntl(fdm, F_GETFD)});
        }),
        "-1 1 -1 1 -1 1 -1 0 1 -1 1 -1 1 -5 -1 |creat: No such file or directory\n"
        "pipe: Too many open files\ncreat: File name too long\n"
        "fdserver:open: No such file or directoryfdserver:open: Connection refused|0");
}

// The choice of a console, and how opening it ends here: only the null console needs nothing.
TEST_F(Runtime, TheSwitchChoosesTheMethod) {
    const char *const none = "FATAL ERROR: screen/keyboard method not specified!\n";
    const char *const nodisplay = "2 |Display open failed. Exiting.\n|1";
    const std::tuple<const char *, int, const char *, const char *> rows[] = {
        {"xwindow", 8, "vosterd", "8 ||42"},
        {"NULLCON", 0, nullptr, "8 ||42"},
        {"", 0, "PlexHost", "1 ||42"},
        {"XWindow", 0, "plexhost", "1 ||42"},
        {"xwindow", 0, nullptr, nodisplay},
        {"", 0, "other", nodisplay},
        {"unixcon", 0, "plexhost", "256 |"},
        {"bogus", 0, "plexhost", none},
        {"", 0x40, "x", none}};
    for (const auto &row : rows) {
        const std::string end = told([&] {
            const auto &[method, type, name, want] = row;
            unsetenv("DISPLAY");
            *method != '\0' ? setenv("BBSDISP", method, 1) : unsetenv("BBSDISP");
            test::logout();
            atexit([] { say({dsptyp}); });
            opntrm(type, name);
            if (dsptyp == DSP_NULL) {
                updtrm(1), trmbel(1), clstrm();
                EXPECT_EQ(plex::getch() + getchc() + kbhit(), 0);
            }
            exit(xapnam == name && lascan() == 1 ? 42 : 43);
        });
        EXPECT_NE(end.find(std::get<3>(row)), std::string::npos) << &row - rows << ": " << end;
        EXPECT_TRUE(end.ends_with("||42") || end.ends_with("|1")) << end;
    }
}

} // namespace
