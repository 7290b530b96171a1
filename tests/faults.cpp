// System calls that fail in what the daemon's services do, and a handler that it does not install.

#include "libunix/daemon/endings.h"
#include "libunix/daemon/state.h"
#include "libunix/runtime/files.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/process.h"
#include "tests/faults/calls.h"
#include "tests/support.h"

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

void breakpipe() {
    plex::lockfd = plex::maklck(plex::LOCKNAME);
    plex::usignal(SIGPIPE, plex::process_signal);
    raise(SIGPIPE);
}

TEST(Faults, OfServices) {
    const test::Home home;
    const struct {
        const char *faults;
        void (*body)();
        int code;
        const char *err;
    } rows[] = {
        {"fork:1:11", plex::daemon_init, 1, "Fork failed: Resource temporarily unavailable\n"},
        {"fork:1:11", plex::daemon_wait, 255, ""},
        {"getrlimit:1:1", [] { plex::gfinit(), _exit(plex::fopavl); }, 60, ""},
        {"getrlimit:1:1", [] { _exit(plex::maxfil(5)); }, 255, ""},
        {"setrlimit:1:1", [] { _exit(plex::maxfil(5)); }, 255, ""},
        {"close_range:1:38",
         [] {
             plex::closeabove(dup2(2, 99) - 1);
             _exit(fcntl(99, F_GETFD) == -1 ? 0 : 1);
         },
         0, ""},
        {"", breakpipe, 0, "SIGPIPE"},
    };
    test::spew("cfg", "");
    setenv("BBSCONFIG", "cfg", 1);
    for (const auto &r : rows) {
        const test::Outcome o = test::inchild([&] {
            test::fault(r.faults);
            r.body();
        });
        EXPECT_EQ(o.code(), r.code) << r.faults << o.err;
        EXPECT_EQ(o.err, r.err) << r.faults;
        EXPECT_FALSE(test::exists(plex::LOCKNAME));
    }
}

} // namespace
