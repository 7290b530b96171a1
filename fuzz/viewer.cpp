// What viewers may send to the remote console. An input is a row of steps: a byte whose low half is
// the number of bytes that follow and are sent in one piece, by a new viewer when its high half is
// eight. Keys and signals are worked out beside it.

#include "fuzz/entry.h"
#include "libunix/console/trm.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using fuzz::require;

const plex::trmhdl &console = plex::rx11trm;
constexpr int32_t leaving = -1;

int viewer = -1; // our end; -1 when the console has dropped it
int32_t pid = -1;
int32_t key;
std::vector<int> signalled;

void dropped() {
    close(viewer);
    viewer = -1;
}

// That a drop signals the process which was announced last, and nobody else.
void signals(bool drops) {
    require(signalled == (drops && pid > 0 ? std::vector{pid} : std::vector<int>{}));
    signalled.clear();
}

void say(std::string_view bytes) {
    require(send(viewer, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
            static_cast<ssize_t>(bytes.size()));
}

// The keys that `bytes` make; a piece of one leaves the rest of the key before.
void keys(std::string_view bytes) {
    while (!bytes.empty()) {
        const size_t n = std::min(bytes.size(), sizeof key);
        memcpy(&key, bytes.data(), n);
        bytes.remove_prefix(n);
        const int hit = console.trmhit();
        signals(key == leaving);
        if (key == leaving) {
            require(hit == 0);
            dropped();
            return;
        }
        require(hit == 1 && console.trmhit() == 1 && console.trminp() == key);
    }
    require(console.trmhit() == 0);
}

// An odd announcement stands for this process's id; any other is not the viewer's own.
void newviewer(std::string_view input) {
    std::string bytes(input);
    const int32_t id = getpid();
    if (bytes.size() >= sizeof pid && (bytes[0] & 1) != 0) {
        memcpy(bytes.data(), &id, sizeof id);
    }
    const int before = viewer;
    viewer = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un addr = {AF_UNIX, "plexhost.console"};
    require(connect(viewer, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0);
    say(bytes);
    bytes.empty() ? shutdown(viewer, SHUT_WR) : 0;
    require(console.trmhit() == 0);
    signals(true);
    close(before);
    if (bytes.size() < sizeof pid) {
        pid = -1;
        dropped();
    } else {
        pid = memcmp(bytes.data(), &id, sizeof id) == 0 ? id : 0;
        keys(std::string_view(bytes).substr(sizeof pid));
    }
}

} // namespace

extern "C" int kill(pid_t target, int signo) noexcept {
    require(signo == SIGUSR1);
    signalled.push_back(target);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    fuzz::home();
    require(console.trmopn() >= 0);
    atexit([] { console.trmcls(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    std::string_view input(reinterpret_cast<const char *>(data), size);
    newviewer(std::string_view("\0\0\0\0\0\0\0\0", 8)); // whatever came before: no key,
    newviewer("");                                      // no viewer and nobody to signal
    while (!input.empty()) {
        const auto step = static_cast<unsigned char>(input[0]);
        const std::string_view bytes = input.substr(1, step & 15);
        input.remove_prefix(1 + bytes.size());
        if (step >> 4 == 8) {
            newviewer(bytes);
        } else if (viewer >= 0) {
            say(bytes);
            keys(bytes);
        }
    }
    if (viewer >= 0) {
        dropped();
        require(console.trmhit() == 0);
        signals(true);
    }
    return 0;
}
