// Calls that fail on demand. The linker leads those of whatever is linked with this file through
// its wrappers, but not the C library's own. Opens count when they are of devices, allocations when
// they are of our own code. A forked child counts along with its parent.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

namespace test {
void fault(const char *plan);
}

namespace {

constexpr int most = 4;
struct plannedfault {
    char call[16];
    int countdown, error;
};
plannedfault *planned; // shared with children

// Whether this call of `call` is one that the plan lets fail; errno then says why.
bool fails(const char *call) {
    bool failing = false;
    for (auto *p = planned; planned != nullptr && p < planned + most; p++) {
        if (strcmp(p->call, call) == 0 && --p->countdown == 0) {
            errno = p->error;
            failing = p->error >= 0 || raise(-p->error) != 0;
        }
    }
    return failing;
}

} // namespace

void test::fault(const char *plan) {
    for (auto *p = planned; p < planned + most; p++) {
        int length = 0;
        *p = {};
        sscanf(plan, "%15[^:]:%d:%d %n", p->call, &p->countdown, &p->error, &length);
        plan += length;
    }
}

[[gnu::constructor]] static void planfromenvironment() {
    planned =
        static_cast<plannedfault *>(mmap(nullptr, most * sizeof *planned, PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const char *plan = getenv("FAULTS");
    test::fault(plan != nullptr ? plan : "");
}

// Any call of up to six words: to pass on more than it takes does no harm. Weak: a machine has only
// some of a call's names, which the headers choose from.
#define CALL(call, symbol, failure, ...)                                                           \
    [[gnu::weak]] word __real_##symbol(word, word, word, word, word, word);                        \
    word __wrap_##symbol(word a, word b, word c, word d, word e, word f) {                         \
        return __VA_ARGS__ fails(#call) ? failure : __real_##symbol(a, b, c, d, e, f);             \
    }

extern "C" {

using word = long;

CALL(accept, accept, -1)
CALL(accept, accept4, -1)
CALL(bind, bind, -1)
CALL(close_range, close_range, -1)
CALL(dup2, dup2, -1)
CALL(fchmod, fchmod, -1)
CALL(fcntl, fcntl64, -1)
CALL(fcntl, __fcntl_time64, -1)
CALL(fork, fork, -1)
CALL(fork, _Fork, -1)
CALL(getrlimit, getrlimit64, -1)
CALL(grantpt, grantpt, -1)
CALL(ioctl, ioctl, -1)
CALL(ioctl, __ioctl_time64, -1)
CALL(kill, kill, -1)
CALL(listen, listen, -1)
CALL(malloc, malloc, 0)
// Terminals only: files fail by themselves where a test wants it.
CALL(open, open64, -1, strncmp(reinterpret_cast<const char *>(a), "/dev/pt", 7) == 0 &&)
CALL(ptsname, ptsname, 0)
CALL(read, read, -1)
CALL(send, send, -1)
CALL(sendmsg, sendmsg, -1)
CALL(sendmsg, __sendmsg64, -1)
CALL(setrlimit, setrlimit64, -1)
CALL(setsid, setsid, -1)
CALL(shmat, shmat, -1)
CALL(sigaction, sigaction, -1)
CALL(socket, socket, -1)
CALL(tcsetattr, tcsetattr, -1)
CALL(unlockpt, unlockpt, -1)
CALL(write, write, -1)
}
