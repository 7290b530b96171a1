// A long mixed run whose accounts must agree:  soak [SECONDS]  (180 when nothing is said)
//
// Rounds with a daemon each: commands that end at once, that live long, that write much, hundreds
// at once; kill requests; in the end the host closes with commands running. What was asked is held
// against what was told: the daemon reaps one ended command for each SIGCHLD, so a command that
// ended untold must be a child it has not reaped, and as many signals as there are of those must
// bring every notice that is due. Then the daemon must hold what it held at the start. Ends with 1
// and a line for each fault when anything disagrees.

#include "libunix/host/hostlink.h"
#include "tools/owndaemon.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using plex::clientmsg;
using plex::Link;

constexpr int patience = 30000;  // milliseconds that any one thing may take
constexpr int roundseconds = 10; // of mixed work for one daemon
constexpr size_t atonce = 500;   // commands in a burst
constexpr size_t bulk = 300000;  // bytes of a command that writes much
constexpr long rssslack = 256;   // kilobytes that a daemon may keep of a round

int faults;

[[gnu::format(printf, 1, 2)]] void fault(const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    fputs("FAULT: ", stdout);
    vprintf(fmt, args);
    fputc('\n', stdout);
    va_end(args);
    faults++;
}

[[noreturn]] void giveup(const char *what) {
    fprintf(stderr, "soak: %s (%s)\n", what, strerror(errno));
    exit(2);
}

struct Command {
    enum Kind { exits, lives, writes } kind;
    int code;              // for one that exits
    int master = -1;       // -1 once it hung up
    pid_t pid = 0;         // as it says itself
    std::string said;      // its first line, until that is whole
    size_t bytes = 0;      // behind it
    bool finished = false; // its input was ended
    bool killed = false;
    bool killserved = false; // the daemon has read the kill request
    bool told = false;
    bool hungup = false;
};

struct Account {
    plex::OwnDaemon own;
    std::map<int, Command> commands; // by user number; each has its own
    int next = 1;
    size_t told = 0, untold = 0; // untold: killed, and forgotten by the daemon
    std::vector<int> killsent;   // the users whose kill requests may be unread
};

std::string slurp(const std::string &path) {
    std::string text;
    FILE *f = fopen(path.c_str(), "re");
    for (int c = 0; f != nullptr && (c = getc(f)) != EOF;) {
        text += static_cast<char>(c);
    }
    if (f != nullptr) {
        fclose(f);
    }
    return text;
}

char state(pid_t pid) {
    const std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren == std::string::npos ? '-' : stat[paren + 2];
}

struct Open {
    size_t all;
    size_t masters; // of terminals
};

Open descriptors(pid_t pid) {
    Open n = {};
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd/";
    DIR *dir = opendir(folder.c_str());
    for (const dirent *e = nullptr; dir != nullptr && (e = readdir(dir)) != nullptr;) {
        char path[64];
        const ssize_t len = readlink((folder + e->d_name).c_str(), path, sizeof path);
        n.all += len > 0 ? 1 : 0;
        n.masters += len > 0 && std::string_view(path, static_cast<size_t>(len)).ends_with("ptmx");
    }
    if (dir != nullptr) {
        closedir(dir);
    }
    return n;
}

long resident(pid_t pid) {
    const std::string status = slurp("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0 : atol(status.c_str() + at + 6);
}

std::vector<pid_t> children(pid_t pid) {
    const std::string id = std::to_string(pid);
    const std::string text = slurp("/proc/" + id + "/task/" + id + "/children");
    std::vector<pid_t> pids;
    for (size_t at = 0; at < text.size(); at = text.find(' ', at) + 1) {
        pids.push_back(atoi(text.c_str() + at));
    }
    return pids;
}

void notice(Account &acc, const clientmsg &m) {
    const auto found = acc.commands.find(m.usrnum);
    if (m.msgtyp != plex::MSG_ENDED || found == acc.commands.end()) {
        fault("a notice that nobody asked for: %d, %d, %d", m.usrnum, m.msgtyp, m.message);
        return;
    }
    Command &c = found->second;
    if (c.told) {
        fault("user %d is told of again", m.usrnum);
        return;
    }
    // A command may end by itself before its kill request is read: the notice was on its way then.
    if (c.killserved || (c.kind == Command::lives && !c.finished)) {
        fault("user %d was killed, and is told of", m.usrnum);
    }
    if (m.message != c.code << 8) {
        fault("user %d ended with 0x%x, not %d", m.usrnum, static_cast<unsigned>(m.message),
              c.code);
    }
    c.told = true;
    acc.told++;
    acc.untold -= c.killed ? 1 : 0;
}

void output(Command &c) {
    char bytes[16384];
    const ssize_t n = read(c.master, bytes, sizeof bytes);
    if (n <= 0) {
        if (n == 0 || errno == EIO) {
            close(c.master);
            c.master = -1;
            c.hungup = true;
        }
        return;
    }
    for (ssize_t i = 0; i < n; i++) {
        if (c.pid == 0) {
            c.said += bytes[i];
            c.pid = bytes[i] == '\n' ? atoi(c.said.c_str()) : 0;
        } else {
            c.bytes++;
        }
    }
}

// Reads what has come: notices, and the commands' output.
void listen(Account &acc, int milliseconds) {
    std::vector<pollfd> fds = {{acc.own.link, POLLIN, 0}};
    std::vector<Command *> whose = {nullptr};
    for (auto &[usrnum, c] : acc.commands) {
        if (c.master >= 0) {
            fds.push_back({c.master, POLLIN, 0});
            whose.push_back(&c);
        }
    }
    if (poll(fds.data(), fds.size(), milliseconds) <= 0) {
        return;
    }
    for (size_t i = 1; i < fds.size(); i++) {
        if (fds[i].revents != 0) {
            output(*whose[i]);
        }
    }
    clientmsg m = {};
    if (fds[0].revents != 0) {
        const Link link = plex::hostread(acc.own.link, m);
        link == Link::got ? notice(acc, m) : giveup(plex::linktext(link));
    }
}

// Listens until `done`; a fault when that takes too long.
template <class Done> bool until(Account &acc, const char *what, Done done) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(patience);
    while (!done()) {
        if (Clock::now() > deadline) {
            fault("%s", what);
            return false;
        }
        listen(acc, 5);
    }
    return true;
}

// Asks for a command. Notices of others may come before the answer.
Command &run(Account &acc, Command::Kind kind, int code) {
    const int usrnum = acc.next++;
    const std::string tail = kind == Command::exits ? "exit " + std::to_string(code)
                             : kind == Command::lives
                                 ? std::string("exec cat")
                                 : "exec head -c " + std::to_string(bulk) + " /dev/zero";
    if (plex::hostrun(acc.own.link, usrnum, "/bin/sh -c \"echo $$; " + tail + "\"") != 0) {
        giveup("cannot ask");
    }
    clientmsg m = {};
    for (;;) {
        const Link link = plex::hostread(acc.own.link, m);
        if (link != Link::got) {
            giveup(plex::linktext(link));
        }
        if (m.msgtyp != plex::MSG_ENDED) {
            break;
        }
        notice(acc, m);
    }
    if (m.usrnum != usrnum || m.msgtyp != plex::MSG_STARTED) {
        fault("user %d is answered with %d, %d", usrnum, m.usrnum, m.msgtyp);
    }
    for (const int killed : acc.killsent) { // requests are served in order: these were read before
        acc.commands[killed].killserved = true;
    }
    acc.killsent.clear();
    Command &c = acc.commands[usrnum];
    c.kind = kind;
    c.code = kind == Command::exits ? code : 0;
    if (plex::hostfd(acc.own.link, c.master) != Link::got) {
        giveup("no descriptor came");
    }
    fcntl(c.master, F_SETFL, O_NONBLOCK | O_RDWR);
    return c;
}

void finish(Command &c) {
    if (c.master >= 0 && write(c.master, "\x01", 1) != 1) { // the end of its input
        fault("cannot write to a command that lives");
    }
    c.finished = true;
}

void kill(Account &acc, int usrnum, Command &c) {
    listen(acc, 0); // its end may have been told by now
    if (!c.told && !c.killed) {
        if (plex::hostkill(acc.own.link, usrnum) != 0) {
            giveup("cannot ask for a kill");
        }
        c.killed = true;
        acc.killsent.push_back(usrnum);
        acc.untold++;
    }
}

// A command that is killed may end before it says its number, and be told of in that very moment.
bool over(const Command &c) {
    return c.told || c.killed || c.hungup;
}

void mixed(Account &acc, std::mt19937 &dice) {
    const auto end = Clock::now() + std::chrono::seconds(roundseconds);
    while (Clock::now() < end) {
        const unsigned roll = static_cast<unsigned>(dice()) % 100;
        if (roll < 55) {
            run(acc, Command::exits, static_cast<int>(dice() % 200));
        } else if (roll < 60) {
            run(acc, Command::writes, 0);
        } else if (roll < 75) {
            run(acc, Command::lives, 0);
        } else {
            const auto usrnum = 1 + static_cast<int>(dice() % static_cast<unsigned>(acc.next));
            const auto found = acc.commands.find(usrnum);
            // To end one by hand it must be known to read.
            if (found != acc.commands.end() && found->second.kind == Command::lives &&
                found->second.pid != 0 && !over(found->second)) {
                roll < 90 ? finish(found->second) : kill(acc, usrnum, found->second);
            }
        }
        listen(acc, 0);
    }
}

void burst(Account &acc) {
    std::vector<int> users;
    for (size_t i = 0; i < atonce; i++) {
        users.push_back(acc.next);
        run(acc, Command::lives, 0);
    }
    until(acc, "a burst does not start", [&] {
        return std::all_of(users.begin(), users.end(),
                           [&](int u) { return acc.commands[u].pid != 0; });
    });
    for (const int u : users) {
        finish(acc.commands[u]);
    }
}

void settle(Account &acc) {
    for (auto &[usrnum, c] : acc.commands) {
        until(acc, "a command that lives does not start",
              [&c = c] { return c.kind != Command::lives || c.pid != 0 || over(c); });
        if (c.kind == Command::lives && !over(c)) {
            finish(c);
        }
    }
    until(acc, "a command does not end", [&] {
        return std::all_of(acc.commands.begin(), acc.commands.end(), [](const auto &e) {
            return over(e.second) && (e.second.hungup || e.second.killed);
        });
    });
    // Ended is not reaped: what is untold must be a child, and a signal each brings the notice.
    const auto zombies = [&] {
        const auto pids = children(acc.own.pid);
        return std::all_of(pids.begin(), pids.end(), [](pid_t p) { return state(p) == 'Z'; });
    };
    until(acc, "a command that hung up does not end", zombies);
    for (size_t before = acc.told + 1; acc.told != before;) { // all that is told by now
        before = acc.told;
        listen(acc, 50);
    }
    const auto pids = children(acc.own.pid);
    for (const auto &[usrnum, c] : acc.commands) {
        if (!c.told && !c.killed && std::find(pids.begin(), pids.end(), c.pid) == pids.end()) {
            fault("user %d ended untold, and is no child that waits to be reaped", usrnum);
        }
        if (c.kind == Command::writes && c.bytes != bulk) {
            fault("user %d wrote %zu bytes", usrnum, c.bytes);
        }
    }
    printf("  %zu asked, %zu told, %zu killed, %zu wait for a signal\n", acc.commands.size(),
           acc.told, acc.untold, pids.size());
    // One for each signal: hundreds may take a busy machine longer than any one of them.
    size_t left = pids.size();
    while (left > 0 && until(acc, "a signal does not bring a notice", [&] {
               ::kill(acc.own.pid, SIGCHLD);
               return children(acc.own.pid).size() < left;
           })) {
        left = children(acc.own.pid).size();
    }
    // The last is told before its master is closed.
    until(acc, "signals do not bring the notices", [&] {
        return descriptors(acc.own.pid).masters == 0 &&
               acc.told + acc.untold == acc.commands.size();
    });
}

void round(std::mt19937 &dice, int number) {
    Account acc;
    std::string why = plex::makehome(acc.own);
    if (why.empty()) {
        why = plex::startdaemon(acc.own, VOSTERD);
    }
    if (why.empty()) {
        why = plex::awaitdaemon(acc.own);
    }
    if (!why.empty()) {
        giveup(why.c_str());
    }
    printf("round %d\n", number);
    run(acc, Command::exits, 0);
    settle(acc);
    const size_t standing = descriptors(acc.own.pid).all;
    const long before = resident(acc.own.pid);
    mixed(acc, dice);
    burst(acc);
    settle(acc);
    const size_t fds = descriptors(acc.own.pid).all;
    const long after = resident(acc.own.pid);
    printf("  resident %ld kB, then %ld kB; %zu descriptors\n", before, after, fds);
    if (fds != standing || after > before + rssslack) {
        fault("the daemon keeps %zu descriptors and %ld kB more than before", fds, after - before);
    }
    // The host closes in the middle of it all.
    std::vector<pid_t> running;
    for (int i = 0; i < 20; i++) {
        Command &c = run(acc, Command::lives, 0);
        until(acc, "a command does not start", [&] { return c.pid != 0; });
        running.push_back(c.pid);
    }
    close(acc.own.link);
    int status = -1;
    waitpid(acc.own.pid, &status, 0);
    if (status != 0 || access((acc.own.home + "/vosterd.pid").c_str(), F_OK) == 0) {
        fault("the daemon ended with status 0x%x", static_cast<unsigned>(status));
    }
    until(acc, "a command outlives its daemon", [&] {
        acc.own.link = -1;
        return std::all_of(running.begin(), running.end(), [](pid_t p) {
            const char s = state(p);
            return s == '-' || s == 'Z';
        });
    });
    for (auto &[usrnum, c] : acc.commands) {
        if (c.master >= 0) {
            close(c.master);
        }
    }
    acc.own.pid = -1;
    plex::stopdaemon(acc.own);
}

} // namespace

int main(int argc, char **argv) {
    const int seconds = argc > 1 ? atoi(argv[1]) : 180;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::mt19937 dice(1); // the same run every time, as far as the machine lets it
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (int number = 1; number == 1 || Clock::now() < end; number++) {
        round(dice, number);
    }
    printf(faults == 0 ? "the accounts agree\n" : "%d faults\n", faults);
    return faults == 0 ? 0 : 1;
}
