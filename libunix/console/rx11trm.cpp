// The remote console link: the screen image lies in shared memory and a viewer process of the same
// user shows it; keys come from the viewer over the link of viewlink.h. One viewer at a time, and a
// newcomer takes the console over. Everything happens within the program's own polls.

#include "libsrc/base/text.h"
#include "libunix/console/trm.h"
#include "libunix/console/viewlink.h"
#include "libunix/plumbing/svr4shm.h"
#include "libunix/runtime/log.h"
#include "libunix/screen/screen.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace plex {
namespace {

constexpr int64_t announcems = 1000; // a client that says nothing must not stop the program longer

int32_t syssoc = -1; // listens; -1: closed
int32_t kbdfd = -1;  // the viewer's connection; -1: none
viewword pid = -1;   // what the current or last viewer announced; -1: nothing
viewword curchr;     // the last key
int32_t curscn;      // non-zero while it has not been taken

int64_t milliseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Drops the viewer. Its process id is deliberately kept: every later drop signals it again.
void clsxcon() {
    if (kbdfd != -1) {
        close(kbdfd);
        kbdfd = -1;
    }
    // Zero and below would name process groups, our own among them.
    if (pid > 0) {
        kill(pid, viewgo);
    }
}

int32_t xopen() {
    syssoc = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (syssoc == -1) {
        return -1;
    }
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    stzcpy(addr.sun_path, viewendpoint, sizeof addr.sun_path);
    constexpr auto len =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof viewendpoint);
    unlink(viewendpoint);
    fchmod(syssoc,
           S_IRUSR | S_IWUSR); // the node's mode, whatever the mask: who types here rules here
    if (bind(syssoc, reinterpret_cast<const sockaddr *>(&addr), len) < 0) {
        inform("xopen:bind() %s\n", strerror(errno));
        return -1;
    }
    listen(syssoc, 1);
    return syssoc;
}

int32_t xclose() {
    if (syssoc != -1) {
        close(syssoc);
        syssoc = -1;
        unlink(viewendpoint);
    }
    clsxcon();
    return 0;
}

// Whether the kernel says that the connection is that process's.
bool itsown(viewword announcedpid) {
    ucred peer = {};
    socklen_t len = sizeof peer;
    return getsockopt(kbdfd, SOL_SOCKET, SO_PEERCRED, &peer, &len) == 0 && peer.pid == announcedpid;
}

// Waits for the new viewer's process id. False unless it came, whole, in one piece and in time. One
// that is not its own is as good as none: another process must not be signalled in its place.
bool announced() {
    const int64_t deadline = milliseconds() + announcems;
    pollfd viewer = {kbdfd, POLLIN, 0};
    const auto left = [=] { return std::max(deadline - milliseconds(), int64_t{0}); };
    if (TEMP_FAILURE_RETRY(poll(&viewer, 1, static_cast<int>(left()))) <= 0 ||
        recv(kbdfd, &pid, sizeof pid, 0) != sizeof pid) {
        return false;
    }
    if (!itsown(pid)) {
        pid = 0;
    }
    return true;
}

void takeviewer() {
    clsxcon();
    kbdfd = accept4(syssoc, nullptr, nullptr, SOCK_CLOEXEC);
    if (kbdfd == -1) {
        return;
    }
    if (!announced()) {
        pid = -1;
        close(kbdfd);
        kbdfd = -1;
        return;
    }
}

// One poll. A newcomer never yields a key in the poll that accepts it.
int32_t xpress() {
    if (curscn != 0) {
        return 1;
    }
    if (syssoc == -1) {
        return 0;
    }
    pollfd fds[] = {{kbdfd, POLLIN, 0}, {syssoc, POLLIN, 0}}; // -1 is passed over
    if (poll(fds, 2, 0) <= 0) {
        return 0;
    }
    if (fds[0].revents != 0) {
        const ssize_t nread = read(kbdfd, &curchr, sizeof curchr);
        if (curchr == viewleaving || nread == 0) {
            clsxcon();
            return 0;
        }
        // Anything else is a key, deliberately also a short or failed read: the bytes that did not
        // come are those of the key before.
        curscn = 1;
        return 1;
    }
    if (fds[1].revents != 0) {
        takeviewer();
    }
    return 0;
}

// A busy loop by design: nothing else wakes the program when a key comes.
int32_t xread() {
    while (xpress() == 0) {
    }
    curscn = 0;
    return curchr;
}

void xupdate(int32_t /*force*/) {
    unfrez();
}

void xbell(int32_t /*pitch*/) {}

unsigned char *segment() {
    return static_cast<unsigned char *>(opnsshm(imagebytes));
}

} // namespace

const trmhdl rx11trm = {xopen, xclose, xread, xpress, xupdate, xbell};
const scrhdl rx11scn = {segment, true, keepcur, keptcur, noshape};

} // namespace plex
