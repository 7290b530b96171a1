// The shared segment and the link to a viewer.

#include "libsrc/catastro/catastro.h"
#include "libunix/console/trm.h"
#include "libunix/plumbing/svr4shm.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"
#include "tests/faults/calls.h"
#include "tests/support.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

// A wait for nothing is not waited for.
extern "C" int select(int n, fd_set *in, fd_set *out, fd_set *other, timeval *limit) {
    const timespec time = {limit->tv_sec, static_cast<long>(limit->tv_usec * 1000)};
    return in == nullptr ? 0 : pselect(n, in, out, other, &time, nullptr);
}

namespace {

volatile sig_atomic_t signalled; // how often a viewer of this process was told to go

// A viewer that has announced itself, or another process.
int viewer(pid_t pid = getpid()) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un addr = {AF_UNIX, "plexhost.console"};
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    EXPECT_EQ(send(fd, &pid, sizeof pid, 0), 4);
    return fd;
}

int key() {
    return plex::rx11trm.trmhit() != 0 ? plex::rx11trm.trminp() : 0;
}

bool closed(int fd) {
    char byte = 0;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
}

// What any bytes do to the link: fuzz/viewer.cpp. Here, who is served when.
TEST(Link, NewcomerTakesOver) {
    const test::Home home;
    plex::usignal(SIGUSR1, [](int) { signalled = signalled + 1; });
    test::spew("plexhost.console", "left behind");
    EXPECT_GE(plex::rx11trm.trmopn(), 0); // and its process dies
    EXPECT_GE(plex::rx11trm.trmopn(), 0);
    const int first = viewer();
    EXPECT_EQ(key(), 0) << "a newcomer is no key";
    const int second = viewer();
    const int32_t a = 'a';
    EXPECT_EQ(send(first, &a, 4, 0), 4); // keys that have come are taken before the newcomer
    EXPECT_EQ(plex::rx11trm.trmhit() + plex::rx11trm.trmhit(), 2);
    EXPECT_EQ(key(), 'a');
    EXPECT_FALSE(closed(first));
    test::fault("accept:1:24"); // the viewer has gone all the same; the newcomer waits
    EXPECT_EQ(key() + signalled, 1);
    EXPECT_TRUE(closed(first));
    EXPECT_EQ(key(), 0);
    EXPECT_EQ(send(second, &a, 4, 0), 4);
    EXPECT_EQ(key(), 'a');
    static unsigned char flags[29];
    plex::updflg = flags;
    plex::dsptyp = plex::DSP_REMOTE;
    plex::rx11trm.trmupd(0); // asks for a repaint
    EXPECT_EQ(flags[plex::UPD_ALL], 1);
    plex::updflg = nullptr;
    plex::dsptyp = 0;
    plex::rx11trm.trmcls();
    EXPECT_TRUE(closed(second));
    EXPECT_EQ(signalled, 3); // every drop tells the one that was announced last
    EXPECT_FALSE(test::exists("plexhost.console"));
    plex::usignal(SIGUSR1, SIG_IGN);
    close(first);
    close(second);
}

TEST(Link, IsForItsOwnUserAndItsOwnProcesses) {
    const test::Home home;
    umask(0);
    const int listening = plex::rx11trm.trmopn();
    const int link = listening + 1; // the next number
    struct stat st = {};
    EXPECT_EQ(stat("plexhost.console", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    test::Program other([] { pause(); });
    const int fd = viewer(other.pid);
    EXPECT_NE(dup2(fd, 100), -1);
    close(fd);
    EXPECT_EQ(plex::rx11trm.trmhit(), 0);
    EXPECT_EQ(fcntl(listening, F_GETFD) & fcntl(link, F_GETFD), FD_CLOEXEC);
    close(100); // it leaves, and what it named is not told
    EXPECT_EQ(plex::rx11trm.trmhit(), 0);
    plex::rx11trm.trmcls();
    EXPECT_EQ(kill(other.pid, SIGTERM), 0);
    EXPECT_EQ(other.wait().code(), 128 + SIGTERM);
}

// A host with a thousand terminals open has none of the lower numbers left.
TEST(Link, HighDescriptors) {
    const test::Home home;
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_EQ(plex::maxfil(FD_SETSIZE + 50), 0);
    std::vector<int> low;
    do {
        low.push_back(open("/dev/null", O_RDONLY));
    } while (low.back() < FD_SETSIZE);
    EXPECT_GT(plex::rx11trm.trmopn(), FD_SETSIZE);
    const int fd = viewer();
    EXPECT_EQ(plex::rx11trm.trmhit(), 0);
    const int32_t a = 'a';
    EXPECT_EQ(send(fd, &a, 4, 0), 4);
    EXPECT_EQ(plex::rx11trm.trmhit(), 1);
    EXPECT_EQ(plex::rx11trm.trminp(), 'a');
    plex::usignal(SIGUSR1, SIG_IGN); // the viewer is this process
    plex::rx11trm.trmcls();
    close(fd);
    for (const int one : low) {
        close(one);
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(Link, WithoutOneTheProgramEnds) {
    const test::Home home;
    ASSERT_EQ(mkdir("plexhost.console", 0700), 0); // no file: not to be removed
    const char *const rows[][2] = {{"", "xopen:bind() Address already in use\n"},
                                   {"socket:1:24", ""}};
    for (const auto &[fault, log] : rows) {
        EXPECT_EQ(test::told([fault = fault] {
                      test::logout();
                      test::fault(fault);
                      plex::opntrm(plex::DSP_REMOTE, "plexhost");
                  }),
                  log + std::string("|Display open failed. Exiting.\n|1"));
    }
}

// Real programs of the same user have segments too: these are in a name space of the test's own.
// Where that is not allowed the machine's serves, unless somebody is using the user's segment.
class Segment : public testing::Test {
protected:
    void SetUp() override {
        const std::string uid = std::to_string(getuid());
        if (unshare(CLONE_NEWIPC) == 0) {
            return;
        }
        if (unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
            test::spew("/proc/self/uid_map", uid + " " + uid + " 1");
            return;
        }
        shmid_ds info = {};
        if (shmctl(shmget(key, 0, 0), IPC_STAT, &info) == 0 && info.shm_nattch > 0) {
            GTEST_SKIP() << "a program of this user has its screen in the shared segment";
        }
        removesegment();
    }
    ~Segment() override { removesegment(); }

    static void removesegment() { shmctl(shmget(key, 0, 0), IPC_RMID, nullptr); }

    static inline const auto key = static_cast<key_t>(getuid() + 1);

    // Runs `body` with the log on standard output and a private screen image.
    static std::string logged(const std::function<void()> &body) {
        return test::told([&] {
            plex::nocore = 1;
            test::logout();
            plex::opntrm(plex::DSP_NULL, "test");
            body();
        });
    }

    test::Home home;
};

TEST_F(Segment, IsSharedAndOutlivesItsWriter) {
    const std::string writer = logged([] {
        auto *mem = static_cast<char *>(plex::opnsshm(4029));
        _exit(mem[0] == '\0' && mem[4028] == '\0' && strcpy(mem, "left") == mem ? 0 : 1);
    });
    const int id = shmget(key, 4029, 0);
    ASSERT_GE(id, 0);
    shmid_ds info = {};
    shmctl(id, IPC_STAT, &info);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0644);
    const std::string reader = logged([] {
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
    const std::string attached =
        ": Attached shared memory id " + std::to_string(id) + ", len 4029 at 0x";
    EXPECT_TRUE(writer.starts_with("Server" + attached) && writer.ends_with("||0")) << writer;
    EXPECT_TRUE(reader.starts_with("Client" + attached) && reader.ends_with("||0")) << reader;
    for (const char *line : {"Client: Could not detach shared memory (22 Invalid argument).\n",
                             "Server: Could not detach shared memory (22 Invalid argument).\n",
                             "Server: Could not remove shared memory (22 Invalid argument).\n"}) {
        EXPECT_NE(reader.find(line), std::string::npos) << line << reader;
    }
    EXPECT_LT(shmget(key, 0, 0), 0);
}

TEST_F(Segment, HasTheImageFromTheFirstOutputOn) {
    for (const bool before : {false, true}) { // one from before the method is given up
        EXPECT_EQ(test::told([&] {
                      before ? plex::frzseg() : nullptr;
                      plex::opntrm(plex::DSP_REMOTE, "test");
                      plex::unxprntf("seen");
                      auto *image = static_cast<unsigned char *>(plex::opncshm(plex::imagebytes));
                      printf("%c%c%c%c %d", image[0], image[2], image[4], image[6],
                             image[plex::cellbytes + plex::UPD_CURCOL]);
                      plex::clstrm();
                  }),
                  "seen 4||0");
    }
}

TEST_F(Segment, ThatCannotBeHadIsFatal) {
    const std::string larger = "Server: Could not get shared memory. (22 Invalid argument)\n\n";
    const struct {
        size_t size; // of the segment that there is
        const char *fault;
        void *(*open)(int);
        std::string told;
    } rows[] = {
        {0, "", plex::opncshm,
         "Client: Could not get shared memory (2 No such file or directory).\n\n"},
        {100, "", plex::opnsshm, larger},
        {4029, "shmat:1:12", plex::opnsshm,
         "Server: Could not attach shared memory (12 Cannot allocate memory).\n\n"},
        {4029, "shmat:1:13", plex::opncshm,
         "Client: Could not attach shared memory (13 Permission denied).\n\n"},
        {4029, "foreign", plex::opnsshm,
         "Server: Could not attach shared memory (13 Permission denied).\n\n"},
    };
    for (const auto &r : rows) {
        removesegment();
        const int id = r.size > 0 ? shmget(key, r.size, IPC_CREAT | 0666) : 0;
        shmid_ds info = {};
        if (strcmp(r.fault, "foreign") == 0 && shmctl(id, IPC_STAT, &info) == 0) {
            info.shm_perm.uid = getuid() + 1;
            if (shmctl(id, IPC_SET, &info) < 0) {
                continue; // a name space without other users
            }
        }
        EXPECT_EQ(logged([&] {
                      test::fault(r.fault);
                      r.open(4029);
                  }),
                  r.told + "||90");
    }
    removesegment();
    // On a screen that needs it, that is a fatal error within one.
    EXPECT_GE(shmget(key, 100, IPC_CREAT | 0600), 0);
    EXPECT_EQ(test::told([] {
                  plex::opntrm(plex::DSP_REMOTE, "test");
                  plex::unxprntf("needs the image");
              }),
              "|" + larger + "|80");
    EXPECT_NE(test::slurp("CATASTRO.TXT").find(larger), std::string::npos);
}

} // namespace
