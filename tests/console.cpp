// The shared segment and the link to a viewer. More of the link: fuzz/viewer.cpp, viewer.py.

#include "libsrc/catastro/catastro.h"
#include "libunix/console/trm.h"
#include "libunix/plumbing/svr4shm.h"
#include "libunix/runtime/process.h"
#include "libunix/screen/print.h"
#include "libunix/screen/screen.h"
#include "tests/support.h"

#include <cstring>
#include <fcntl.h>
#include <regex>
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

// A host with a thousand terminals open has none of the lower numbers left.
void takeover() {
    const plex::trmhdl &console = plex::rx11trm;
    EXPECT_EQ(plex::maxfil(FD_SETSIZE + 50), 0);
    for (int fd = 0; fd >= 0 && fd < FD_SETSIZE;) {
        fd = dup(0);
    }
    umask(0);
    const int listening = console.trmopn();
    struct stat st = {};
    EXPECT_EQ(stat("plexhost.console", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    const sockaddr_un addr = {AF_UNIX, "plexhost.console"};
    int before = -1;
    for (int i = 0; i < 2; i++) {
        const int viewer = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(connect(viewer, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(write(viewer, "\0\0\0", 4), 4); // announces itself
        if (before >= 0) {                        // what was typed is taken first
            const int32_t key = 'a';              // in this machine's order
            EXPECT_EQ(write(before, &key, sizeof key), 4);
            EXPECT_EQ(console.trminp(), key);
        }
        EXPECT_EQ(console.trmhit(), 0); // a newcomer is no key
        before = viewer;
    }
    EXPECT_EQ(fcntl(listening, F_GETFD) + fcntl(listening + 2, F_GETFD), 2 * FD_CLOEXEC);
    console.trmcls();
}

// Real programs of the same user have segments too: this one is in a name space of the test's own.
// Where that is not allowed the machine's serves, unless somebody is using the user's segment.
TEST(Console, SegmentAndLink) {
    const std::string uid = std::to_string(getuid());
    const auto key = static_cast<key_t>(getuid() + 1);
    if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
        test::spew("/proc/self/uid_map", uid + " " + uid + " 1");
    }
    shmid_ds info = {};
    if (shmctl(shmget(key, 0, 0), IPC_STAT, &info) == 0 && info.shm_nattch > 0) {
        GTEST_SKIP() << "a program of this user has its screen in the shared segment";
    }
    constexpr auto server = [] { plex::opnsshm(4029); };
    constexpr auto client = [] { plex::opncshm(4029); };
    constexpr auto screen = [] {
        plex::opntrm(plex::DSP_REMOTE, "test"); // gives up the image from before
        plex::unxprntf("seen");
        plex::updtrm(0); // asks for a repaint
        auto *image = static_cast<unsigned char *>(plex::opncshm(plex::imagebytes));
        const unsigned char *flags = image + plex::cellbytes;
        printf("%c%c %d%d", image[0], image[6], flags[plex::UPD_CURCOL], flags[plex::UPD_ALL]);
        plex::clstrm();
    };
    const std::string larger = "Server: Could not get shared memory. (22 Invalid argument)\n\n";
    const std::string noserver = "Server: Could not attach shared memory (";
    const std::string nodetach = ": Could not detach shared memory (22 Invalid argument).\n";
    const struct {
        int size; // of the segment that there is; -1: as the row before left it
        const char *fault;
        void (*body)();
        std::string told;
    } rows[] = {
        {0, "", [] { strcpy(static_cast<char *>(plex::opnsshm(4029)), "left"); },
         "Server: Attached\n||0"},
        {-1, "",
         [] {
             auto *seen = static_cast<char *>(plex::opncshm(4029));
             auto *mem = static_cast<char *>(plex::opnsshm(4029)); // a second writer has the same
             printf("%s%d", strcat(mem, " over") != seen ? seen : "", mem[4028]);
             plex::clscshm(seen);
             plex::clscshm(seen);
             plex::clssshm(mem);
             plex::clssshm(mem);
         },
         "Client: Attached\nServer: Attached\nleft over0Client" + nodetach + "Server" + nodetach +
             "Server: Could not remove shared memory (22 Invalid argument).\n||0"},
        {-1, "", client,
         "Client: Could not get shared memory (2 No such file or directory).\n\n||90"},
        {-1, "", screen, "Server: Attached\nClient: Attached\nsn 41||0"},
        {100, "", server, larger + "||90"},
        {100, "", screen, larger + "|" + larger + "|80"}, // a fatal error within one
        {4029, "shmat:1:12", server, noserver + "12 Cannot allocate memory).\n\n||90"},
        {4029, "shmat:1:13", client,
         "Client: Could not attach shared memory (13 Permission denied).\n\n||90"},
        {4029, "foreign", server, noserver + "13 Permission denied).\n\n||90"},
        {-1, "", takeover, "maxfil: Maximum open files = 1074\n||0"},
        {-1, "",
         [] {
             mkdir("plexhost.console", 0700); // no file: not to be removed
             plex::opntrm(plex::DSP_REMOTE, "plexhost");
         },
         "xopen:bind() Address already in use\n|Display open failed. Exiting.\n|1"},
    };
    const test::Home home;
    for (const auto &r : rows) {
        if (r.size >= 0) {
            shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
        }
        const int id =
            shmget(key, r.size > 0 ? size_t(r.size) : 0, r.size > 0 ? IPC_CREAT | 0666 : 0);
        EXPECT_EQ(shmctl(id, IPC_STAT, &info), id < 0 ? -1 : 0);
        info.shm_perm.uid = getuid() + 1;
        if (strcmp(r.fault, "foreign") == 0 && shmctl(id, IPC_SET, &info) < 0) {
            continue; // a name space without other users
        }
        const std::string told = test::told([&] {
            plex::nocore = 1;
            test::logout();
            plex::opntrm(plex::DSP_NULL, "test");
            test::fault(r.fault);
            r.body();
        });
        const std::regex where(" shared memory id [0-9]+, len 4029 at 0x[0-9a-f]+");
        EXPECT_EQ(std::regex_replace(told, where, ""), r.told);
    }
    EXPECT_NE(test::slurp("CATASTRO.TXT").find(larger), std::string::npos);
    shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
}

} // namespace
