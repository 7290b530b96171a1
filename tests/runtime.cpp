// Configuration, log, lock, process and file services.

#include "libunix/runtime/bgnlog.h"
#include "libunix/runtime/config.h"
#include "libunix/runtime/files.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/log.h"
#include "libunix/runtime/process.h"
#include "tests/support.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using test::Home;
using test::inchild;
using test::Outcome;
using test::slurp;
using test::spew;

// A home with a configuration file of the given text.
struct Configured : Home {
    explicit Configured(std::string_view text = "") {
        spew("cfg", text);
        setenv("BBSCONFIG", (path + "/cfg").c_str(), 1);
    }
    ~Configured() {
        unsetenv("BBSCONFIG");
        unsetenv("BBSLOG");
    }
};

TEST(Config, Lookup) {
    const std::string name64(64, 'n');
    const std::string longline = "X=" + std::string(1020, 'v'); // one piece of 1022
    struct {
        std::string file, option;
        const char *value;
    } const rows[] = {
        {"home=/srv/bbs\n", "HOME", "/srv/bbs"},
        {"HOME =/srv\n HOME=/srv\nHOMER=x\n", "HOME", nullptr},
        {"HOME=/srv/bbs", "HOME", "/srv/bb"}, // no newline: the last character is lost
        {"X=", "X", ""},
        {"x=1\nX=2\n", "X", "1"},
        {"X=  v= \n", "X", "  v= "},
        {name64 + "=y\n", name64.c_str(), "y"},
        {name64 + "n=y\n", name64 + "n", nullptr}, // 65 characters
        {longline + "Y=2\n", "Y", "2"},            // the next piece counts as a line
    };
    for (const auto &r : rows) {
        const Configured home(r.file);
        const char *value = plex::getcfg(r.option.c_str());
        EXPECT_STREQ(value, r.value) << r.option << " in " << r.file;
    }
    const Configured home(longline + "\n");
    EXPECT_EQ(plex::getcfg("X"), std::string(1019, 'v')); // a piece loses its last character too
}

TEST(Config, EnvironmentComesFirst) {
    const Configured home("X=file\n");
    setenv("X", "", 1);
    EXPECT_STREQ(plex::getoption("X"), "");
    unsetenv("X");
    EXPECT_STREQ(plex::getoption("X"), "file");
    EXPECT_EQ(plex::getoption("Y"), nullptr);
}

TEST(Config, FatalFailures) {
    const Configured home("HOME=/no/such\n");
    Outcome o = inchild([] { plex::bbshome(); });
    EXPECT_EQ(o.code(), 1);
    EXPECT_EQ(o.err,
              "Unable to change to BBS home directory: /no/such (No such file or directory)\n");
    for (const char *path : {"/no/such", "."}) {
        setenv("BBSCONFIG", path, 1);
        o = inchild([] { plex::getoption("X"); });
        EXPECT_EQ(o.code(), 1) << path;
        EXPECT_EQ(o.err, "Unable to open plexhost.cfg!\n") << path;
    }
    const Configured other("HOME=" + home.path + "\n");
    EXPECT_EQ(inchild([&] {
                  plex::bbshome();
                  _exit(test::exists("cfg") && slurp("cfg") == "HOME=/no/such\n" ? 0 : 1);
              }).code(),
              0);
}

TEST(Log, Targets) {
    struct {
        const char *bbslog, *file, *out, *err;
    } const rows[] = {
        {nullptr, "", "", ""},    {"NULL", "", "", ""},     {"File", "x1", "", ""},
        {"STDOUT", "", "x1", ""}, {"stderr", "", "", "x1"}, {"/no/such/file", "", "", ""},
    };
    for (const auto &r : rows) {
        const Configured home;
        if (r.bbslog != nullptr) {
            setenv("BBSLOG", r.bbslog, 1);
        }
        spew("default.log", r.file[0] != '\0' ? "old text to be emptied" : "");
        const Outcome o = inchild([] {
            plex::bgnlog("default.log");
            plex::inform("%s%d", "x", 1);
            _exit(0); // nothing may be left in a buffer
        });
        SCOPED_TRACE(r.bbslog != nullptr ? r.bbslog : "unset");
        EXPECT_EQ(slurp("default.log"), r.file);
        EXPECT_EQ(o.out, r.out);
        EXPECT_EQ(o.err, r.err);
    }
}

TEST(Log, DumpToTheByte) {
    const Configured home;
    setenv("BBSLOG", "other.log", 1);
    char data[20];
    for (int i = 0; i < 20; i++) {
        data[i] = static_cast<char>(i < 16 ? i * 17 : 'a' + i);
    }
    inchild([&] {
        plex::bgnlog("default.log");
        plex::infbyt("x", data, 20);
        plex::infbyt("none", data, 0);
    });
    char want[1024];
    snprintf(want, sizeof want,
             "x (20 bytes at %p):\n"
             "%p : 00 11 22 33 44 55 66 77 88 99 AA BB CC DD EE FF  : ..\"3DUfw........\n"
             "%p : 71 72 73 74 %36s : qrst************\n"
             "none (0 bytes at %p):\n"
             "%p : %48s : ****************\n",
             data, data, data + 16, "", data, data, "");
    EXPECT_EQ(slurp("other.log"), want);
    EXPECT_FALSE(test::exists("default.log"));
}

TEST(Log, TellsOfFailures) {
    const Home home;
    const std::string name65(65, 'n');
    const Outcome o = inchild([&] {
        setenv("BBSCONFIG", "/dev/null", 1);
        setenv("BBSLOG", "stdout", 1);
        printf("before, ");
        plex::bgnlog("");
        printf("and between ");
        plex::getcfg(name65.c_str());
        char path[64] = "no/such/";
        plex::creattemp(path, 7);
        fputs(path, stderr); // its name holds the process id
        plex::dskfre("/no/such");
        plex::dskkfre("/no/such");
        plex::clsize("/no/such");
    });
    const std::string why = "No such file or directory";
    const std::string disk = "dskfre: statvfs/statfs errno=2 (" + why + ")\n";
    EXPECT_EQ(o.out, "before, and between getcfg: option " + name65 +
                         " longer than max 64 bytes\ncreattemp: path=[" + o.err +
                         "] attrib=7 fd=-1\ncreattemp: errno = 2 [" + why + "]\n" + disk + disk +
                         "dskfre: statvfs/statfs : " + why + "\n");
}

TEST(Lock, OneOwner) {
    const Home home;
    spew("pid", "garbagefrom a dead process\n");
    const int fd = plex::maklck("pid");
    ASSERT_GE(fd, 0);
    char id[32];
    snprintf(id, sizeof id, "%6d\nfrom a dead process\n", getpid());
    // Read by another process: closing any descriptor of the file would drop our lock.
    const Outcome o = inchild([] {
        printf("%s", slurp("pid").c_str());
        const int held = plex::maklck("pid");
        const int closed = plex::dellck(99, "pid");
        printf("%d %d %d", held, closed, plex::maklck("no/pid"));
    });
    EXPECT_EQ(o.out, id + std::string("-1 -1 -1"));
    EXPECT_EQ(o.err, "fcntl: 11 (Resource temporarily unavailable)\n"
                     "fcntl: 9 (Bad file descriptor)\n"
                     "maklck:open: 2 (No such file or directory)\n");
    EXPECT_EQ(plex::dellck(fd, "pid"), 1);
    EXPECT_FALSE(test::exists("pid"));
    umask(0);
    close(plex::maklck("new"));
    struct stat st = {};
    stat("new", &st);
    EXPECT_EQ(st.st_mode & 07777, 0700U);
}

volatile sig_atomic_t caught;

TEST(Process, HandlersStayAndInterrupt) {
    EXPECT_EQ(plex::usignal(SIGUSR1, [](int) { caught = caught + 1; }), SIG_DFL);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    const pid_t sender = fork();
    if (sender == 0) { // signals until it is killed; its end would end the reads below
        test::eventually([] { return kill(getppid(), SIGUSR1) != 0; });
        _exit(0);
    }
    close(p[1]);
    for (int i = 0; i < 2; i++) {
        char c;
        errno = 0;
        EXPECT_EQ(read(p[0], &c, 1), -1) << "the read was restarted";
        EXPECT_EQ(errno, EINTR);
    }
    kill(sender, SIGKILL);
    while (waitpid(sender, nullptr, 0) < 0 && errno == EINTR) {
    }
    close(p[0]);
    EXPECT_GE(caught, 2);
    EXPECT_NE(plex::usignal(SIGUSR1, SIG_DFL), SIG_DFL);
    EXPECT_EQ(plex::usignal(SIGKILL, SIG_IGN), SIG_ERR);
    plex::ignore_sigpipe();
    EXPECT_EQ(plex::usignal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST(Process, WaitingParentTellsHowItsChildEnded) {
    const Configured home;
    struct {
        void (*end)();
        int code;
    } const rows[] = {
        {[] { _exit(7); }, 7},
        {[] { raise(SIGTERM); }, 100 + SIGTERM},
        {[] { raise(SIGSTOP); }, 150 + SIGSTOP},
    };
    for (const auto &r : rows) {
        const Outcome o = inchild([&] {
            const rlimit nocore = {0, 0};
            setrlimit(RLIMIT_CORE, &nocore);
            plex::daemon_wait();
            printf("%d", getsid(0) == getpid());
            fflush(stdout);
            close(1);
            close(2);
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a stopped one must not stay behind
            r.end();
        });
        EXPECT_EQ(o.code(), r.code);
        EXPECT_EQ(o.out, "1");
    }
    setenv("BBSDEBUG", "", 1);
    EXPECT_EQ(inchild([parent = getpid()] {
                  plex::daemon_wait();
                  _exit(getppid() == parent ? 3 : 4);
              }).code(),
              3);
    unsetenv("BBSDEBUG");
}

TEST(Process, Detaching) {
    const Outcome o = inchild([] {
        const pid_t parent = getpid();
        plex::daemon_init();
        fprintf(stderr, "%d%d%d%03o", fcntl(0, F_GETFD) < 0, fcntl(1, F_GETFD) < 0,
                getsid(0) == getpid() && getpid() != parent, umask(0));
    });
    EXPECT_EQ(o.code(), 0);
    EXPECT_EQ(o.err, "111000");
}

TEST(Process, OpenFileLimit) {
    const Configured home;
    setenv("BBSLOG", "log", 1);
    const Outcome o = inchild([] {
        plex::bgnlog("");
        printf("%d ", plex::maxfil(50));
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        const int bad = plex::maxfil(-1);
        plex::gfinit();
        printf("%d %d %d", static_cast<int>(limit.rlim_cur), bad, plex::fopavl);
    });
    EXPECT_EQ(o.out, "0 50 -1 50");
    EXPECT_EQ(slurp("log"), "maxfil: Maximum open files = 50\n");
}

TEST(Files, CountedStreams) {
    const Home home;
    plex::fopavl = 1;
    EXPECT_EQ(plex::gfopen("missing", "r"), nullptr);
    EXPECT_EQ(plex::fopavl, 1);
    FILE *f = plex::gfopen("f", "w");
    EXPECT_EQ(plex::fopavl, 0);
    EXPECT_EQ(plex::gfopen("f", "r"), nullptr);
    EXPECT_EQ(plex::gfclose(f), 0);
    EXPECT_EQ(plex::gfclose(nullptr), -1);
    EXPECT_EQ(plex::fopavl, 1);
}

TEST(Files, TemporaryFile) {
    const Home home;
    char path[64] = "./";
    const int fd = plex::creattemp(path, 0);
    struct stat st = {};
    ASSERT_EQ(fstat(fd, &st), 0) << path;
    EXPECT_EQ(st.st_mode & 07777, 0600U);
    ASSERT_EQ(ftruncate(fd, 5'000'000'000), 0);
    lseek(fd, 4'500'000'000, SEEK_SET);
    EXPECT_EQ(plex::filelength(fd), 5'000'000'000U);
    EXPECT_EQ(plex::fdtell(fd), 4'500'000'000U);
    EXPECT_TRUE(test::exists(path) && strstr(path, ".tmp") != nullptr) << path;
    close(fd);
    char missing[64] = "no/such/";
    EXPECT_EQ(plex::creattemp(missing, 0), -1);
}

TEST(Files, DiskSpace) {
    EXPECT_GT(plex::clsize("/tmp"), 0U);
    EXPECT_GE(plex::dskfre("/tmp"), plex::dskkfre("/tmp"));
    EXPECT_EQ(plex::dskfre("/no/such") + plex::dskkfre("/no/such") + plex::clsize("/no/such"), 0U);
    EXPECT_EQ(plex::clfit(5, 4096), 5);
}

TEST(Files, PackedTimes) {
    const Home home;
    spew("f", "");
    for (const char *tz : {"UTC0", "XXX5YYY,M4.1.0,M10.5.0"}) { // as it changes, with summer time
        setenv("TZ", tz, 1);
        for (const uint32_t day : {0x2065U, 0x20E5U, 0x2065U}) { // 1996: 5 March, 5 July
            ASSERT_EQ(plex::unxstd("f", 0x70E4, static_cast<uint16_t>(day)), 1); // 14:07:08
            const int fd = open("f", O_RDONLY);
            EXPECT_EQ(plex::unxgtd(fd), day << 16 | 0x70E4) << tz;
            close(fd);
        }
    }
    unsetenv("TZ");
    EXPECT_EQ(plex::unxgtd(-1), 0U);
    EXPECT_EQ(plex::unxstd("missing", 0, 0x2065), 0);
}

} // namespace
