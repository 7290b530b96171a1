// Both sides attach for reading and writing: the viewer clears the flags of what it has repainted.

#include "libunix/plumbing/svr4shm.h"

#include "libsrc/base/fatal.h"
#include "libunix/runtime/log.h"

#include <cerrno>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr int mode = 0644; // of a segment that is created

int s_shmid; // the segment as the server has it
int c_shmid; // and as the client has it

// Null when the system refuses, or when somebody else made the segment or was given it: any process
// may make one under our key, and could then read the screen and forge it.
void *attach(int id) {
    shmid_ds segment = {};
    if (shmctl(id, IPC_STAT, &segment) < 0) {
        return nullptr;
    }
    if (segment.shm_perm.uid != getuid() || segment.shm_perm.cuid != getuid()) {
        errno = EACCES;
        return nullptr;
    }
    void *mem = shmat(id, nullptr, 0);
    return mem == reinterpret_cast<void *>(-1) ? nullptr : mem;
}

} // namespace

key_t shmkey() {
    return static_cast<key_t>(getuid() + 1);
}

void *tryshm(int len, bool create) {
    const int id = shmget(shmkey(), static_cast<size_t>(len), create ? IPC_CREAT | mode : 0);
    return id == -1 ? nullptr : attach(id);
}

void *opnsshm(int len) {
    s_shmid = shmget(shmkey(), static_cast<size_t>(len), IPC_CREAT | mode);
    if (s_shmid == -1) {
        catastro("Server: Could not get shared memory. (%d %s)\n", errno, strerror(errno));
    }
    void *mem = attach(s_shmid);
    if (mem == nullptr) {
        catastro("Server: Could not attach shared memory (%d %s).\n", errno, strerror(errno));
    }
    inform("Server: Attached shared memory id %d, len %d at %p\n", s_shmid, len, mem);
    return mem;
}

void clssshm(void *mem) {
    if (shmdt(mem) < 0) {
        inform("Server: Could not detach shared memory (%d %s).\n", errno, strerror(errno));
    }
    if (shmctl(s_shmid, IPC_RMID, nullptr) < 0) {
        inform("Server: Could not remove shared memory (%d %s).\n", errno, strerror(errno));
    }
}

void *opncshm(int len) {
    c_shmid = shmget(shmkey(), static_cast<size_t>(len), 0);
    if (c_shmid == -1) {
        catastro("Client: Could not get shared memory (%d %s).\n", errno, strerror(errno));
    }
    void *mem = attach(c_shmid);
    if (mem == nullptr) {
        catastro("Client: Could not attach shared memory (%d %s).\n", errno, strerror(errno));
    }
    inform("Client: Attached shared memory id %d, len %d at %p\n", c_shmid, len, mem);
    return mem;
}

void clscshm(void *mem) {
    if (shmdt(mem) < 0) {
        inform("Client: Could not detach shared memory (%d %s).\n", errno, strerror(errno));
    }
}

} // namespace plex
