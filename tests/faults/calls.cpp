// System calls that fail on demand. Whatever is linked with this file has its definitions in front
// of the C library's; calls that the plan does not name pass through. A forked child counts along
// with its parent; a program that is executed is another one and not affected.

#include "tests/faults/calls.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace {

struct plannedfault {
    char call[16];
    int countdown;
    int error;
};

constexpr int most = 4;
plannedfault *planned; // shared with children

// Whether this call of `call` is one that the plan lets fail; errno then says why.
bool fails(const char *call) {
    bool failing = false;
    for (plannedfault *p = planned; planned != nullptr && p < planned + most; p++) {
        if (strcmp(p->call, call) == 0 && --p->countdown == 0) {
            errno = p->error;
            failing = p->error >= 0 || raise(-p->error) != 0;
        }
    }
    return failing;
}

[[gnu::constructor]] void planfromenvironment() {
    const char *plan = getenv("FAULTS");
    if (plan != nullptr) {
        test::fault(plan);
    }
}

// The definition that one of ours stands in front of.
template <typename F> F *behind(const char *name) {
    return reinterpret_cast<F *>(dlsym(RTLD_NEXT, name));
}

} // namespace

void test::fault(const char *plan) {
    if (planned == nullptr) {
        planned = static_cast<plannedfault *>(mmap(nullptr, most * sizeof *planned,
                                                   PROT_READ | PROT_WRITE,
                                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }
    for (plannedfault *p = planned; p < planned + most; p++) {
        int length = 0;
        *p = {};
        if (sscanf(plan, "%15[^:]:%d:%d %n", p->call, &p->countdown, &p->error, &length) != 3) {
            *p = {};
        }
        plan += length;
    }
}

#define CALL(result, failure, name, parameters, arguments, ...)                                    \
    result name parameters __VA_ARGS__ {                                                           \
        static const auto next = behind<result parameters>(#name);                                 \
        return fails(#name) ? failure : next arguments;                                            \
    }

extern "C" {

CALL(int, -1, accept, (int fd, sockaddr *addr, socklen_t *len), (fd, addr, len))
CALL(int, -1, bind, (int fd, const sockaddr *addr, socklen_t len), (fd, addr, len), noexcept)
CALL(int, -1, dup2, (int from, int to), (from, to), noexcept)
CALL(int, -1, fchmod, (int fd, mode_t mode), (fd, mode), noexcept)
CALL(pid_t, -1, fork, (), (), noexcept)
CALL(int, -1, grantpt, (int fd), (fd), noexcept)
CALL(int, -1, kill, (pid_t pid, int signo), (pid, signo), noexcept)
CALL(int, -1, listen, (int fd, int backlog), (fd, backlog), noexcept)
CALL(int, -1, pipe2, (int *fds, int flags), (fds, flags), noexcept)
CALL(char *, nullptr, ptsname, (int fd), (fd), noexcept)
CALL(ssize_t, -1, read, (int fd, void *buf, size_t len), (fd, buf, len))
CALL(ssize_t, -1, send, (int fd, const void *buf, size_t len, int flags), (fd, buf, len, flags))
CALL(ssize_t, -1, sendmsg, (int fd, const msghdr *msg, int flags), (fd, msg, flags))
CALL(pid_t, -1, setsid, (), (), noexcept)
CALL(void *, reinterpret_cast<void *>(-1), shmat, (int id, const void *at, int flags),
     (id, at, flags), noexcept)
CALL(int, -1, sigaction, (int signo, const struct sigaction *act, struct sigaction *old),
     (signo, act, old), noexcept)
CALL(int, -1, socket, (int family, int type, int protocol), (family, type, protocol), noexcept)
CALL(int, -1, tcsetattr, (int fd, int action, const termios *t), (fd, action, t), noexcept)
CALL(int, -1, unlockpt, (int fd), (fd), noexcept)
CALL(ssize_t, -1, write, (int fd, const void *buf, size_t len), (fd, buf, len))

int accept4(int fd, sockaddr *addr, socklen_t *len, int flags) {
    static const auto next = behind<int(int, sockaddr *, socklen_t *, int)>("accept4");
    return fails("accept") ? -1 : next(fd, addr, len, flags);
}

pid_t _Fork() noexcept {
    static const auto next = behind<pid_t()>("_Fork");
    return fails("fork") ? -1 : next();
}

// Whatever the headers call these, the widest kind is meant.
int getrlimit(__rlimit_resource_t resource, rlimit *limit) noexcept {
    static const auto next = behind<int(__rlimit_resource_t, rlimit *)>("getrlimit64");
    return fails("getrlimit") ? -1 : next(resource, limit);
}

int setrlimit(__rlimit_resource_t resource, const rlimit *limit) noexcept {
    static const auto next = behind<int(__rlimit_resource_t, const rlimit *)>("setrlimit64");
    return fails("setrlimit") ? -1 : next(resource, limit);
}

#define CALL3(name, symbol, first, second, counts, ...)                                            \
    int name(first a, second b, ...) __VA_ARGS__ {                                                 \
        va_list args;                                                                              \
        va_start(args, b);                                                                         \
        void *c = va_arg(args, void *);                                                            \
        va_end(args);                                                                              \
        static const auto next = behind<int(first, second, void *)>(symbol);                       \
        return counts && fails(#name) ? -1 : next(a, b, c);                                        \
    }

CALL3(fcntl, "fcntl64", int, int, true)
CALL3(ioctl, "ioctl", int, unsigned long, true, noexcept)
// Terminals only: files fail by themselves where a test wants it.
CALL3(open, "open64", const char *, int, strncmp(a, "/dev/pt", 7) == 0)

// Wrapped by the linker: in front of the C library's it would serve the loader and sanitizers too.
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size) {
    return fails("malloc") ? nullptr : __real_malloc(size);
}
}
