// A real daemon, driven over its endpoint: everything that a host can see of it.

#include "tests/host.h"

#include <algorithm>
#include <csignal>
#include <pty.h>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using test::Daemon;
using test::show;
using test::slurp;
using test::state;

const std::string probe = BUILD_DIR "/tests/probe";
// What it says of a command that inherits nothing but its terminal.
const std::string clean = "fds=0 1 2 leader=1 terminal=1 foreground=1 blocked=\r\n";

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
        EXPECT_EQ(output(usrnum, r.command, show({usrnum, -3, r.status})), r.output) << r.command;
        usrnum += 1000000;
    }
    finish();
}

TEST_F(Daemon, TerminalTemplate) {
    begin();
    EXPECT_EQ(output(1, probe + " terminal"), "i=2502 o=5 c=4bd l=823b line=0 "
                                              "cc=031c0815010001001113"
                                              "1a00120f1716ff" +
                                                  std::string(30, '0') +
                                                  " speed=13,13 size=24,80,100,100\r\n");
    // And as people see it: ^A ends the input, ^C interrupts. What is typed before the command has
    // opened its terminal counts, by these settings.
    int fd = run(2, "/bin/cat");
    type(fd, "hi\n\x01", "hi\r\nhi\r\n");
    over(fd, "2,-3,0");
    fd = run(3, "/bin/cat");
    type(fd, "x\n", "x\r\nx\r\n"); // it has the terminal now
    type(fd, "\x03", "^C");
    over(fd, "3,-3,2");
    finish();
}

TEST_F(Daemon, TemplateFromStandardInput) {
    int master = -1;
    int slave = -1;
    termios t = {};
    cfmakeraw(&t);
    t.c_oflag = OPOST | ONLCR;
    t.c_cc[VINTR] = 0x55;
    const winsize w = {50, 132, 7, 8};
    ASSERT_EQ(openpty(&master, &slave, nullptr, &t, &w), 0);
    begin({}, {"BBSSTDIN="}, slave); // an empty value counts
    const std::string text = output(1, probe + " terminal");
    EXPECT_TRUE(text.starts_with("i=0 o=5 ") && text.find(" cc=55") != std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("size=50,132,7,8\r\n")) << text;
    close(slave);
    close(master);
    finish();
}

TEST_F(Daemon, TemplateFromNoTerminal) {
    extra = "BBSSTDIN=1\n";
    begin();
    const std::string text = output(1, probe + " terminal");
    EXPECT_TRUE(text.starts_with("i=0 o=0 ") && text.ends_with("size=0,0,0,0\n")) << text;
    finish();
    EXPECT_EQ(program->wait().err, "tcgetattr: Inappropriate ioctl for device\n"
                                   "ioctl(TIOCGWINSZ): Inappropriate ioctl for device\n");
}

TEST_F(Daemon, CommandsInheritTheirTerminalOnly) {
    begin({"-d"}, {"BBSLOG=file"});
    const int other = run(1, "/bin/cat"); // somebody else's master must not be there either
    EXPECT_EQ(output(2, probe + " process"), clean);
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
    over(second);
    EXPECT_TRUE(test::eventually([&] { return commands().size() == 1; }));
    type(first, "\n", "\r\n"); // it still runs
    // SIGTERM goes to the process alone: the child that it waits for stays.
    const int third = run(2, "/bin/sh -c \"trap '' HUP; sleep 1000 & echo $!; wait\"");
    const pid_t grandchild = atoi(test::expect(third, "\r\n").c_str());
    EXPECT_EQ(plex::hostkill(link, 2), 0);
    EXPECT_TRUE(test::eventually([&] { return commands().size() == 1; }));
    EXPECT_TRUE(test::eventually([&] { return state(grandchild) == 'S'; })) << state(grandchild);
    kill(grandchild, SIGKILL);
    close(third);
    EXPECT_EQ(plex::hostkill(link, 1), 0);
    over(first);
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
        close(started(2));
    }
    // Merged signals leave some of them unreaped, but none of them running.
    EXPECT_TRUE(test::eventually([&] { return running() == 1; }));
    type(bystander, "x\n", "x\r\nx\r\n");
    close(bystander);
    finish();
}

TEST_F(Daemon, OneReapForEachSignal) {
    begin();
    const int a = run(1, "/bin/sh -c \"read x; exit 1\"");
    const int b = run(2, "/bin/sh -c \"read x; exit 2\"");
    endtogether({a, b}, "\n");
    // Their signals merged: one is told now, the other with the next command's end, and so on.
    std::vector<std::string> told = {record()};
    for (int usrnum = 3; usrnum <= 4; usrnum++) {
        close(run(usrnum, "/bin/true"));
        told.push_back(record());
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
        over(fd, "the daemon closed the link");
        finish(100 + signo);
    }
    start(); // also while it waits for its host
    ASSERT_TRUE(test::eventually([] { return test::exists("vosterd.socket"); }));
    kill(program->pid, SIGTERM);
    finish(100 + SIGTERM);
}

TEST_F(Daemon, ShortRecordEndsIt) {
    begin();
    output(1, "/bin/true"); // so that reads have been interrupted before
    EXPECT_EQ(send(link, "short", 5, 0), 5);
    EXPECT_EQ(test::drain(link), "");
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
    output(4, "/bin/sh -c \"exit 3\"", "4,-3,768");
    const int cat = run(5, "/bin/cat");
    EXPECT_EQ(plex::hostkill(link, 5), 0);
    EXPECT_TRUE(test::eventually([&] { return commands().empty(); }));
    finish();
    close(cat);
    // Without the numbers that differ from run to run, what the privilege switches say, and the
    // success of a launch, which the command's end may overtake.
    std::string log = slurp("vosterd.log");
    log = std::regex_replace(log, std::regex("(pid=|fd=|/dev/pts/)[0-9]+"), "$1N");
    log = std::regex_replace(log, std::regex("(getpriv|relpriv): .*\n"), "");
    const std::regex success("COMMAND SUCCESSFUL: ptymfd=N\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(log.begin(), log.end(), success), {}), 2) << log;
    EXPECT_EQ(std::regex_replace(log, success, ""),
              "Running [/bin/sh -c \"exit 3\"] for 4\n"
              "Adding Child: pid=N usrnum=4 [/dev/pts/N]\n"
              "Received SIGCHLD.\npid=N usrnum=4 status=300\nNormal exit. Exit 3.\n"
              "Running [/bin/cat] for 5\n"
              "Adding Child: pid=N usrnum=5 [/dev/pts/N]\n"
              "BBS request to kill 5\n"
              "Received SIGCHLD.\nCould not find child (pid=N)\n");
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
    file = "/bin/sh";
    for (const char *log : {"BBSLOG=file", "BBSLOG=stderr"}) {
        begin({"-c", closing}, {log});
        EXPECT_EQ(output(2, probe + " process"), clean);
        finish();
    }
}

TEST_F(Daemon, NobodyReadsItsLog) {
    begin({"-d"}, {"BBSLOG=stderr"});
    close(program->err);
    program->err = -1;
    EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
    EXPECT_EQ(output(2, probe + " process"), clean); // its SIGPIPE is not the commands'
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

TEST_F(Daemon, InteractiveShell) {
    begin({}, {"PS1=% ", "TERM=dumb"});
    const int fd = run(1, "/bin/bash --norc --noprofile --noediting -i");
    type(fd, "", "% ");
    type(fd, "echo $((6 * 7))\r", "echo $((6 * 7))\r\n42\r\n% ");
    type(fd, "sleep 1000 & jobs\r");
    EXPECT_NE(test::expect(fd, "% ").find("Running"), std::string::npos); // job control
    type(fd, "kill %1; wait %1\r");
    EXPECT_NE(test::expect(fd, "% ").find("Terminated"), std::string::npos);
    type(fd, "cat\r", "cat\r\n");
    type(fd, "x\r", "x\r\nx\r\n");
    type(fd, "\x03", "^C\r\n% ");
    type(fd, "exit 9\r", "exit 9\r\nexit\r\n");
    over(fd, show({1, -3, 9 << 8}));
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
    type(fd, "*");
    EXPECT_NE(test::drain(fd).find("\x1b[?1049l"), std::string::npos);
    over(fd, show({1, -3, '*' << 8}));
    finish();
}

TEST_F(Daemon, TenThousandInARow) {
    // A sanitizer keeps what was freed; then it would look like growth.
    begin({}, {"ASAN_OPTIONS=quarantine_size_mb=0:thread_local_quarantine_size_kb=0"});
    const auto resident = [&] { // kilobytes
        const std::string status = slurp(proc("status"));
        return atol(status.c_str() + status.find("VmRSS:") + 6);
    };
    constexpr int idle = 6; // three standard ones, lock, endpoint, link
    long before = 0;
    for (int i = 0; i < 10000; i++) {
        before = i == 100 ? resident() : before;
        close(run(i, "/bin/true"));
        ASSERT_EQ(record(), show({i, -3, 0}));
    }
    EXPECT_TRUE(test::eventually([&] { return commands().empty() && descriptors() == idle; }))
        << descriptors() << " descriptors, " << commands().size() << " children";
    EXPECT_LE(resident(), before + 128);
    finish();
}

TEST_F(Daemon, AThousandAtOnce) {
    constexpr int many = 1000;
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    begin();
    std::vector<int> masters;
    for (int i = 0; i < many; i++) {
        masters.push_back(run(i, "/bin/cat"));
        ASSERT_GE(masters.back(), 0) << i;
    }
    for (const int fd : masters) {
        const std::string text = std::to_string(fd);
        type(fd, text + "\n", text + "\r\n" + text + "\r\n");
    }
    // All end while the daemon cannot look: one signal is left of theirs, so one notice.
    endtogether(masters, "\x01");
    EXPECT_TRUE(record().ends_with(",-3,0"));
    masters.push_back(run(many, "/bin/cat")); // no second notice stands before this answer
    EXPECT_EQ(commands().size(), static_cast<size_t>(many));
    for (const int fd : masters) {
        close(fd);
    }
    finish();
}

} // namespace
