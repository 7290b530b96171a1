// What harbour costs, beside a bare relay (one process, one pseudo-terminal, no host), beside
// telnetd serving the same program from a listener of ours, and beside an sshd with keys of its
// own. All ratios are from this one run.
//
//     bench/calls [CALLERS]        500 when nothing is said
//     bench/calls soak [SECONDS]   60; calls of all kinds, and what the board holds afterwards

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/tcp.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned char IAC = 255;
constexpr unsigned char DONT = 254;
constexpr unsigned char DO = 253;
constexpr unsigned char WONT = 252;
constexpr unsigned char WILL = 251;
constexpr long flood = 256L << 20;
constexpr int keystrokes = 4000;
constexpr int callsatonce = 8;

[[noreturn]] void fail(const char *what) {
    perror(what);
    exit(1);
}

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// A process that does not outlive this one.
pid_t child() {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
    }
    return pid;
}

int listenany(int &port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof at;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&at), len) != 0 || listen(fd, 1024) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&at), &len) != 0) {
        fail("listen");
    }
    port = ntohs(at.sin_port);
    return fd;
}

// -1: nobody listens.
int trydial(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    at.sin_port = htons(static_cast<uint16_t>(port));
    const int on = 1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0 ||
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int dial(int port) {
    const int fd = trydial(port);
    if (fd < 0) {
        fail("connect");
    }
    return fd;
}

void say(int fd, const std::string &bytes) {
    if (send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        fail("send");
    }
}

// A caller who accepts binary mode and no other option. `seen` keeps the data that came last.
struct Caller {
    int fd = -1;
    std::string seen;
    std::string raw;
    bool closed = false;

    // Takes what is there, answering offers.
    void take() {
        char bytes[65536];
        errno = 0;
        const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
        closed = n <= 0;
        raw.append(bytes, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        size_t at = 0;
        while (at < raw.size()) {
            if (static_cast<unsigned char>(raw[at]) != IAC) {
                const size_t next = std::min(raw.find(static_cast<char>(IAC), at), raw.size());
                seen.append(raw, at, next - at);
                at = next;
                continue;
            }
            if (raw.size() - at < 3) {
                break;
            }
            const auto verb = static_cast<unsigned char>(raw[at + 1]);
            if (verb == WILL || verb == DO) {
                const bool binary = raw[at + 2] == 0;
                const auto answer = verb == WILL ? (binary ? DO : DONT) : (binary ? WILL : WONT);
                const char bytes[] = {static_cast<char>(IAC), static_cast<char>(answer),
                                      raw[at + 2]};
                send(fd, bytes, sizeof bytes, MSG_NOSIGNAL); // he may have gone
            }
            at += 3;
        }
        raw.erase(0, at);
    }
    void expect(const char *text) {
        size_t at = 0;
        while ((at = seen.find(text)) == std::string::npos) {
            if (closed) {
                fprintf(stderr, "calls: no \"%s\" in \"%s\"\n", text, seen.c_str());
                exit(1);
            }
            take();
        }
        seen.erase(0, at + strlen(text));
    }
    void end() {
        close(fd);
        *this = {};
    }
};

// --- the boards

std::string home;
pid_t board = -1;
int boardport;

void write(const std::string &name, const std::string &text) {
    std::ofstream(home + "/" + name) << text;
}

std::string slurp(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

void startboard(int lines) {
    write("cfg", "HOME=" + home + "\nLISTEN=127.0.0.1:0\nLINES=" + std::to_string(lines) +
                     "\nIDLE=0\nMINUTES=0\n");
    write("pxhost.cfg", "NLingo=1\nLNG=English/ANSI\n");
    write("harbour.menu", "C|0|Cat|/bin/sh -c \"stty raw -echo; echo =; exec cat\"\n"
                          "Z|0|Zeros|/bin/sh -c \"stty raw -echo; exec head -c " +
                              std::to_string(flood) + " /dev/zero\"\nT|0|True|/bin/true\n");
    unlink((home + "/harbour.log").c_str());
    board = child();
    if (board == 0) {
        setenv("BBSCONFIG", (home + "/cfg").c_str(), 1);
        setenv("BBSLOG", "file", 1);
        setenv("BBSDISP", "nullcon", 1);
        execl(HARBOUR, "harbour", nullptr);
        _exit(127);
    }
    size_t at = 0;
    std::string log;
    while ((at = (log = slurp(home + "/harbour.log")).find("listening at 127.0.0.1:")) ==
           log.npos) {
        if (waitpid(board, nullptr, WNOHANG) != 0) {
            fail("harbour");
        }
        poll(nullptr, 0, 1);
    }
    boardport = atoi(log.c_str() + at + 23);
}

void stop(pid_t pid) {
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

Caller atmenu() {
    Caller caller;
    caller.fd = dial(boardport);
    say(caller.fd, "1");
    caller.expect("Your choice: ");
    return caller;
}

Caller withprogram(const char *key, const char *shows) {
    Caller caller = atmenu();
    say(caller.fd, key);
    caller.expect(shows);
    return caller;
}

// The bare relay: for each connection a program on a terminal of its own, one connection at a time.
void copy(int from, int to, bool &open) {
    static char bytes[65536];
    const ssize_t n = read(from, bytes, sizeof bytes);
    open = n > 0;
    for (ssize_t done = 0; done < n && open;) {
        const ssize_t put = ::write(to, bytes + done, static_cast<size_t>(n - done));
        open = put > 0;
        done += put;
    }
}

pid_t startbare(const char *command, int &port) {
    const int listener = listenany(port);
    const pid_t pid = child();
    if (pid != 0) {
        close(listener);
        return pid;
    }
    signal(SIGPIPE, SIG_IGN);
    for (;;) {
        const int caller = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int on = 1;
        setsockopt(caller, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        int master = -1;
        const pid_t program = forkpty(&master, nullptr, nullptr, nullptr);
        if (program == 0) {
            execl("/bin/sh", "sh", "-c", command, nullptr);
            _exit(127);
        }
        for (bool open = true; open;) {
            pollfd fds[] = {{caller, POLLIN, 0}, {master, POLLIN, 0}};
            poll(fds, 2, -1);
            if (fds[1].revents != 0) {
                copy(master, caller, open);
            }
            if (fds[0].revents != 0 && open) {
                copy(caller, master, open);
            }
        }
        close(master);
        close(caller);
        waitpid(program, nullptr, 0);
    }
}

// telnetd from a listener, as inetd has it.
pid_t starttelnetd(const char *program, int &port) {
    const int listener = listenany(port);
    const pid_t pid = child();
    if (pid != 0) {
        close(listener);
        return pid;
    }
    signal(SIGCHLD, SIG_IGN);
    for (;;) {
        const int caller = accept(listener, nullptr, nullptr);
        if (fork() == 0) {
            for (int fd = 0; fd < 3; fd++) {
                dup2(caller, fd);
            }
            close(caller);
            signal(SIGCHLD, SIG_DFL);
            execl("/usr/sbin/telnetd", "telnetd", "-h", "-E", program, nullptr);
            _exit(127);
        }
        close(caller);
    }
}

// sshd with keys and a configuration in our home; who has the key gets a cat. -1: it does not
// start.
pid_t sshd = -1;

pid_t startsshd(int &port) {
    const std::string at = home + "/";
    close(listenany(port));
    write("sshd.cfg", "ListenAddress 127.0.0.1:" + std::to_string(port) + "\nHostKey " + at +
                          "host\nAuthorizedKeysFile " + at + "user.pub\nPidFile none\n" +
                          "UsePAM no\nStrictModes no\nPermitRootLogin yes\nMaxStartups 1000\n" +
                          "PerSourceMaxStartups none\nForceCommand exec cat\n");
    const std::string keygen = "ssh-keygen -q -t ed25519 -N '' -f " + at;
    if (system((keygen + "host && " + keygen + "user").c_str()) != 0) {
        return -1;
    }
    if (geteuid() == 0) {
        mkdir("/run/sshd", 0755); // it wants that; systemd would have made it
    }
    const pid_t pid = child();
    if (pid == 0) {
        execl("/usr/sbin/sshd", "/usr/sbin/sshd", "-D", "-f", (at + "sshd.cfg").c_str(), "-E",
              (at + "sshd.log").c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

// Calls it; what is read and written is the terminal's.
Caller callsshd(int port) {
    int both[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both);
    const std::string key = home + "/user";
    if (child() == 0) {
        dup2(both[1], STDIN_FILENO);
        dup2(both[1], STDOUT_FILENO);
        execl("/usr/bin/ssh", "ssh", "-tt", "-q", "-F", "none", "-i", key.c_str(), "-p",
              std::to_string(port).c_str(), "-o", "BatchMode=yes", "-o", "IdentityAgent=none", "-o",
              "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null", "-o",
              "ConnectionAttempts=50", "127.0.0.1", nullptr);
        _exit(127);
    }
    close(both[1]);
    Caller caller;
    caller.fd = both[0];
    return caller;
}

// --- what is measured

long field(pid_t pid, const char *file, const char *name) {
    const std::string text = slurp("/proc/" + std::to_string(pid) + "/" + file);
    const size_t at = text.find(name);
    return at == text.npos ? 0 : atol(text.c_str() + at + strlen(name));
}

long rss(pid_t pid) {
    return field(pid, "status", "VmRSS:");
}

std::vector<pid_t> childrenof(pid_t pid) {
    const std::string id = std::to_string(pid);
    std::istringstream text(slurp("/proc/" + id + "/task/" + id + "/children"));
    std::vector<pid_t> pids;
    for (pid_t child = 0; text >> child;) {
        pids.push_back(child);
    }
    return pids;
}

// The share of memory of a process and all that it started.
long pss(pid_t pid) {
    long sum = field(pid, "smaps_rollup", "Pss:");
    for (const pid_t child : childrenof(pid)) {
        sum += pss(child);
    }
    return sum;
}

double keystroke(Caller &caller) {
    const auto start = Clock::now();
    char byte = 'x';
    send(caller.fd, &byte, 1, MSG_NOSIGNAL);
    if (recv(caller.fd, &byte, 1, 0) != 1 || byte != 'x') {
        fail("keystroke");
    }
    return seconds(start) * 1e6;
}

double at(std::vector<double> &times, double part) {
    std::sort(times.begin(), times.end());
    return times[static_cast<size_t>(static_cast<double>(times.size() - 1) * part)];
}

void latency(std::vector<Caller> &callers) {
    int port = 0;
    const pid_t bare = startbare("stty raw -echo; echo =; exec cat", port);
    Caller alone;
    alone.fd = dial(port);
    alone.expect("=\n");
    std::vector<double> times[2];
    for (int i = 0; i < keystrokes; i++) { // in turns, so that the machine is the same for both
        times[0].push_back(keystroke(alone));
        times[1].push_back(keystroke(callers[static_cast<size_t>(rand()) % callers.size()]));
    }
    for (const double part : {0.5, 0.99}) {
        printf("keystroke p%.0f: bare %.1f us, harbour with %zu callers %.1f us: %.2f times\n",
               part * 100, at(times[0], part), callers.size(), at(times[1], part),
               at(times[1], part) / at(times[0], part));
    }
    alone.end();
    stop(bare);
}

// Megabytes a second of one caller's output.
double rate(Caller &caller) {
    static char bytes[1 << 20];
    const auto start = Clock::now();
    for (long got = 0; got < flood;) {
        const ssize_t n = recv(caller.fd, bytes, sizeof bytes, 0);
        if (n <= 0) {
            fail("output");
        }
        got += std::count(bytes, bytes + n, '\0');
    }
    return static_cast<double>(flood) / seconds(start) / 1e6;
}

double bestbare(int rounds) {
    int port = 0;
    const std::string command =
        "stty raw -echo; exec head -c " + std::to_string(flood) + " /dev/zero";
    const pid_t bare = startbare(command.c_str(), port);
    double best = 0;
    for (int i = 0; i < rounds; i++) {
        Caller caller;
        caller.fd = dial(port);
        best = std::max(best, rate(caller));
        caller.end();
    }
    stop(bare);
    return best;
}

void throughput(const char *who) {
    double bare = 0;
    double board = 0;
    for (int i = 0; i < 3; i++) { // in turns
        bare = std::max(bare, bestbare(1));
        Caller caller = atmenu();
        say(caller.fd, "z");
        board = std::max(board, rate(caller));
        caller.end();
    }
    printf("256 MiB of output, %s: bare %.0f MB/s, harbour %.0f MB/s: %.2f\n", who, bare, board,
           board / bare);
}

void oncores(int cores, pid_t pid) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int i = 0; i < cores; i++) {
        CPU_SET(i, &set);
    }
    sched_setaffinity(pid, sizeof set, &set);
}

// Calls a second, several at a time, each in a process of its own: connect, run, see it end.
template <class Call> double calls(double howlong, Call call) {
    int pipes[2];
    if (pipe(pipes) != 0) {
        fail("pipe");
    }
    const auto start = Clock::now();
    for (int i = 0; i < callsatonce; i++) {
        if (fork() == 0) {
            long n = 0;
            while (seconds(start) < howlong) {
                n += call() ? 1 : 0;
            }
            [[maybe_unused]] const ssize_t told = ::write(pipes[1], &n, sizeof n);
            _exit(0);
        }
    }
    long sum = 0;
    for (int i = 0; i < callsatonce; i++) {
        long n = 0;
        if (read(pipes[0], &n, sizeof n) != sizeof n) {
            fail("calls");
        }
        sum += n;
    }
    const double took = seconds(start);
    close(pipes[0]);
    close(pipes[1]);
    return static_cast<double>(sum) / took;
}

void callrate(int cores) {
    oncores(cores, 0); // what is started from here on inherits it
    startboard(64);
    const double ours = calls(5, [] {
        Caller caller = withprogram("t", "True has ended");
        caller.expect("Your choice: ");
        caller.end();
        return true;
    });
    stop(board);
    int port = 0;
    const pid_t other = starttelnetd("/bin/true", port);
    const double theirs = calls(5, [port] {
        Caller caller;
        caller.fd = dial(port);
        const timeval patience = {1, 0}; // a program that ends at once escapes telnetd now and then
        setsockopt(caller.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        while (!caller.closed) {
            caller.take();
        }
        const bool ended = errno != EAGAIN;
        caller.end();
        return ended;
    });
    stop(other);
    printf("calls a second on %d core%s: telnetd %.0f, harbour %.0f: %.2f times\n", cores,
           cores == 1 ? "" : "s", theirs, ours, ours / theirs);
    oncores(CPU_SETSIZE, 0);
}

// Memory of a server and all that it started, with so many calls, each with its cat.
template <class Call> long idlememory(pid_t server, int count, Call call) {
    std::vector<Caller> callers(static_cast<size_t>(count));
    std::generate(callers.begin(), callers.end(), call);
    const long all = pss(server);
    for (Caller &caller : callers) {
        caller.end();
    }
    stop(server);
    return all;
}

// Sends the first line to a cat and sees it come back.
Caller tried(Caller caller) {
    say(caller.fd, "x\r");
    caller.expect("x");
    return caller;
}

// Starts sshd and tries it. Returns an empty string, or why it does not serve here.
std::string missingsshd(int &port) {
    constexpr int patience = 10000; // milliseconds
    if (access("/usr/sbin/sshd", X_OK) != 0 || access("/usr/bin/ssh", X_OK) != 0) {
        return "it is not installed (Debian: openssh-server)";
    }
    sshd = startsshd(port);
    int fd = -1;
    for (int ms = 0; sshd > 0 && ms < patience && fd < 0; ms += 10) {
        poll(nullptr, 0, 10);
        fd = trydial(port);
    }
    close(fd);
    Caller first = callsshd(port);
    pollfd answer = {first.fd, POLLIN, 0};
    say(first.fd, "x\r");
    char byte = 0;
    const bool served = poll(&answer, 1, patience) == 1 && recv(first.fd, &byte, 1, 0) == 1;
    first.end();
    if (!served && sshd > 0) {
        stop(sshd);
    }
    return served ? "" : "it says: " + slurp(home + "/sshd.log");
}

void compareidle() {
    constexpr int count = 100;
    int port = 0;
    startboard(count);
    const long ours = idlememory(board, count, [] { return withprogram("c", "="); });
    const auto beside = [ours](const char *whose, long theirs) {
        printf("memory of %d idle calls, with their cat: %s %ld kB, harbour %ld kB: %.2f\n", count,
               whose, theirs, ours, static_cast<double>(ours) / static_cast<double>(theirs));
    };
    const pid_t telnetd = starttelnetd("/bin/cat", port);
    beside("telnetd", idlememory(telnetd, count, [port] {
               Caller caller;
               caller.fd = dial(port);
               return tried(caller);
           }));
    const std::string why = missingsshd(port);
    if (!why.empty()) {
        printf("no sshd to compare with: %s\n", why.c_str());
        return;
    }
    beside("sshd", idlememory(sshd, count, [port] { return tried(callsshd(port)); }));
}

long ticks(pid_t pid) {
    const std::string text = slurp("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; i++) {
        fields >> skipped;
    }
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

void withcallers(int count) {
    startboard(count + 1);
    std::vector<Caller> callers = {withprogram("c", "=\n")};
    const long one = rss(board);
    throughput("one caller more");
    const long used = rss(board);
    while (static_cast<int>(callers.size()) < count) {
        callers.push_back(withprogram("c", "=\n"));
    }
    printf(
        "memory: harbour %ld kB with one caller, %ld after the output; each of %d more: %.1f kB\n",
        one, used, count - 1, static_cast<double>(rss(board) - used) / std::max(count - 1, 1));
    latency(callers);
    throughput("beside the idle lines");
    const long before = ticks(board);
    poll(nullptr, 0, 10000);
    printf("idle with %d callers: %.2f %% of a core\n", count,
           static_cast<double>(ticks(board) - before) * 100 /
               static_cast<double>(sysconf(_SC_CLK_TCK)) / 10);
    for (Caller &caller : callers) {
        caller.end();
    }
    stop(board);
}

// One caller after another until the time is over, in one of the ways that callers have.
long soaker(unsigned seed, Clock::time_point end) {
    srand(seed);
    long calls = 0;
    for (; Clock::now() < end; calls++) {
        const int kind = rand() % 8;
        Caller caller;
        caller.fd = dial(boardport);
        say(caller.fd, "1");
        if (kind == 0) { // no further than the greeting
            caller.expect("harbour");
        } else if (kind == 1) { // half a command
            say(caller.fd, "\xff\xfa\x18");
        } else {
            caller.expect("Your choice: ");
        }
        if (kind >= 2 && kind < 5) { // a program to its end
            say(caller.fd, "t");
            caller.expect("True has ended");
            caller.expect("Your choice: ");
        } else if (kind == 5) { // gone from under much output, nothing of it left unread by others
            say(caller.fd, "z");
            caller.take();
            poll(nullptr, 0, rand() % 50);
        } else if (kind == 6) { // a while at a program
            say(caller.fd, "c");
            caller.expect("=\n");
            for (int i = 0; i < 100; i++) {
                keystroke(caller);
            }
        } else if (kind == 7) {
            say(caller.fd, "g");
            caller.expect("Goodbye");
        }
        const linger reset = {1, 0};
        if (rand() % 2 == 0) {
            setsockopt(caller.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        }
        caller.end();
    }
    return calls;
}

long opened(pid_t pid) {
    long count = 0;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    for ([[maybe_unused]] const auto &fd : std::filesystem::directory_iterator(dir)) {
        count++;
    }
    return count;
}

// All that the board and its daemon hold, when nobody calls: descriptors, programs, memory.
struct Held {
    long descriptors;
    size_t programs;
    long memory;
};

Held held() {
    const pid_t daemon = childrenof(board)[0];
    return {opened(board) + opened(daemon), childrenof(daemon).size(), rss(board) + rss(daemon)};
}

// Callers of all kinds at once; in the end the board must hold what it held after the first second.
int soak(int howlong) {
    constexpr int callers = 16;
    constexpr long slack = 1024; // kB
    constexpr int patience = 10000;
    long calls = 0;
    startboard(4 * callers); // lines may be free a little later than who had them
    Held before = {};
    for (const int time : {1, howlong}) {
        int pipes[2];
        if (pipe(pipes) != 0) {
            fail("pipe");
        }
        const auto end = Clock::now() + std::chrono::seconds(time);
        for (int i = 0; i < callers; i++) {
            if (child() == 0) {
                const long n = soaker(static_cast<unsigned>(i), end);
                _exit(::write(pipes[1], &n, sizeof n) == sizeof n ? 0 : 1);
            }
        }
        close(pipes[1]);
        int done = 0;
        for (long n = 0; read(pipes[0], &n, sizeof n) == sizeof n; done++) {
            calls += n;
        }
        close(pipes[0]);
        if (done != callers) {
            puts("FAULT: a caller got something else than he waited for");
            return 1;
        }
        Held now = held();
        for (int ms = 0; ms < patience && now.programs > 0; ms += 10) {
            poll(nullptr, 0, 10);
            now = held();
        }
        poll(nullptr, 0, 2000); // what was read of dead callers
        now = held();
        printf("%ld calls: %ld descriptors, %zu programs, %ld kB\n", calls, now.descriptors,
               now.programs, now.memory);
        if (time == howlong && (now.descriptors != before.descriptors || now.programs > 0 ||
                                now.memory > before.memory + slack)) {
            puts("FAULT: the board holds more than it did");
            return 1;
        }
        before = now;
    }
    int status = 0;
    kill(board, SIGTERM);
    while (waitpid(board, &status, 0) != board) {
    }
    if (status != 0) {
        puts("FAULT: the board did not end orderly");
    }
    return status == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    const bool soaking = argc > 1 && strcmp(argv[1], "soak") == 0;
    const int count = argc > 1 ? atoi(argv[1]) : 500;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    signal(SIGPIPE, SIG_IGN);
    char dir[] = "/tmp/calls.XXXXXX";
    home = mkdtemp(dir) != nullptr ? dir : "";
    setvbuf(stdout, nullptr, _IOLBF, 0);

    if (soaking) {
        const int status = soak(argc > 2 ? atoi(argv[2]) : 60);
        std::filesystem::remove_all(home);
        return status;
    }
    if (count > 0) {
        withcallers(count);
    }
    if (access("/usr/sbin/telnetd", X_OK) == 0) {
        callrate(1);
        callrate(2);
        compareidle();
    } else {
        puts("no telnetd to compare with (Debian: inetutils-telnetd)");
    }
    std::filesystem::remove_all(home);
    return 0;
}
