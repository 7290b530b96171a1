// The shared segment and the link to a viewer. What any bytes do to the link: fuzz/viewer.cpp.

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
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

// A wait for nothing is not waited for.
extern "C" int select(int, fd_set *, fd_set *, fd_set *, timeval *) {
    return 0;
}

namespace {

const plex::trmhdl &console = plex::rx11trm;
volatile sig_atomic_t signalled; // how often a viewer of this process was told to go

void type(int fd, int32_t word = 'a') {
    EXPECT_EQ(send(fd, &word, sizeof word, 0), 4);
}

// A viewer that has announced itself.
int viewer() {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un addr = {AF_UNIX, "plexhost.console"};
    EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
    type(fd, getpid());
    return fd;
}

int key() {
    return console.trmhit() != 0 ? console.trminp() : 0;
}

// A host with a thousand terminals open has none of the lower numbers left.
void takeover() {
    EXPECT_EQ(plex::maxfil(FD_SETSIZE + 50), 0);
    for (int fd = 0; fd >= 0 && fd < FD_SETSIZE;) {
        fd = open("/dev/null", O_RDONLY);
    }
    plex::usignal(SIGUSR1, [](int) { signalled = signalled + 1; });
    umask(0);
    const int listening = console.trmopn();
    struct stat st = {};
    EXPECT_EQ(stat("plexhost.console", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    const int first = viewer();
    EXPECT_EQ(key(), 0) << "a newcomer is no key";
    EXPECT_EQ(fcntl(listening, F_GETFD) & fcntl(first + 1, F_GETFD), FD_CLOEXEC);
    const int second = viewer();
    type(first); // keys that have come are taken before the newcomer
    EXPECT_EQ(key(), 'a');
    test::fault("accept:1:24"); // the viewer has gone all the same; the newcomer waits
    EXPECT_EQ(key() + signalled, 1);
    EXPECT_EQ(key(), 0);
    type(second);
    EXPECT_EQ(key(), 'a');
    console.trmcls();
    EXPECT_EQ(signalled, 3); // every drop tells the one that was announced last
}

TEST(Link, NewcomerTakesOver) {
    const test::Home home;
    EXPECT_EQ(test::told(takeover), "||0");
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
        if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
            test::spew("/proc/self/uid_map", uid + " " + uid + " 1");
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
    std::string text = logged([] {
        auto *mem = static_cast<char *>(plex::opnsshm(4029));
        _exit(mem[0] == '\0' && mem[4028] == '\0' && strcpy(mem, "left") == mem ? 0 : 1);
    });
    const int id = shmget(key, 4029, 0);
    shmid_ds info = {};
    EXPECT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0644);
    text += logged([] {
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
    for (const std::string &line :
         {"Server" + attached, std::string("||0Client") + attached,
          std::string("Client: Could not detach shared memory (22 Invalid argument).\n"),
          std::string("Server: Could not detach shared memory (22 Invalid argument).\n"),
          std::string("Server: Could not remove shared memory (22 Invalid argument).\n||0")}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << "is not in " << text;
    }
    EXPECT_LT(shmget(key, 0, 0), 0);
}

TEST_F(Segment, HasTheImageFromTheFirstOutputOn) {
    EXPECT_EQ(test::told([] {
                  plex::frzseg(); // from before the method: it is given up
                  plex::opntrm(plex::DSP_REMOTE, "test");
                  plex::unxprntf("seen");
                  auto *image = static_cast<unsigned char *>(plex::opncshm(plex::imagebytes));
                  printf("%c%c %d", image[0], image[6], image[plex::cellbytes + plex::UPD_CURCOL]);
                  plex::clstrm();
              }),
              "sn 4||0");
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
