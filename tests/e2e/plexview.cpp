// plexview and conshow: a shared console on a real terminal, which tmux keeps.

#include "libunix/plumbing/csfd.h"
#include "tests/segments.h"

#include <csignal>
#include <cstdlib>
#include <sys/ioctl.h>

namespace {

const std::string conshow = BUILD_DIR "/conshow";
const std::string plexview = BUILD_DIR "/plexview";

// A terminal in which a shell runs `command`.
class Terminal {
public:
    explicit Terminal(const std::string &command, int columns = 90, int rows = 27) {
        const auto made =
            tmux({"-f", "/dev/null", "new-session", "-d", "-x", std::to_string(columns), "-y",
                  std::to_string(rows), command + "; echo status=$?; exec cat"});
        EXPECT_EQ(made.code(), 0) << made.err;
    }
    ~Terminal() { tmux({"kill-server"}); }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    test::Outcome tmux(std::vector<std::string> args) const {
        args.insert(args.begin(), {"tmux", "-u", "-S", socket});
        return test::Program(args, {"TMUX", "LC_ALL=C.UTF-8"}).wait();
    }
    std::string screen() { return tmux({"capture-pane", "-p", "-e"}).out; }
    // Waits until the terminal shows the text.
    void shows(const std::string &text) {
        std::string last;
        EXPECT_TRUE(test::eventually([&] {
            return (last = screen()).find(text) != std::string::npos;
        })) << "no \""
            << text << "\" in:\n"
            << last;
    }
    void answers(const std::string &key, const std::string &code) {
        tmux({"send-keys", key});
        shows("Key " + code);
    }

private:
    inline static int count = 0;
    std::string socket = "tmux" + std::to_string(count++);
};

class Viewer : public testing::Test {
protected:
    void SetUp() override {
        NEED_OWN_SEGMENTS();
        test::removesegment();
        setenv("BBSCONFIG", "/dev/null", 1);
        setenv("SHELL", "/bin/sh", 1);
    }
    ~Viewer() override { test::removesegment(); }

    // A program with a console, ready for viewers.
    std::unique_ptr<test::Program> program(const std::vector<std::string> &args = {conshow, "-n",
                                                                                   "plexhost"}) {
        auto started = std::make_unique<test::Program>(args);
        EXPECT_NE(test::expect(started->out, "console.\n"), "");
        return started;
    }

    test::Home home;
};

TEST_F(Viewer, ShowsTheScreenAndSendsKeys) {
    test::spew("p.ans", "\033[2;3H\033[1;33;44mmoon\333\033[0;5;31mblink\033[5;7H\033[s");
    // The picture comes through a pipe, which can be read only once.
    const std::string line = "exec " + conshow + " -n plexhost <(cat p.ans)";
    const auto shown = program({"bash", "-c", line});
    Terminal term(plexview);
    term.shows("plexview: Ctrl+] leaves");
    term.shows("\033[93m\033[44mmoon█\033[5m\033[31m\033[40mblink");
    EXPECT_EQ(term.tmux({"display", "-p", "#{cursor_x},#{cursor_y},#{cursor_flag}"}).out,
              "6,4,1\n");
    const char *const keys[][2] = {
        {"a", "0x0061 \"a\""}, {"F1", "0x3B00"},    {"S-F1", "0x5400"},  {"C-F5", "0x6200"},
        {"M-F10", "0x7100"},   {"Up", "0x4800"},    {"Down", "0x5000"},  {"C-Left", "0x7300"},
        {"Home", "0x4700"},    {"C-End", "0x7500"}, {"PPage", "0x4900"}, {"NPage", "0x5100"},
        {"IC", "0x5200"},      {"DC", "0x5300"},    {"BTab", "0x0F00"},  {"Tab", "0x0009"},
        {"BSpace", "0x0008"},  {"M-a", "0x1E00"},   {"M-Z", "0x2C00"},   {"M-5", "0x7C00"},
        {"C-a", "0x0001"},     {"C-c", "0x0003"},   {"é", "0x0082"},     {"S-Right", "0x4D00"},
    };
    for (const auto &k : keys) {
        term.answers(k[0], k[1]);
    }
    // Keys that have no code, as other terminals send them: no part of them is typed.
    for (const char *key :
         {"\033[7^", "\033[7$", "\033Oa", "\033[[Z", "\033\033[A", "\033[99;9~"}) {
        term.tmux({"send-keys", "-l", key});
        term.answers("x", "0x0078 \"x\"");
        term.answers("y", "0x0079 \"y\"");
    }
    term.tmux({"send-keys", "C-]"});
    term.shows("status=0");
    EXPECT_EQ(term.screen().find("moon"), std::string::npos) << "the terminal was not given back";
    EXPECT_EQ(term.tmux({"display", "-p", "#{cursor_flag}"}).out, "1\n");
    EXPECT_TRUE(shown->running());
    Terminal again(plexview); // it takes the next viewer, and Escape ends it with that
    again.shows("moon");
    again.tmux({"send-keys", "Escape"});
    again.shows("status=0");
    EXPECT_EQ(shown->wait().code(), 0);
    EXPECT_FALSE(test::exists("plexhost.console"));
}

TEST_F(Viewer, GoesWhenAnotherComes) {
    const auto shown = program();
    Terminal first(plexview + " " + home.path);
    first.answers("x", "0x0078");
    const std::string telling = "sh -c 'echo $$ > pid; exec " + plexview + "'";
    Terminal second(telling);
    second.answers("y", "0x0079");
    first.shows("status=0");
    EXPECT_EQ(first.screen().find("ended"), std::string::npos) << "it was not quiet";
    const auto end = [](int signo) {
        const pid_t pid = atoi(test::slurp("pid").c_str());
        ASSERT_GT(pid, 1);
        kill(pid, signo);
    };
    end(SIGKILL);
    second.shows("status=137");
    Terminal third(telling);
    third.answers("z", "0x007A");
    end(SIGTERM);
    third.shows("status=143");
    EXPECT_EQ(third.screen().find("Key"), std::string::npos) << "the terminal was not given back";
    EXPECT_TRUE(shown->running());
}

TEST_F(Viewer, TellsWhenTheProgramDies) {
    auto shown = program();
    Terminal term(plexview);
    term.answers("x", "0x0078");
    kill(shown->pid, SIGKILL);
    term.shows("plexview: the program has ended\nstatus=1");
    EXPECT_TRUE(test::exists("plexhost.console"));
    shown = program(); // the socket left behind is no obstacle
    Terminal next(plexview);
    next.answers("x", "0x0078"); // the picture is in the segment still; the program answers keys
    kill(shown->pid, SIGTERM);
    next.shows("status=0");
    EXPECT_EQ(shown->wait().code(), 0);
    EXPECT_FALSE(test::exists("plexhost.console"));
}

TEST_F(Viewer, PastedKeysWaitForAProgramThatIsSlow) {
    ASSERT_GE(shmget(test::segmentkey(), 4029, IPC_CREAT | 0600), 0);
    const int listening = plex::lsnsoc("plexhost.console");
    Terminal term(plexview);
    ASSERT_TRUE(test::readable(listening));
    const int link = plex::acceptfd(listening);
    EXPECT_EQ(test::take(link, 4).size(), 4U);
    term.shows("Ctrl+]");
    std::string pasted;
    std::string want;
    for (int i = 0; i < 1200; i++) {
        pasted += static_cast<char>('a' + i % 26);
        want += pasted.back() + std::string(3, '\0');
    }
    term.tmux({"set-buffer", pasted});
    term.tmux({"paste-buffer"});
    int queued = 0;
    int looks = 0; // that found it as before: the link is full
    EXPECT_TRUE(test::eventually([&] {
        const int before = queued;
        ioctl(link, FIONREAD, &queued);
        looks = queued > 0 && queued == before ? looks + 1 : 0;
        return looks == 100;
    }));
    EXPECT_EQ(test::take(link, want.size()), want);
    term.tmux({"send-keys", "C-]"});
    EXPECT_EQ(test::take(link, 4), "\xFF\xFF\xFF\xFF");
    close(link);
    close(listening);
}

TEST_F(Viewer, SmallTerminalsAreTold) {
    const auto shown = program();
    Terminal term(plexview, 80, 24);
    term.shows("This terminal is 80 x 24;\nthe console needs 80 x 25.");
    term.tmux({"resize-window", "-x", "80", "-y", "25"});
    term.shows("tries a console out");
    term.tmux({"resize-window", "-x", "79", "-y", "25"});
    term.shows("This terminal is 79 x 25");
    term.tmux({"send-keys", "C-]"});
    term.shows("status=0");
}

TEST_F(Viewer, SaysWhatIsMissing) {
    const auto told = [](const std::string &command, const std::string &text) {
        Terminal(command).shows(text);
    };
    told(plexview, "plexview: no program of this user shows a console\nstatus=1");
    ASSERT_GE(shmget(test::segmentkey(), 100, IPC_CREAT | 0600), 0);
    told(plexview, "plexview: this user's shared memory is too small for a screen\nstatus=1");
    told(conshow + " -n plexhost", "is too small for a screen");
    EXPECT_FALSE(test::exists("plexhost.console"));
    test::removesegment();
    ASSERT_GE(shmget(test::segmentkey(), 4029, IPC_CREAT | 0600), 0);
    told(plexview, "plexview: no program shows its console in .\nstatus=1");
    told(plexview + " nodir", "plexview: nodir: No such file or directory\nstatus=1");
    told("TERM=nothing " + plexview, "plexview: terminal type nothing is not known\nstatus=1");
    told("BBSDISP=xwindows " + conshow,
         "conshow: BBSDISP=xwindows is no console: nullcon, xwindow or unixcon\nstatus=1");
    told("DISPLAY= BBSDISP=xwindow " + conshow, "cannot connect to X server");
    const auto piped = test::Program({plexview}).wait();
    EXPECT_EQ(piped.err, "plexview: standard input and output must be a terminal\n");
    EXPECT_EQ(piped.code(), 1);
}

} // namespace
