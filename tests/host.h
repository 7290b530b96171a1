// A real daemon in a home of its own, with the test as its host.
#pragma once

#include "libunix/host/hostlink.h"
#include "tests/support.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <unistd.h>

namespace test {

// A record as text: user, kind, message.
inline std::string show(const plex::clientmsg &m) {
    return std::to_string(m.usrnum) + "," + std::to_string(m.msgtyp) + "," +
           std::to_string(m.message);
}

// What the kernel says of a process: "R", "S", "Z" ...; "-" when it is gone.
inline char state(pid_t pid) {
    const std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren == std::string::npos ? '-' : stat[paren + 2];
}

struct Daemon : testing::Test {
    ~Daemon() override {
        if (link >= 0) {
            close(link);
        }
    }

    void start(const std::vector<std::string> &args = {}, std::vector<std::string> env = {},
               int in = -1) {
        spew("cfg", "HOME=" + home.path + "\n" + extra);
        env.insert(env.begin(), {"BBSCONFIG=" + home.path + "/cfg", "HOME=/nowhere"});
        std::vector<std::string> argv = {file};
        argv.insert(argv.end(), args.begin(), args.end());
        program = std::make_unique<Program>(argv, env, in);
    }

    // Connects to the daemon once it listens.
    void join() {
        ASSERT_TRUE(eventually([&] {
            link = plex::hostopen(home.path.c_str());
            return link >= 0 || !program->running();
        }));
        ASSERT_GE(link, 0) << program->wait().err;
    }

    void begin(const std::vector<std::string> &args = {}, const std::vector<std::string> &env = {},
               int in = -1) {
        start(args, env, in);
        join();
    }

    // The next record, as text.
    std::string record() {
        plex::clientmsg m = {};
        if (!readable(link)) {
            return "nothing came";
        }
        const plex::Link got = plex::hostread(link, m);
        return got == plex::Link::got ? show(m) : plex::linktext(got);
    }

    // The answer to a request that starts a command: its terminal's master.
    int started(int usrnum) {
        EXPECT_EQ(record(), show({usrnum, -1, 0}));
        int fd = -1;
        EXPECT_TRUE(readable(link));
        EXPECT_EQ(plex::hostfd(link, fd), plex::Link::got);
        return fd;
    }

    int run(int usrnum, const std::string &command) {
        EXPECT_EQ(plex::hostrun(link, usrnum, command), 0);
        return started(usrnum);
    }

    // Types at a command and expects what its terminal shows from there on.
    static void type(int fd, const std::string &keys, const std::string &shown = "") {
        EXPECT_EQ(write(fd, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
        EXPECT_EQ(take(fd, shown.size()), shown);
    }

    // Runs a command to its end: all that it wrote. `told` is to be told of its end.
    std::string output(int usrnum, const std::string &command, const std::string &told = "") {
        const int fd = run(usrnum, command);
        std::string text = drain(fd);
        close(fd);
        EXPECT_EQ(record(), told.empty() ? show({usrnum, -3, 0}) : told) << command;
        return text;
    }

    // Expects a terminal's hang-up with nothing more on it, and `told`, unless that is empty.
    void over(int fd, const std::string &told = "") {
        EXPECT_EQ(drain(fd), "");
        close(fd);
        EXPECT_TRUE(told.empty() || record() == told) << told;
    }

    // Lets all commands that run end by `keys` while the daemon cannot look.
    void endtogether(const std::vector<int> &masters, const std::string &keys) {
        EXPECT_EQ(commands().size(), masters.size());
        kill(program->pid, SIGSTOP);
        ASSERT_TRUE(eventually([&] { return state(program->pid) == 'T'; }));
        for (const int fd : masters) {
            type(fd, keys);
        }
        EXPECT_TRUE(eventually([&] { return running() == 0; }));
        kill(program->pid, SIGCONT);
    }

    // Closes the link and expects an orderly end; `stuck`: but for the lock.
    void finish(int status = 0, bool stuck = false) {
        close(link);
        link = -1;
        const Outcome o = program->wait();
        EXPECT_EQ(o.code(), status) << o.err;
        EXPECT_EQ(exists("vosterd.pid"), stuck);
        EXPECT_FALSE(exists("vosterd.socket"));
    }

    std::string proc(const char *file) const {
        return "/proc/" + std::to_string(program->pid) + "/" + file;
    }

    // The daemon's children, zombies included.
    std::vector<pid_t> commands() const {
        std::vector<pid_t> pids;
        const std::string id = std::to_string(program->pid);
        const std::string text = slurp(proc("task/") + id + "/children");
        for (size_t at = 0; at < text.size(); at = text.find(' ', at) + 1) {
            pids.push_back(atoi(text.c_str() + at));
        }
        return pids;
    }

    long running() const {
        const auto pids = commands();
        return std::count_if(pids.begin(), pids.end(), [](pid_t p) { return state(p) != 'Z'; });
    }

    int descriptors() const {
        int n = 0;
        for (int fd = 0; fd < 64; fd++) {
            n += exists(proc("fd/") + std::to_string(fd)) ? 1 : 0;
        }
        return n;
    }

    Home home;
    std::string file = BUILD_DIR "/vosterd";
    std::string extra; // more lines of the configuration file
    std::unique_ptr<Program> program;
    int link = -1;
};

} // namespace test
