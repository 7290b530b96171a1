// What the board waits for: one epoll, level-triggered.
#pragma once

#include <cstdint>
#include <sys/epoll.h>

namespace harbour {

// Whose event it is.
enum class Source : uint32_t { listener, signals, service, caller, command };

struct Event {
    Source source;
    int index; // of the line
    uint32_t events;
};

// Opens the epoll; false with errno.
bool openpoller();

// Has `events` of `fd` told; `was` is what was asked before and becomes `events`. 0 takes the
// descriptor out, as one that has hung up would be told of again and again. A descriptor is taken
// out before it is closed.
void pollfor(int fd, uint32_t events, uint32_t &was, Source source, int index = 0);

// Waits up to `milliseconds` (-1: without end) for events: how many there are, read with event().
int waitevents(int milliseconds);
Event event(int i);

} // namespace harbour
