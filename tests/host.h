// A real daemon in a home of its own, with the test as its host.
#pragma once

#include "tests/support.h"
#include "tools/hostlink.h"

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

    // Asks for a command and returns its terminal's master.
    int run(int usrnum, const std::string &command) {
        EXPECT_EQ(plex::hostrun(link, usrnum, command), 0);
        EXPECT_EQ(record(), std::to_string(usrnum) + ",-1,0") << command;
        int fd = -1;
        EXPECT_TRUE(readable(link));
        EXPECT_EQ(plex::hostfd(link, fd), plex::Link::got);
        return fd;
    }

    // Runs a command to its end: all that it wrote, and what was told of its end.
    std::string output(int usrnum, const std::string &command, std::string *ending = nullptr) {
        const int fd = run(usrnum, command);
        std::string text = drain(fd);
        close(fd);
        const std::string told = record();
        if (ending != nullptr) {
            *ending = told;
        } else {
            EXPECT_EQ(told, std::to_string(usrnum) + ",-3,0") << command;
        }
        return text;
    }

    // Closes the link and expects an orderly end.
    void finish(int status = 0) {
        close(link);
        link = -1;
        const Outcome o = program->wait();
        EXPECT_EQ(o.code(), status) << o.err;
        EXPECT_FALSE(exists("vosterd.pid"));
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

    Home home;
    std::string file = BUILD_DIR "/vosterd";
    std::string extra; // more lines of the configuration file
    std::unique_ptr<Program> program;
    int link = -1;
};

} // namespace test
