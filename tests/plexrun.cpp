// plexrun as people use it: from a script, with files and pipes, and on a terminal.

#include "libunix/daemon/wire.h"
#include "libunix/host/cmdline.h"
#include "libunix/plumbing/csfd.h"
#include "libunix/plumbing/prsstr.h"
#include "libunix/plumbing/svr4fd.h"
#include "tests/support.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <pty.h>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Words = std::vector<std::string>;

const std::string PLEXRUN = BUILD_DIR "/plexrun";

// The arguments that the daemon makes of a command line.
Words split(std::string line) {
    Words words;
    plex::rdustr(line.data());
    for (char *w = plex::tokstr(line.data()); w != nullptr; w = plex::tokstr(nullptr)) {
        plex::rmsurq(w);
        plex::rmbksl(w);
        words.emplace_back(w);
    }
    return words;
}

TEST(Cmdline, SplitsIntoWhatItWasMadeOf) {
    std::mt19937 random(7);
    const char alphabet[] = "ab\"\" \t\n'";
    for (int i = 0; i < 20000; i++) {
        Words args(1 + random() % 4);
        for (std::string &arg : args) {
            for (size_t n = random() % 6; n > 0; n--) {
                arg += alphabet[random() % (sizeof alphabet - 1)];
            }
        }
        std::string line;
        ASSERT_EQ(plex::makeline(args, line), "");
        ASSERT_EQ(split(line), args) << line;
    }
}

TEST(Cmdline, Limits) {
    const std::pair<Words, bool> rows[] = {{Words(49, "x"), true},
                                           {Words(50, "x"), false},
                                           {{"/bin/echo", std::string(1014, 'x')}, true},
                                           {{"/bin/echo", std::string(1015, 'x')}, false}};
    for (const auto &[args, fits] : rows) {
        std::string line;
        EXPECT_EQ(plex::makeline(args, line).empty(), fits) << args.size();
    }
}

// A home for the test; what plexrun makes for itself goes below tmp, which must stay empty.
class Plexrun : public testing::Test {
protected:
    Plexrun() { mkdir("tmp", 0700); }
    ~Plexrun() override {
        std::error_code none;
        EXPECT_TRUE(test::eventually([&] { return std::filesystem::is_empty("tmp", none); }))
            << "plexrun left something behind";
    }

    Words env(const Words &more = {}) const {
        Words all = {"TMPDIR=" + home.path + "/tmp", "PATH=/usr/local/bin:/usr/bin:/bin",
                     "BBSCONFIG", "BBSLOG", "BBSSTDIN"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    test::Outcome run(Words args, const std::string &input = "", const Words &more = {}) const {
        test::spew("input", input);
        const int in = open("input", O_RDONLY | O_CLOEXEC);
        args.insert(args.begin(), PLEXRUN);
        test::Program program(args, env(more), in);
        close(in);
        return program.wait();
    }

    test::Outcome shell(const std::string &script) const {
        return test::Program({"sh", "-c", script, PLEXRUN}, env()).wait();
    }

    test::Home home;
};

TEST_F(Plexrun, Statuses) {
    const std::string odd = home.path + "/./odd";
    test::spew(odd, "\x01\x02");
    chmod(odd.c_str(), 0755);
    struct {
        Words args;
        int code;
        std::string said; // by the command, or else by plexrun
    } const rows[] = {
        {{"sh", "-c", "exit 7"}, 7, ""},
        {{"--", "sh", "-c", "kill -TERM $$"}, 128 + 15, ""},
        {{"echo", "a \"b\" ", "", "'"}, 0, "a \"b\"   '\r\n"},
        {{"-c", "/bin/echo abc\"def ghi\""}, 0, "abcdef ghi\r\n"},
        {{"-c", "/none"}, 255, "dospwn: execv failed: (2) No such file or directory\r\n"},
        {{"-u", "-5", "pwd"}, 0, home.path + "\r\n"},
        {{"sh", "-c", "echo $BBSCONFIG; env | grep -c PLEXRUN_"}, 1, "x\r\n0\r\n"},
        {{}, 120, "plexrun: no command (see plexrun --help)\n"},
        {{"-u", "3000000000"}, 120, "plexrun: -u wants a number of 32 bits, not '3000000000'\n"},
        {{"-c"}, 120, "plexrun: -c wants an argument (see plexrun --help)\n"},
        {{"-x"}, 120, "plexrun: unknown option '-x' (see plexrun --help)\n"},
        {{"ls", "a\\b"}, 121, "plexrun: no command line can carry the backslash in 'a\\b'\n"},
        {{"-c", std::string(1025, 'x')}, 121, "plexrun: longer than 1024 bytes\n"},
        {{"-H", ".", "ls"}, 122, "plexrun: no daemon runs in . (No such file or directory)\n"},
        {{"./odd"}, 126, "plexrun: cannot execute " + odd + ": Exec format error\r\n"},
        {{"./none"}, 127, "plexrun: ./none: command not found\n"},
    };
    for (const auto &r : rows) {
        const auto got = run(r.args, "", {"BBSCONFIG=x"});
        EXPECT_EQ(got.code(), r.code);
        EXPECT_EQ(got.out + got.err, r.said);
    }
    EXPECT_EQ(run({"ls"}, "", {"TMPDIR=/none"}).code(), 125);
    EXPECT_NE(run({"true"}, "", {"BBSSTDIN="}).err.find("tcgetattr"), std::string::npos)
        << "the template is to come from standard input";
}

TEST_F(Plexrun, InputFromAFile) {
    std::string lines;
    for (size_t n : {0, 3999, 4000, 4001, 4094, 4095, 4096, 8000, 8001, 70000}) {
        lines += std::string(n, 'x') + '\n';
    }
    struct {
        std::string script, input, copy;
    } const rows[] = {
        {"cat >copy", "one\ntwo", "one\ntwo"},
        {"cat >copy", lines + "end", lines + "end"}, // longer than a terminal's lines
        {"cat >copy; cat >>copy", "one\n", "one\n"},
        {"cat >copy", "", ""},
        // A late reader who throws away what was typed before.
        {"sleep 0.1; exec python3 -c '"
         "import termios,shutil,sys; termios.tcflush(0,termios.TCIFLUSH);"
         "shutil.copyfileobj(sys.stdin,open(\"copy\",\"w\"))'",
         "", ""},
        {"exec bash --norc -i", "echo three >copy", "three\n"}, // a line editor
        {"stty raw; dd bs=1 count=3 of=copy 2>/dev/null", "a\nb\n", "a\nb"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.script);
        unlink("copy");
        const auto got = run({"sh", "-c", r.script}, r.input);
        EXPECT_EQ(got.code(), 0) << got.out.substr(0, 80) << got.err;
        EXPECT_TRUE(test::slurp("copy") == r.copy) << test::slurp("copy").substr(0, 80);
    }
}

TEST_F(Plexrun, OutputIsComplete) {
    std::string want;
    for (int i = 1; i <= 20000; i++) {
        want += std::to_string(i) + "\r\n";
    }
    EXPECT_TRUE(run({"seq", "20000"}).out == want);
    // What the command leaves in the background holds its terminal open, and cannot hold us.
    const auto got = run({"sh", "-c", "trap '' HUP; sleep 60 & echo $!"});
    EXPECT_EQ(got.code(), 0);
    EXPECT_GT(atoi(got.out.c_str()), 1) << got.out;
    kill(atoi(got.out.c_str()), SIGKILL);
    EXPECT_EQ(run({"sh", "-c", "exec <&- >&- 2>&-; sleep 0.1; exit 3"}).code(), 3);

    EXPECT_EQ(shell("exec \"$0\" yes | head -1").out, "y\r\n");
    EXPECT_EQ(shell("exec \"$0\" seq 9 >/dev/full").code(), 125);
}

// Daemons that misbehave, and one that runs already.
TEST_F(Plexrun, OthersDaemons) {
    struct {
        int32_t reply; // its kind; 0: none
        bool passes;   // a terminal, else plain bytes
        int code;
    } const rows[] = {{0, false, 124},
                      {plex::MSG_FAILED, false, 123},
                      {plex::MSG_STARTED, false, 124},
                      {plex::MSG_STARTED, true, 124}};
    for (const auto &r : rows) {
        const int listening = plex::lsnsoc(plex::ENDPOINT);
        test::Program program({PLEXRUN, "-H", ".", "ls"}, env());
        ASSERT_TRUE(test::readable(listening));
        const int link = plex::acceptfd(listening);
        EXPECT_EQ(test::take(link, sizeof(plex::servermsg)).substr(8, 1), "/");
        const plex::clientmsg reply = {0, r.reply, 0};
        EXPECT_GE(write(link, &reply, r.reply != 0 ? sizeof reply : 0), 0);
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (r.passes) {
            EXPECT_EQ(plex::send_fd(link, master), 0);
        } else {
            send(link, "xx", 2, MSG_NOSIGNAL); // it may have seen enough
        }
        for (const int fd : {link, master, listening}) {
            close(fd);
        }
        EXPECT_EQ(program.wait().code(), r.code) << program.wait().err;
    }
    unlink(plex::ENDPOINT);
    test::spew("cfg", "HOME=" + home.path + "\n");
    test::Program daemon({BUILD_DIR "/vosterd"}, {"BBSCONFIG=" + home.path + "/cfg"});
    ASSERT_TRUE(test::eventually([] { return test::exists(plex::ENDPOINT); }));
    test::Program first({"sh", "-c", "cd tmp; exec \"$0\" -H .. sh -c 'pwd; sleep 1000'", PLEXRUN},
                        env());
    EXPECT_EQ(test::expect(first.out, "\r\n"), home.path + "\r\n");
    EXPECT_EQ(run({"-H", ".", "ls"}).code(), 122);
    kill(first.pid, SIGTERM);
    EXPECT_EQ(first.wait().code(), 128 + SIGTERM);
    EXPECT_EQ(daemon.wait().code(), 0);
}

// A terminal with plexrun on it, whose settings no program would choose.
class OnTerminal : public Plexrun {
protected:
    void begin(const std::string &script) {
        struct winsize size = {30, 100, 0, 0};
        setenv("TMPDIR", (home.path + "/tmp").c_str(), 1);
        pid = forkpty(&fd, nullptr, nullptr, &size);
        if (pid == 0) {
            execlp("bash", "bash", "-c", ("stty erase '#'; " + script).c_str(), nullptr);
            _exit(127);
        }
        ASSERT_GT(pid, 0);
        slave = open(ptsname(fd), O_RDWR | O_NOCTTY | O_CLOEXEC);
    }
    ~OnTerminal() override {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    bool raw() const {
        struct termios t = {};
        tcgetattr(fd, &t);
        return (t.c_lflag & (ICANON | ECHO | ISIG)) == 0 && (t.c_oflag & OPOST) == 0;
    }
    void type(const std::string &text) const {
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // Its end, and the settings that it leaves.
    int finish() {
        int status = -1;
        EXPECT_TRUE(test::eventually([&] { return waitpid(pid, &status, WNOHANG) != 0; }));
        pid = -1;
        struct termios t = {};
        tcgetattr(slave, &t);
        EXPECT_TRUE((t.c_lflag & ICANON) != 0 && (t.c_oflag & OPOST) != 0 && t.c_cc[VERASE] == '#')
            << "the terminal was not given back";
        close(slave);
        close(fd);
        return status;
    }

    pid_t pid = -1;
    int fd = -1;
    int slave = -1; // of our own: keeps the terminal alive
};

TEST_F(OnTerminal, SizeKeysAndEveryWayOut) {
    for (const int signo : {0, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1}) {
        SCOPED_TRACE(signo);
        begin("exec " + PLEXRUN +
              " sh -c \"stty size; trap 'stty size' WINCH; trap 'echo key' INT;"
              " echo ready; while :; do read x && exit 4; done\"");
        EXPECT_NE(test::expect(fd, "ready\r\n").find("30 100\r\n"), std::string::npos);
        ASSERT_TRUE(test::eventually([&] { return raw(); }));
        const struct winsize size = {40, 90, 0, 0};
        ioctl(fd, TIOCSWINSZ, &size);
        EXPECT_EQ(test::expect(fd, "90"), "40 90");
        if (signo == 0) {
            type("\x03");
            EXPECT_NE(test::expect(fd, "key\r\n").find("key"), std::string::npos);
            type("x\n");
            EXPECT_EQ(finish(), 4 << 8);
        } else {
            kill(pid, signo);
            EXPECT_EQ(finish() & 0x7F, signo);
        }
    }
}

TEST_F(OnTerminal, StopsAndContinues) {
    test::spew("inner", "kill -TSTP $1; read x; exit 5\n");
    test::spew("job", "exec \"$0\" sh inner $$\n");
    begin("set -m\nsh -c '. ./job' " + PLEXRUN +
          "\nstty -a | grep -o ' icanon'; stty -a | grep -o 'erase = .'\n"
          "fg >/dev/null; echo code $?; stty -a | grep -o 'erase = .'\n");
    const std::string stopped = test::expect(fd, "erase = #");
    EXPECT_NE(stopped.find(" icanon"), std::string::npos) << stopped;
    EXPECT_TRUE(test::eventually([&] { return raw(); }));
    type("x\n");
    EXPECT_NE(test::expect(fd, "erase = #").find("code 5"), std::string::npos);
    finish();
}

} // namespace
