// System V segments of the test's own: real programs of the same user have segments too.
#pragma once

#include "tests/support.h"

#include "libunix/screen/screen.h"

#include <cstdio>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace test {

inline key_t segmentkey() {
    return static_cast<key_t>(getuid() + 1);
}

// Removes the user's segment, if there is one.
inline void removesegment() {
    const int id = shmget(segmentkey(), 0, 0);
    if (id >= 0) {
        shmctl(id, IPC_RMID, nullptr);
    }
}

// Moves the process to a name space of its own for segments, once. Where that is not allowed the
// machine's own serves, unless somebody is using the user's segment: then false.
inline bool ownsegments() {
    static bool done = false;
    if (done) {
        return true;
    }
    const unsigned uid = getuid();
    done = unshare(CLONE_NEWIPC) == 0;
    if (!done && unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
        spew("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
        done = true;
    }
    shmid_ds info = {};
    const int id = shmget(segmentkey(), 0, 0);
    if (!done && id >= 0 && shmctl(id, IPC_STAT, &info) == 0 && info.shm_nattch > 0) {
        return false;
    }
    removesegment();
    return true;
}

} // namespace test

#define NEED_OWN_SEGMENTS()                                                                        \
    if (!test::ownsegments()) {                                                                    \
        GTEST_SKIP() << "a program of this user has its screen in the shared segment";             \
    }
