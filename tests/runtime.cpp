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
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using test::inchild;
using test::Outcome;
using test::slurp;
using test::spew;

// A home of its own with an empty configuration.
struct Runtime : testing::Test {
    Runtime() { setenv("BBSCONFIG", "cfg", 1), spew("cfg", ""); }
    test::Home home;
};

TEST_F(Runtime, Configuration) {
    const std::string name64(64, 'n');
    const std::string longline = "X=" + std::string(1020, 'v'); // one piece of 1022
    struct {
        std::string file, option, value;
    } const rows[] = {
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
    for (const auto &r : rows) {
        spew("cfg", r.file);
        const char *value = plex::getcfg(r.option.c_str());
        EXPECT_EQ(value != nullptr ? value : "none", r.value) << r.option << " in " << r.file;
    }
    setenv("X", "", 1); // the environment comes first
    EXPECT_STREQ(plex::getoption("X"), "");
    unsetenv("X");
    EXPECT_EQ(plex::getoption("X"), longline.substr(2, 1019));
    spew("cfg", "HOME=/no/such\n");
    struct {
        const char *config, *said;
        int code;
    } const ends[] = {
        {"/no/such", "Unable to open plexhost.cfg!\n", 1},
        {".", "Unable to open plexhost.cfg!\n", 1},
        {"cfg", "Unable to change to BBS home directory: /no/such (No such file or directory)\n",
         1},
        {"/dev/null", "", 0},
    };
    for (const auto &e : ends) {
        const Outcome o = inchild([&] {
            setenv("BBSCONFIG", e.config, 1);
            plex::bbshome();
        });
        EXPECT_EQ(o.err, e.said);
        EXPECT_EQ(o.code(), e.code);
    }
    spew("cfg", "HOME=/\n");
    EXPECT_EQ(inchild([] { plex::bbshome(), _exit(test::exists("dev/null") ? 7 : 8); }).code(), 7);
}

TEST_F(Runtime, LogTargets) {
    struct {
        const char *bbslog, *file, *out, *err;
    } const rows[] = {
        {nullptr, "", "", ""},    {"NULL", "", "", ""},     {"File", "x1", "", ""},
        {"STDOUT", "", "x1", ""}, {"stderr", "", "", "x1"}, {"/no/such/file", "", "", ""},
    };
    for (const auto &r : rows) {
        spew("default.log", r.file[0] != '\0' ? "old text to be emptied" : "");
        const Outcome o = inchild([&] {
            r.bbslog != nullptr ? setenv("BBSLOG", r.bbslog, 1) : 0;
            plex::bgnlog("default.log");
            plex::inform("%s%d", "x", 1);
            _exit(0); // nothing may be left in a buffer
        });
        EXPECT_EQ(slurp("default.log") + "," + o.out + "," + o.err,
                  r.file + std::string(",") + r.out + "," + r.err);
    }
}

TEST_F(Runtime, LogItems) {
    char data[20];
    for (int i = 0; i < 20; i++) {
        data[i] = static_cast<char>(i < 16 ? i * 17 : 'a' + i);
    }
    const std::string name65(65, 'n');
    const std::string longest(3000, 'l');
    char path[64] = "no/such/";
    const Outcome o = inchild([&] {
        setenv("BBSLOG", "stdout", 1);
        printf("before, ");
        plex::bgnlog("");
        printf("and between ");
        errno = 7; // handlers report it afterwards
        plex::inform("%s\n", longest.c_str());
        plex::infbyt("x", data, 20);
        plex::infbyt("none", data, 0);
        fprintf(stderr, "%d", errno);
        plex::getcfg(name65.c_str());
        plex::creattemp(path, 7);
        plex::dskfre("/no/such");
        plex::dskkfre("/no/such");
        plex::clsize("/no/such");
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
    EXPECT_LT(fcntl(fd, F_GETFD), 0);
    umask(0);
    close(plex::maklck("new"));
    struct stat st = {};
    stat("new", &st);
    EXPECT_EQ(st.st_mode & 07777, 0700U);
}

TEST_F(Runtime, HandlersStayAndInterrupt) {
    static volatile sig_atomic_t caught;
    EXPECT_EQ(plex::usignal(SIGUSR1, [](int) { caught = caught + 1; }), SIG_DFL);
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    test::Program sender([] { // its end would end the reads below
        test::eventually([] { return kill(getppid(), SIGUSR1) != 0; });
    });
    close(p[1]);
    for (int i = 0; i < 2; i++) {
        char c;
        EXPECT_EQ(read(p[0], &c, 1), -1) << "the read was restarted";
        EXPECT_EQ(errno, EINTR);
    }
    close(p[0]);
    EXPECT_GE(caught, 2);
    EXPECT_NE(plex::usignal(SIGUSR1, SIG_IGN), SIG_DFL);
    EXPECT_EQ(plex::usignal(SIGKILL, SIG_IGN), SIG_ERR);
    plex::ignore_sigpipe();
    EXPECT_EQ(plex::usignal(SIGPIPE, SIG_DFL), SIG_IGN);
}

TEST_F(Runtime, Background) {
    struct {
        void (*end)();
        int code;
    } const rows[] = {{[] { _exit(7); }, 7},
                      {[] { raise(SIGTERM); }, 100 + SIGTERM},
                      {[] { raise(SIGSTOP); }, 150 + SIGSTOP}};
    for (const auto &r : rows) { // the parent that waits tells how its child ended
        const Outcome o = inchild([&] {
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
    const auto stays = [parent = getpid()] {
        setenv("BBSDEBUG", "", 1);
        plex::daemon_wait();
        _exit(getppid() == parent ? 3 : 4);
    };
    EXPECT_EQ(inchild(stays).code(), 3);
    const Outcome o = inchild([] {
        const pid_t parent = getpid();
        plex::daemon_init();
        fprintf(stderr, "%d%d%d%03o", fcntl(0, F_GETFD) < 0, fcntl(1, F_GETFD) < 0,
                getsid(0) == getpid() && getpid() != parent, umask(0));
    });
    EXPECT_EQ(o.err, "111000");
    EXPECT_EQ(o.code(), 0);
}

TEST_F(Runtime, Privilege) {
    const uid_t user = getuid() == 0 ? 65534 : getuid(); // root may be somebody's program
    const Outcome o = inchild([&] {
        getuid() == 0 ? setresuid(user, 0, 0) : 0;
        const uid_t first = geteuid();
        plex::relpriv();
        const uid_t released = geteuid();
        plex::getpriv();
        printf("%d %d", released == user, geteuid() == first);
    });
    EXPECT_EQ(o.out, "1 1");
}

TEST_F(Runtime, OpenFiles) {
    const Outcome o = inchild([] {
        setenv("BBSLOG", "stdout", 1);
        plex::bgnlog("");
        printf("%d ", plex::maxfil(50));
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        const int bad = plex::maxfil(-1);
        plex::gfinit();
        printf("%d %d %d", static_cast<int>(limit.rlim_cur), bad, plex::fopavl);
    });
    EXPECT_EQ(o.out, "maxfil: Maximum open files = 50\n0 50 -1 50");
    plex::fopavl = 1;
    EXPECT_EQ(plex::gfopen("missing", "r"), nullptr);
    EXPECT_EQ(plex::fopavl, 1);
    FILE *f = plex::gfopen("f", "w");
    EXPECT_EQ(plex::fopavl, 0);
    EXPECT_EQ(plex::gfopen("f", "r"), nullptr);
    EXPECT_EQ(plex::gfclose(f) + plex::gfclose(nullptr), -1);
    EXPECT_EQ(plex::fopavl, 1);
}

TEST_F(Runtime, FilesAndDisks) {
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
    struct statvfs home = {};
    EXPECT_TRUE(test::eventually([&] { // others write, too
        statvfs(".", &home);
        return plex::dskfre(".") == uint64_t{home.f_bavail} * home.f_frsize &&
               plex::dskkfre(".") == uint64_t{home.f_bavail >> 10} * home.f_frsize;
    }));
    EXPECT_EQ(plex::clsize("."), home.f_bsize);
    EXPECT_EQ(plex::dskfre("/no/such") + plex::dskkfre("/no/such") + plex::clsize("/no/such"), 0U);
    EXPECT_EQ(plex::clfit(5, 4096), 5);
    for (const char *tz : {"UTC0", "XXX5YYY,M4.1.0,M10.5.0"}) { // as it changes, with summer time
        setenv("TZ", tz, 1);
        for (const uint32_t day : {0x2065U, 0x20E5U, 0x2065U}) { // 1996: 5 March, 5 July
            ASSERT_EQ(plex::unxstd("cfg", 0x70E4, static_cast<uint16_t>(day)), 1); // 14:07:08
            const int cfg = open("cfg", O_RDONLY);
            EXPECT_EQ(plex::unxgtd(cfg), day << 16 | 0x70E4) << tz;
            close(cfg);
        }
    }
    unsetenv("TZ");
    EXPECT_EQ(plex::unxgtd(-1), 0U);
    EXPECT_EQ(plex::unxstd("missing", 0, 0x2065), 0);
}

} // namespace
