// A real daemon, driven over its endpoint: everything that a host can see of it.

#include "tests/host.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace {

using test::Daemon;
using test::show;
using test::slurp;
using test::state;

const std::string probe = BUILD_DIR "/tests/probe";

TEST_F(Daemon, TellsHowCommandsEnd) {
    begin();
    const std::string long1024 = "/bin/echo " + std::string(1014, 'x');
    const struct {
        std::string command, output;
        int status;
    } rows[] = {
        {"/bin/echo \"a b\" c", "a b c\r\n", 0},
        {"/bin/sh -c \"exit 7\"", "", 7 << 8},
        {"/bin/sh -c \"kill -9 $$\"", "", SIGKILL},
        {"/bin/sh -c \"ulimit -c 0; kill -QUIT $$\"", "", SIGQUIT},
        {"/no/such -x", "dospwn: execv failed: (2) No such file or directory\r\n", 255 << 8},
        {"", "dospwn: Invalid cmdstg [].\r\n", 255 << 8},
        {long1024, long1024.substr(10) + "\r\n", 0}, // fills its field without a terminator
    };
    int usrnum = -5;
    for (const auto &r : rows) {
        std::string ending;
        EXPECT_EQ(output(usrnum, r.command, &ending), r.output) << r.command;
        EXPECT_EQ(ending, show({usrnum, -3, r.status})) << r.command;
        usrnum += 1000000;
    }
    finish();
}

TEST_F(Daemon, TerminalTemplate) {
    begin();
    termios t = {};
    t.c_iflag = BRKINT | ICRNL | IXON | IMAXBEL;
    t.c_oflag = OPOST | ONLCR;
    t.c_cflag = CS8 | CREAD | HUPCL | B9600;
    t.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | IEXTEN;
    const struct {
        int slot, value;
    } chars[] = {{VDISCARD, 0x0F}, {VLNEXT, 0x16}, {VREPRINT, 0x12}, {VWERASE, 0x17}, {VEOF, 0x01},
                 {VEOL, 0},        {VEOL2, 0xFF},  {VERASE, 0x08},   {VINTR, 0x03},   {VKILL, 0x15},
                 {VQUIT, 0x1C},    {VSTART, 0x11}, {VSTOP, 0x13},    {VSUSP, 0x1A},   {VMIN, 1},
                 {VTIME, 0},       {VSWTC, 0}};
    for (const auto &c : chars) {
        t.c_cc[c.slot] = static_cast<cc_t>(c.value);
    }
    char want[256];
    int n = snprintf(want, sizeof want, "i=%x o=%x c=%x l=%x line=0 cc=", t.c_iflag, t.c_oflag,
                     t.c_cflag, t.c_lflag);
    for (const cc_t c : t.c_cc) {
        n += snprintf(want + n, sizeof want - static_cast<size_t>(n), "%02x", c);
    }
    EXPECT_EQ(output(1, probe + " terminal"),
              std::string(want) + " speed=13,13 size=24,80,100,100\r\n");
    // And as people see it: ^A ends the input, ^C interrupts. What is typed before the command has
    // opened its terminal counts, by these settings.
    int fd = run(2, "/bin/cat");
    EXPECT_EQ(write(fd, "hi\n\x01", 4), 4);
    EXPECT_EQ(test::drain(fd), "hi\r\nhi\r\n");
    close(fd);
    EXPECT_EQ(record(), "2,-3,0");
    fd = run(3, "/bin/cat");
    EXPECT_EQ(write(fd, "x\n", 2), 2);
    EXPECT_EQ(test::expect(fd, "x\r\nx\r\n"), "x\r\nx\r\n"); // it has the terminal now
    EXPECT_EQ(write(fd, "\x03", 1), 1);
    EXPECT_EQ(record(), show({3, -3, SIGINT}));
    close(fd);
    finish();
}

TEST_F(Daemon, TemplateFromStandardInput) {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    termios t = {};
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    t.c_oflag = OPOST | ONLCR;
    t.c_cc[VINTR] = 0x55;
    tcsetattr(slave, TCSANOW, &t);
    const winsize w = {50, 132, 7, 8};
    ioctl(slave, TIOCSWINSZ, &w);
    begin({}, {"BBSSTDIN="}, slave); // an empty value counts
    const std::string text = output(1, probe + " terminal");
    EXPECT_EQ(text.find("i=0 o=5 "), 0U) << text;
    EXPECT_NE(text.find(" cc=55"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("size=50,132,7,8\r\n")) << text;
    close(slave);
    close(master);
    finish();
}

TEST_F(Daemon, TemplateFromNoTerminal) {
    extra = "BBSSTDIN=1\n";
    begin();
    const std::string text = output(1, probe + " terminal");
    EXPECT_EQ(text.find("i=0 o=0 "), 0U) << text;
    EXPECT_NE(text.find("size=0,0,0,0"), std::string::npos) << text;
    finish();
    EXPECT_EQ(program->wait().err, "tcgetattr: Inappropriate ioctl for device\n"
                                   "ioctl(TIOCGWINSZ): Inappropriate ioctl for device\n");
}

TEST_F(Daemon, CommandsInheritTheirTerminalOnly) {
    begin({"-d"}, {"BBSLOG=file"});
    const int other = run(1, "/bin/cat"); // somebody else's master must not be there either
    EXPECT_EQ(output(2, probe + " process"),
              "fds=0 1 2 leader=1 terminal=1 foreground=1 blocked=\r\n");
    close(other);
    finish();
}

TEST_F(Daemon, KillRules) {
    begin();
    EXPECT_EQ(plex::hostkill(link, 1), 0); // nobody's: nothing happens
    const int first =
        run(1, "/bin/sh -c \"trap 'exit 5' TERM; echo up; while :; do read x; done\"");
    EXPECT_EQ(test::expect(first, "up\r\n"), "up\r\n");
    const int second = run(1, "/bin/cat");
    EXPECT_EQ(plex::hostkill(link, 1), 0); // the most recent, of whose end nothing is told
    EXPECT_EQ(test::drain(second), "");
    close(second);
    EXPECT_TRUE(test::eventually([&] { return commands().size() == 1; }));
    EXPECT_EQ(write(first, "\n", 1), 1); // the first still runs
    EXPECT_EQ(test::expect(first, "\r\n"), "\r\n");
    // SIGTERM goes to the process alone: the child that it waits for stays.
    const int third = run(2, "/bin/sh -c \"trap '' HUP; sleep 1000 & echo $!; wait\"");
    const pid_t grandchild = atoi(test::expect(third, "\r\n").c_str());
    EXPECT_EQ(plex::hostkill(link, 2), 0);
    EXPECT_TRUE(test::eventually([&] { return commands().size() == 1; }));
    EXPECT_TRUE(test::eventually([&] { return state(grandchild) == 'S'; })) << state(grandchild);
    kill(grandchild, SIGKILL);
    close(third);
    EXPECT_EQ(plex::hostkill(link, 1), 0);
    EXPECT_EQ(test::drain(first), "");
    close(first);
    EXPECT_EQ(output(9, "/bin/echo x"), "x\r\n"); // no notice of the killed came in between
    finish();
}

TEST_F(Daemon, KillThatOvertakesItsCommand) {
    // SIGTERM may reach the new process before it executes its command.
    begin();
    const int bystander = run(1, "/bin/cat");
    for (int i = 0; i < 300; i++) {
        ASSERT_EQ(plex::hostrun(link, 2, "/bin/sleep 1000"), 0);
        ASSERT_EQ(plex::hostkill(link, 2), 0);
        ASSERT_EQ(record(), "2,-1,0");
        int fd = -1;
        ASSERT_EQ(plex::hostfd(link, fd), plex::Link::got);
        close(fd);
    }
    // Merged signals leave some of them unreaped, but none of them running.
    EXPECT_TRUE(test::eventually([&] {
        const auto pids = commands();
        return std::count_if(pids.begin(), pids.end(), [](pid_t p) { return state(p) != 'Z'; }) ==
               1;
    }));
    EXPECT_TRUE(test::exists("vosterd.pid"));
    EXPECT_TRUE(test::exists("vosterd.socket"));
    EXPECT_EQ(write(bystander, "x\n", 2), 2);
    EXPECT_EQ(test::expect(bystander, "x\r\nx\r\n"), "x\r\nx\r\n");
    close(bystander);
    finish();
}

TEST_F(Daemon, OneReapForEachSignal) {
    begin();
    const int a = run(1, "/bin/sh -c \"read x; exit 1\"");
    const int b = run(2, "/bin/sh -c \"read x; exit 2\"");
    const auto pids = commands();
    ASSERT_EQ(pids.size(), 2U);
    kill(program->pid, SIGSTOP);
    ASSERT_TRUE(test::eventually([&] { return state(program->pid) == 'T'; }));
    for (const int fd : {a, b}) {
        EXPECT_EQ(write(fd, "\n", 1), 1);
    }
    ASSERT_TRUE(test::eventually([&] { return state(pids[0]) == 'Z' && state(pids[1]) == 'Z'; }));
    kill(program->pid, SIGCONT);
    // Their signals merged: one is told now, the other with the next command's end, and so on.
    std::vector<std::string> told = {record()};
    for (int usrnum = 3; usrnum <= 4; usrnum++) {
        const int fd = run(usrnum, "/bin/true");
        told.push_back(record());
        close(fd);
    }
    EXPECT_EQ(commands().size(), 1U);
    std::sort(told.begin(), told.end());
    EXPECT_EQ(told, (std::vector<std::string>{"1,-3,256", "2,-3,512", "3,-3,0"}));
    close(a);
    close(b);
    finish();
}

TEST_F(Daemon, HostClosesTheLink) {
    begin();
    for (const char *name : {"a", "b"}) {
        const int fd = run(1, std::string("/bin/sh -c \"trap 'echo bye > ") + name +
                                  "; exit' TERM; trap '' HUP; echo up; while :; do read x; done\"");
        EXPECT_EQ(test::expect(fd, "up\r\n"), "up\r\n");
        close(fd);
    }
    finish();
    EXPECT_TRUE(test::eventually([] { return slurp("a") + slurp("b") == "bye\nbye\n"; }));
}

TEST_F(Daemon, HostClosesWithAnswersUnread) {
    begin();
    EXPECT_EQ(plex::hostrun(link, 1, "/bin/true"), 0);
    EXPECT_TRUE(test::readable(link));
    finish();
}

TEST_F(Daemon, SignalsEndIt) {
    for (const int signo : {SIGTERM, SIGINT}) {
        begin();
        const int fd = run(1, "/bin/cat");
        kill(program->pid, signo);
        EXPECT_EQ(record(), "the daemon closed the link");
        EXPECT_EQ(test::drain(fd), "");
        close(fd);
        finish(100 + signo);
    }
    start(); // also while it waits for its host
    ASSERT_TRUE(test::eventually([] { return test::exists("vosterd.socket"); }));
    kill(program->pid, SIGTERM);
    finish(100 + SIGTERM);
}

TEST_F(Daemon, ShortRecordEndsIt) {
    begin();
    const int fd = run(1, "/bin/true"); // so that reads have been interrupted before
    EXPECT_EQ(record(), "1,-3,0");
    EXPECT_EQ(send(link, "short", 5, 0), 5);
    EXPECT_EQ(test::drain(link), "");
    close(fd);
    finish(150);
}

TEST_F(Daemon, UnknownRequestsAreIgnored) {
    begin({"-d"}, {"BBSLOG=file"});
    plex::servermsg m = {1, 7, {}};
    EXPECT_EQ(plex::hostsend(link, m), 0);
    EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
    finish();
    EXPECT_NE(slurp("vosterd.log").find("Unknown message type: 7\n"), std::string::npos);
}

TEST_F(Daemon, TellsTheLogWhatHappens) {
    begin({"-d", "5"}, {"BBSLOG=file"});
    const int fd = run(4, "/bin/sh -c \"exit 3\"");
    EXPECT_EQ(record(), "4,-3,768");
    const int cat = run(5, "/bin/cat");
    const pid_t pid = commands().at(0);
    EXPECT_EQ(plex::hostkill(link, 5), 0);
    EXPECT_TRUE(test::eventually([&] { return commands().empty(); }));
    finish();
    // What the privilege switches say and the numbers that differ from run to run.
    std::string log = slurp("vosterd.log");
    for (const char *priv : {"getpriv: ", "relpriv: "}) {
        for (size_t at = 0; (at = log.find(priv)) != std::string::npos;) {
            log.erase(at, log.find('\n', at) - at + 1);
        }
    }
    int pid1 = 0;
    char pts1[32] = "";
    char pts2[32] = "";
    const size_t add1 = log.find("Adding Child");
    const size_t add2 = log.find("Adding Child", add1 + 1);
    ASSERT_NE(add2, std::string::npos) << log;
    ASSERT_EQ(sscanf(log.c_str() + add1, "Adding Child: pid=%d usrnum=4 [%31[^]]]", &pid1, pts1),
              2);
    ASSERT_EQ(sscanf(log.c_str() + add2, "Adding Child: pid=%*d usrnum=5 [%31[^]]]", pts2), 1);
    int ptymfd = 0;
    sscanf(log.c_str() + log.find("ptymfd="), "ptymfd=%d", &ptymfd);
    const std::string success = "COMMAND SUCCESSFUL: ptymfd=" + std::to_string(ptymfd) + "\n";
    char want[1024];
    snprintf(want, sizeof want,
             "Running [/bin/sh -c \"exit 3\"] for 4\n"
             "Adding Child: pid=%d usrnum=4 [%s]\n"
             "%sReceived SIGCHLD.\npid=%d usrnum=4 status=300\nNormal exit. Exit 3.\n%s"
             "Running [/bin/cat] for 5\n"
             "Adding Child: pid=%d usrnum=5 [%s]\n%s"
             "BBS request to kill 5\n"
             "Received SIGCHLD.\nCould not find child (pid=%d)\n",
             pid1, pts1, "@", pid1, "@", pid, pts2, success.c_str(), pid);
    // The command may end before or after its launch is called a success.
    std::string wanted = want;
    std::string early = wanted;
    early.replace(early.find('@'), 1, success).erase(early.find('@'), 1);
    std::string late = wanted;
    late.erase(late.find('@'), 1).replace(late.find('@'), 1, success);
    EXPECT_TRUE(log == early || log == late) << log << "\nwanted:\n" << early;
    close(fd);
    close(cat);
}

TEST_F(Daemon, DebugLevels) {
    const struct {
        std::vector<std::string> args;
        bool logs;
    } rows[] = {{{}, false},          {{"-d"}, true},       {{"-D"}, true},     {{"-d", "5"}, true},
                {{"-d", "-3"}, true}, {{"-d", "0"}, false}, {{"x", "4"}, true}, {{"x"}, false}};
    for (const auto &r : rows) {
        begin(r.args, {"BBSLOG=file"});
        EXPECT_EQ(output(1, "/bin/true"), "");
        finish();
        EXPECT_EQ(slurp("vosterd.log").find("Running [") != std::string::npos, r.logs)
            << testing::PrintToString(r.args);
    }
    begin({"-d"}); // and no log at all unless it is asked for
    test::spew("vosterd.log", "");
    EXPECT_EQ(output(1, "/bin/true"), "");
    finish();
    EXPECT_EQ(slurp("vosterd.log"), "");
}

TEST_F(Daemon, TwoDaemons) {
    begin();
    test::Program second({BUILD_DIR "/vosterd"}, {"BBSCONFIG=" + home.path + "/cfg"});
    const test::Outcome o = second.wait();
    EXPECT_EQ(o.code(), 1);
    EXPECT_EQ(o.err,
              "fcntl: 11 (Resource temporarily unavailable)\nhalvrond is already running.\n");
    char id[16];
    snprintf(id, sizeof id, "%6d\n", program->pid);
    EXPECT_EQ(slurp("vosterd.pid"), id);
    // Nor does the first one serve a second host.
    const int late = plex::hostopen(home.path.c_str());
    ASSERT_GE(late, 0);
    EXPECT_EQ(plex::hostrun(late, 1, "/bin/true"), 0);
    EXPECT_EQ(output(2, "/bin/echo x"), "x\r\n");
    EXPECT_FALSE(test::readable(late, 0));
    close(late);
    finish();
}

TEST_F(Daemon, StaleFilesDoNotMatter) {
    begin();
    kill(program->pid, SIGKILL);
    program->wait();
    close(link);
    EXPECT_TRUE(test::exists("vosterd.pid") && test::exists("vosterd.socket"));
    begin();
    EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
    finish();
}

TEST_F(Daemon, StandardDescriptorsMayBeMissing) {
    const std::string closing = "exec " + file + " -d <&- >&- 2>&-";
    for (const char *log : {"file", "stderr"}) {
        file = "/bin/sh";
        begin({"-c", closing}, {std::string("BBSLOG=") + log});
        EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
        EXPECT_EQ(output(2, probe + " process"),
                  "fds=0 1 2 leader=1 terminal=1 foreground=1 blocked=\r\n");
        finish();
    }
}

TEST_F(Daemon, NobodyReadsItsLog) {
    begin({"-d"}, {"BBSLOG=stderr"});
    close(program->err);
    program->err = -1;
    EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
    // Its SIGPIPE is not the commands'.
    EXPECT_EQ(output(2, probe + " process"),
              "fds=0 1 2 leader=1 terminal=1 foreground=1 blocked=\r\n");
    finish();
}

TEST_F(Daemon, StartFailures) {
    const struct {
        const char *config; // null: as it should be
        const char *obstacle;
        const char *err;
    } rows[] = {
        {"/no/such", nullptr, "Unable to open plexhost.cfg!\n"},
        {"bad.cfg", nullptr,
         "Unable to change to BBS home directory: /no/such (No such file or directory)\n"},
        {nullptr, "vosterd.pid",
         "maklck:open: 21 (Is a directory)\nhalvrond is already running.\n"},
        {nullptr, "vosterd.socket",
         "creat: Address already in use\nUnable to create listen socket.\n"},
    };
    test::spew("bad.cfg", "HOME=/no/such\n");
    for (const auto &r : rows) {
        if (r.obstacle != nullptr) {
            mkdir(r.obstacle, 0700);
        }
        start({}, r.config != nullptr ? std::vector{std::string("BBSCONFIG=") + r.config}
                                      : std::vector<std::string>{});
        const test::Outcome o = program->wait();
        EXPECT_EQ(o.code(), 1);
        EXPECT_EQ(o.err, r.err);
        if (r.obstacle != nullptr) {
            rmdir(r.obstacle);
        }
    }
}

TEST_F(Daemon, FailedLaunches) {
    begin();
    const auto limit = [&](rlim_t fds) { // its own are 0 to 5
        const rlimit few = {fds, 64};
        ASSERT_EQ(prlimit(program->pid, RLIMIT_NOFILE, &few, nullptr), 0);
    };
    limit(7); // room for a master, but not for the slave: the child says so and ends
    const int unused = run(1, "/bin/true");
    EXPECT_EQ(record(), show({1, -3, 254 << 8}));
    close(unused);
    limit(8);
    const int cat = run(2, "/bin/cat");
    limit(7); // no room for another master
    EXPECT_EQ(plex::hostrun(link, 3, "/bin/true"), 0);
    EXPECT_EQ(record(), "0,-2,0");
    // From then on commands still start, but of their end nothing is told.
    EXPECT_EQ(plex::hostkill(link, 2), 0);
    EXPECT_EQ(test::drain(cat), "");
    limit(8);
    const int fd = run(4, "/bin/echo still");
    EXPECT_EQ(test::drain(fd), "still\r\n");
    const auto pids = commands();
    EXPECT_TRUE(test::eventually([&] {
        return std::all_of(pids.begin(), pids.end(), [](pid_t p) { return state(p) == 'Z'; });
    }));
    EXPECT_FALSE(test::readable(link, 0));
    close(cat);
    close(fd);
    finish();
    EXPECT_EQ(program->wait().err, "pty_fork:ptys_open: Too many open files\n"
                                   "ptym_open:open: Too many open files\n"
                                   "pty_fork:ptym_open: Too many open files\n");
}

TEST_F(Daemon, InteractiveShell) {
    begin({}, {"PS1=% ", "TERM=dumb"});
    const int fd = run(1, "/bin/bash --norc --noprofile --noediting -i");
    EXPECT_EQ(test::expect(fd, "% "), "% ");
    const auto type = [&](const std::string &line) {
        EXPECT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        return test::expect(fd, "% ");
    };
    EXPECT_EQ(type("echo $((6 * 7))\r"), "echo $((6 * 7))\r\n42\r\n% ");
    EXPECT_NE(type("sleep 1000 & jobs\r").find("Running"), std::string::npos); // job control
    EXPECT_NE(type("kill %1; wait %1\r").find("Terminated"), std::string::npos);
    EXPECT_EQ(write(fd, "cat\r", 4), 4);
    EXPECT_EQ(test::expect(fd, "cat\r\n"), "cat\r\n");
    EXPECT_EQ(write(fd, "x\r", 2), 2);
    EXPECT_EQ(test::expect(fd, "x\r\nx\r\n"), "x\r\nx\r\n");
    EXPECT_EQ(type("\x03"), "^C\r\n% ");
    EXPECT_EQ(write(fd, "exit 9\r", 7), 7);
    EXPECT_EQ(test::drain(fd), "exit 9\r\nexit\r\n");
    EXPECT_EQ(record(), show({1, -3, 9 << 8}));
    close(fd);
    finish();
}

TEST_F(Daemon, FullScreenProgram) {
    test::spew("full.py", "import curses, sys\n"
                          "def main(w):\n"
                          "    w.addstr(23, 60, '%d x %d' % w.getmaxyx())\n"
                          "    sys.exit(w.getch())\n"
                          "curses.wrapper(main)\n");
    begin({}, {"TERM=xterm", "LINES", "COLUMNS"});
    const int fd = run(1, "/usr/bin/env python3 full.py");
    const std::string screen = test::expect(fd, "24 x 80");
    EXPECT_NE(screen.find("\x1b[?1049h"), std::string::npos) << screen;
    EXPECT_NE(screen.find("\x1b[24;61H"), std::string::npos) << screen;
    EXPECT_EQ(write(fd, "*", 1), 1);
    EXPECT_NE(test::drain(fd).find("\x1b[?1049l"), std::string::npos);
    EXPECT_EQ(record(), show({1, -3, '*' << 8}));
    close(fd);
    finish();
}

TEST_F(Daemon, TenThousandInARow) {
    // A sanitizer keeps what was freed; then it would look like growth.
    begin({}, {"ASAN_OPTIONS=quarantine_size_mb=0:thread_local_quarantine_size_kb=0"});
    const auto fds = [&] {
        int n = 0;
        for (int fd = 0; fd < 64; fd++) {
            n += test::exists(proc("fd/") + std::to_string(fd)) ? 1 : 0;
        }
        return n;
    };
    const auto resident = [&] { // kilobytes
        const std::string status = slurp(proc("status"));
        return atol(status.c_str() + status.find("VmRSS:") + 6);
    };
    constexpr int idle = 6; // three standard ones, lock, endpoint, link
    long before = 0;
    for (int i = 0; i < 10000; i++) {
        before = i == 100 ? resident() : before;
        const int fd = run(i, "/bin/true");
        close(fd);
        ASSERT_EQ(record(), std::to_string(i) + ",-3,0");
    }
    EXPECT_TRUE(test::eventually([&] { return commands().empty() && fds() == idle; }))
        << fds() << " descriptors, " << commands().size() << " children";
    EXPECT_LE(resident(), before + 128);
    finish();
}

TEST_F(Daemon, AThousandAtOnce) {
    constexpr int many = 1000;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    begin();
    std::vector<int> masters;
    for (int i = 0; i < many; i++) {
        masters.push_back(run(i, "/bin/cat"));
        ASSERT_GE(masters.back(), 0) << i;
    }
    for (int i = 0; i < many; i++) {
        const std::string text = std::to_string(i);
        ASSERT_EQ(write(masters[static_cast<size_t>(i)], (text + "\n").c_str(), text.size() + 1),
                  static_cast<ssize_t>(text.size()) + 1);
        const std::string both = text + "\r\n" + text + "\r\n";
        ASSERT_EQ(test::take(masters[static_cast<size_t>(i)], both.size()), both);
    }
    const auto pids = commands();
    EXPECT_EQ(pids.size(), static_cast<size_t>(many));
    // All end while the daemon cannot look: one signal is left of theirs, so one notice.
    kill(program->pid, SIGSTOP);
    ASSERT_TRUE(test::eventually([&] { return state(program->pid) == 'T'; }));
    for (const int fd : masters) {
        ASSERT_EQ(write(fd, "\x01", 1), 1);
    }
    EXPECT_TRUE(test::eventually([&] {
        return std::all_of(pids.begin(), pids.end(), [](pid_t p) { return state(p) == 'Z'; });
    }));
    kill(program->pid, SIGCONT);
    EXPECT_TRUE(record().ends_with(",-3,0"));
    const int fd = run(many, "/bin/cat"); // no second notice stands before this answer
    EXPECT_EQ(commands().size(), static_cast<size_t>(many));
    close(fd);
    for (const int master : masters) {
        close(master);
    }
    finish();
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace
