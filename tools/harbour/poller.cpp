#include "tools/harbour/poller.h"

#include <algorithm>
#include <array>

namespace harbour {
namespace {

int epfd = -1;
std::array<epoll_event, 256> came;

} // namespace

bool openpoller() {
    epfd = epoll_create1(EPOLL_CLOEXEC);
    return epfd >= 0;
}

void pollfor(int fd, uint32_t events, uint32_t &was, Source source, int index) {
    if (fd < 0 || events == was) {
        return;
    }
    epoll_event asked = {};
    asked.events = events;
    asked.data.u64 = uint64_t{static_cast<uint32_t>(source)} << 32 | static_cast<uint32_t>(index);
    const int change = was == 0 ? EPOLL_CTL_ADD : events == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
    if (epoll_ctl(epfd, change, fd, &asked) == 0) {
        was = events;
    }
}

int waitevents(int milliseconds) {
    return std::max(epoll_wait(epfd, came.data(), static_cast<int>(came.size()), milliseconds), 0);
}

Event event(int i) {
    const epoll_event &e = came[static_cast<size_t>(i)];
    return {static_cast<Source>(e.data.u64 >> 32), static_cast<int>(e.data.u64 & 0xFFFFFFFF),
            e.events};
}

} // namespace harbour
