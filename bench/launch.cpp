// How dear the daemon is: launches per second against the floor of the same run, one at a time on
// one core, several in flight on two; and what it keeps in memory.
//
// launch [ROUNDS [COUNT]]: medians of ROUNDS rounds (5) of COUNT launches (1000).

#include "libunix/host/hostlink.h"
#include "tools/owndaemon.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using plex::Link;

constexpr int inflight = 8;
constexpr int running = 500;                  // commands, when memory is looked at
const std::string EXIT0 = BENCH_DIR "/exit0"; // a static program on the C library
const std::string BARE = BENCH_DIR "/bare";   // a few instructions
const std::string FLOOR = BENCH_DIR "/floor";

plex::OwnDaemon own;

[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vfprintf(stderr, fmt, args);
    va_end(args);
    fputc('\n', stderr);
    plex::stopdaemon(own);
    exit(1);
}

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor time of this process and of all that it started and saw end, in seconds.
double processor() {
    double sum = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage = {};
        getrusage(who, &usage);
        for (const timeval &t : {usage.ru_utime, usage.ru_stime}) {
            sum += static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
        }
    }
    return sum;
}

double quantile(std::vector<double> values, double q) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1))];
}

// Confines this process, and what it starts from now on, to the first `count` of `cores`.
void confine(const cpu_set_t &cores, int count) {
    cpu_set_t some;
    CPU_ZERO(&some);
    for (int cpu = 0; cpu < CPU_SETSIZE && CPU_COUNT(&some) < count; cpu++) {
        if (CPU_ISSET(cpu, &cores)) {
            CPU_SET(cpu, &some);
        }
    }
    sched_setaffinity(0, sizeof some, &some);
}

void begin() {
    std::string why = plex::makehome(own);
    if (why.empty()) {
        why = plex::startdaemon(own, VOSTERD);
    }
    if (why.empty()) {
        why = plex::awaitdaemon(own);
    }
    if (!why.empty()) {
        fail("%s", why.c_str());
    }
}

plex::clientmsg next() {
    plex::clientmsg record = {};
    const Link link = plex::hostread(own.link, record);
    if (link != Link::got || record.msgtyp == plex::MSG_FAILED) {
        fail("a launch failed (%s)", plex::linktext(link));
    }
    return record;
}

int descriptor() {
    int fd = -1;
    const Link link = plex::hostfd(own.link, fd);
    if (link != Link::got) {
        fail("no descriptor: %s", plex::linktext(link));
    }
    return fd;
}

double nobroker(const std::string &program, int count, std::vector<double> &) {
    FILE *out =
        popen(("exec " + FLOOR + " " + program + " " + std::to_string(count)).c_str(), "re");
    double rate = 0;
    if (out == nullptr || fscanf(out, "%lf", &rate) != 1 || pclose(out) != 0) {
        fail("the floor failed");
    }
    return rate;
}

// One request after the other, each to its notice. Adds to `waits` what each descriptor took.
double onebyone(const std::string &program, int count, std::vector<double> &waits) {
    begin();
    const auto start = Clock::now();
    for (int i = 0; i < count; i++) {
        const auto asked = Clock::now();
        plex::hostrun(own.link, i, program);
        next();
        const int fd = descriptor();
        waits.push_back(since(asked));
        const plex::clientmsg notice = next();
        if (notice.msgtyp != plex::MSG_ENDED || notice.usrnum != i || notice.message != 0) {
            fail("an odd notice: %d %d %d", notice.usrnum, notice.msgtyp, notice.message);
        }
        close(fd);
    }
    const double rate = count / since(start);
    plex::stopdaemon(own);
    return rate;
}

// Eight at a time, each until the end of its output; notices may be held back and are not waited
// for.
double several(const std::string &program, int count, std::vector<double> &waits) {
    begin();
    std::vector<pollfd> fds = {{own.link, POLLIN, 0}};
    std::vector<Clock::time_point> asked(static_cast<size_t>(count));
    int requested = 0;
    const auto start = Clock::now();
    const auto request = [&] {
        if (requested < count) {
            asked[static_cast<size_t>(requested)] = Clock::now();
            plex::hostrun(own.link, requested++, program);
        }
    };
    for (int i = 0; i < inflight; i++) {
        request();
    }
    for (int ended = 0; ended < count;) {
        poll(fds.data(), fds.size(), -1);
        for (size_t i = fds.size() - 1; i > 0; i--) {
            if ((fds[i].revents & POLLHUP) != 0) {
                close(fds[i].fd);
                fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
                ended++;
                request();
            }
        }
        if (fds[0].revents != 0) {
            const plex::clientmsg record = next();
            if (record.msgtyp == plex::MSG_STARTED) {
                fds.push_back({descriptor(), 0, 0});
                waits.push_back(since(asked[static_cast<size_t>(record.usrnum)]));
            }
        }
    }
    const double rate = count / since(start);
    plex::stopdaemon(own);
    return rate;
}

// Resident memory of the daemon in kB, as it is to the page.
long resident() {
    usleep(100000); // it may still be on its way to its next read
    const std::string path = "/proc/" + std::to_string(own.pid) + "/smaps_rollup";
    FILE *file = fopen(path.c_str(), "re");
    char line[256];
    long kilobytes = -1;
    while (file != nullptr && kilobytes < 0 && fgets(line, sizeof line, file) != nullptr) {
        sscanf(line, "Rss: %ld kB", &kilobytes);
    }
    if (kilobytes < 0) {
        fail("cannot read %s", path.c_str());
    }
    fclose(file);
    return kilobytes;
}

void memory() {
    begin();
    const long idle = resident();
    std::vector<int> fds;
    for (int i = 0; i < running; i++) {
        plex::hostrun(own.link, i, EXIT0 + " stay");
        next();
        fds.push_back(descriptor());
    }
    const long full = resident();
    for (const int fd : fds) {
        close(fd);
    }
    plex::stopdaemon(own);
    printf("resident memory: idle %ld kB, with %d commands %ld kB\n", idle, running, full);
}

// One way of launching, over all rounds.
struct Way {
    const char *what;
    const std::string &program;
    double (*launcher)(const std::string &program, int count, std::vector<double> &waits);
    std::vector<double> rates{}; // launches per second
    std::vector<double> costs{}; // processor seconds for one
    std::vector<double> waits{}; // seconds from request to descriptor
};

void measure(Way &way, int count) {
    const double before = processor();
    way.rates.push_back(way.launcher(way.program, count, way.waits));
    way.costs.push_back((processor() - before) / count);
}

void print(const Way &way, const Way &base) {
    const double rate = quantile(way.rates, 0.5);
    printf("%-26s %8.0f %7.2f %11.0f", way.what, rate, rate / quantile(base.rates, 0.5),
           quantile(way.costs, 0.5) * 1e6);
    if (!way.waits.empty()) {
        printf(" %11.0f %7.0f", quantile(way.waits, 0.5) * 1e6, quantile(way.waits, 0.99) * 1e6);
    }
    putchar('\n');
}

} // namespace

int main(int argc, char **argv) {
    const int rounds = argc > 1 ? atoi(argv[1]) : 5;
    const int count = argc > 2 ? atoi(argv[2]) : 1000;
    if (rounds <= 0 || count < inflight) {
        fputs("usage: launch [ROUNDS [COUNT]]\n", stderr);
        return 2;
    }
    // Commands whose notice is held back keep a descriptor in the daemon.
    rlimit files = {};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    cpu_set_t cores;
    sched_getaffinity(0, sizeof cores, &cores);

    // Each pair a floor and the daemon's way, on so many cores.
    struct {
        int cores;
        Way floor, daemon;
    } pairs[] = {
        {1,
         {"one core   no broker", EXIT0, nobroker},
         {"           one at a time", EXIT0, onebyone}},
        {2, {"two cores  no broker", EXIT0, nobroker}, {"           8 in flight", EXIT0, several}},
        {1, {"bare, one  no broker", BARE, nobroker}, {"           one at a time", BARE, onebyone}},
    };
    for (int i = 0; i < rounds; i++) {
        for (auto &pair : pairs) {
            if (pair.cores <= CPU_COUNT(&cores)) {
                confine(cores, pair.cores);
                measure(pair.floor, count);
                measure(pair.daemon, count);
            }
        }
    }
    printf("medians of %d rounds of %d launches\n", rounds, count);
    printf("%-26s %8s %7s %11s %19s\n", "", "", "of the", "processor", "request to");
    printf("%-26s %8s %7s %11s %19s\n", "", "", "floor's", "time of one", "descriptor, us");
    printf("%-26s %8s %7s %11s %11s %7s\n", "", "per s", "rate", "us", "p50", "p99");
    for (const auto &pair : pairs) {
        if (pair.floor.rates.empty()) {
            puts("two cores  not measured: there is one");
        } else {
            print(pair.floor, pair.floor);
            print(pair.daemon, pair.floor);
        }
    }
    memory();
    return 0;
}
