// System calls that fail: what becomes of the daemon, what its host is told, what is reported.

#include "libunix/daemon/endings.h"
#include "libunix/daemon/state.h"
#include "libunix/runtime/files.h"
#include "libunix/runtime/lock.h"
#include "libunix/runtime/process.h"
#include "tests/faults/calls.h"
#include "tests/host.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

using test::inchild;
using test::Outcome;
using test::slurp;
using test::state;

struct Faults : test::Daemon {
    Faults() { file = BUILD_DIR "/tests/vosterd_faults"; }

    void plan(const char *faults, bool starts = true) {
        start({"-d"}, {"BBSLOG=file", std::string("FAULTS=") + faults});
        if (starts) {
            join();
        }
    }

    // Whether the daemon does not hear of ended commands.
    bool deaf() const {
        const std::string status = slurp(proc("status"));
        const size_t at = status.find("SigBlk:");
        return at != std::string::npos &&
               (strtoull(status.c_str() + at + 7, nullptr, 16) >> (SIGCHLD - 1) & 1) != 0;
    }

    // Everything that the host hears of a command: the answer, its end when that is to be told, and
    // what stood on its terminal in brackets.
    std::string course(int usrnum, const char *command, bool ending) {
        EXPECT_EQ(plex::hostrun(link, usrnum, command), 0);
        std::string heard = record();
        int fd = -1;
        if (heard.ends_with(",-1,0")) {
            EXPECT_TRUE(test::readable(link));
            const plex::Link got = plex::hostfd(link, fd);
            heard += got == plex::Link::got ? "" : std::string(" ") + plex::linktext(got);
        }
        heard += ending ? " " + record() : "";
        // A terminal that nobody ever opened does not hang up, so of an ended command's only what
        // is there can be waited for.
        if (fd >= 0) {
            heard += " [" + (!ending || test::readable(fd, 0) ? test::drain(fd) : "") + "]";
            close(fd);
        }
        return heard;
    }
};

TEST_F(Faults, AtStart) {
    const std::string accept = "Unable to accept connection from client.\n";
    const std::string endpoint = "Unable to create listen socket.\n";
    const struct {
        const char *faults;
        std::string err;
        int code;
        const char *log;
    } rows[] = {
        {"fcntl:1:37", "fcntl: 37 (No locks available)\nhalvrond is already running.\n", 1, ""},
        {"sigaction:2:22", "Unable to install SIGCHLD handler.\n", 3, ""},
        {"sigaction:3:22", "Unable to install SIGTERM handler.\n", 4, ""},
        {"sigaction:4:22", "Unable to install SIGINT handler.\n", 5, ""},
        {"socket:1:24", "pipe: Too many open files\n" + endpoint, 1, ""},
        {"fchmod:1:1", "creat: Operation not permitted\n" + endpoint, 1, ""},
        {"bind:1:28", "creat: No space left on device\n" + endpoint, 1, ""},
        {"listen:1:95", "fattach: Operation not supported\n" + endpoint, 1, ""},
        {"accept:1:24", accept, 2, "I_RECVFD: Too many open files (24)\n"},
        {"accept:1:4", accept, 2, "I_RECVFD: Interrupted system call (4)\n"},
    };
    for (const auto &r : rows) {
        plan(r.faults, false);
        const Outcome o = program->wait();
        EXPECT_EQ(o.code(), r.code) << r.faults;
        EXPECT_EQ(o.err, r.err) << r.faults;
        EXPECT_EQ(slurp("vosterd.log"), r.log) << r.faults;
        EXPECT_TRUE(test::exists("vosterd.pid")) << r.faults; // only its end in order removes it
    }
    unlink("vosterd.pid");
    plan("write:1:28"); // a lock without an id in its file is a lock
    EXPECT_EQ(output(1, "/bin/echo x"), "x\r\n");
    EXPECT_EQ(slurp("vosterd.pid"), "");
    finish();
}

TEST_F(Faults, AtALaunch) {
    const std::string ptym = "pty_fork:ptym_open: ";
    const std::string eintr = "Interrupted system call\n";
    const std::string eacces = "Permission denied\n";
    const std::string eio = "Input/output error\n";
    const std::string refused = "0,-2,0";
    const std::string usual = "1,-1,0 1,-3,0 [x\r\n]";
    const auto died = [](int status) {
        return "1,-1,0 1,-3," + std::to_string((status & 0xFF) << 8) + " []";
    };
    const struct {
        const char *faults;
        std::string heard;
        std::string err;
        const char *log = "";
    } rows[] = {
        // No terminal: refused, and from then on no end of a command is told.
        {"open:1:4", refused, "ptym_open:open: " + eintr + ptym + eintr},
        {"grantpt:1:13", refused, "ptym_open:grantpt: " + eacces + ptym + eacces},
        {"unlockpt:1:5", refused, "ptym_open:unlockpt: " + eio + ptym + eio},
        {"ptsname:1:5", refused, "ptym_open:ptsname: " + eio + ptym + eio},
        {"fork:1:4", refused, "pty_fork:fork(): " + eintr, "COMMAND FAILED!\n"},
        // Started, but its terminal cannot be set up: it ends, and that is told.
        {"setsid:1:13", died(-1), "pty_fork:setsid(): " + eacces},
        {"open:2:4", died(-2), "pty_fork:ptys_open: " + eintr},
        // By the parent, through the master, and where that fails by the child.
        {"tcsetattr:1:5 tcsetattr:2:5", died(-4), "pty_fork:tcsetattr: " + eio},
        {"ioctl:1:5 ioctl:2:5", died(-5), "pty_fork:ioctl(TIOCSWINSZ): " + eio},
        {"tcsetattr:1:5", usual, ""},
        {"ioctl:1:5", usual, ""},
        {"dup2:1:5", died(-6), "pty_fork:dup2(STDIN_FILENO): " + eio},
        {"dup2:2:5", died(-7), "pty_fork:dup2(STDOUT_FILENO): " + eio},
        {"dup2:3:4", died(-8), "pty_fork:dup2(STDERR_FILENO): " + eintr},
        // Nobody looks at these: the launch goes on.
        {"sigaction:5:22", usual, ""},
        {"send:1:11", "a descriptor came where a record should 1,-3,0", ""},
        {"sendmsg:1:109", "1,-1,0 bytes came where a descriptor should 1,-3,0", "",
         "I_SENDFD: Too many references: cannot splice (109)\n"},
        {"send:2:105", "1,-1,0 [x\r\n]", ""},
        {"malloc:1:12", "1,-1,0 [x\r\n]", "", "Could not find child (pid="}, // not in the table
        // Interrupted: repeated.
        {"read:1:4", usual, ""},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.faults);
        plan(r.faults);
        const bool deaf = r.heard == refused;
        EXPECT_EQ(course(1, "/bin/echo x", r.heard.find(",-3,") != std::string::npos), r.heard);
        EXPECT_TRUE(test::eventually([&] { return this->deaf() == deaf; }));
        // Three standard ones, log, lock, endpoint, link; a fork that failed leaves a master.
        const int open = strncmp(r.faults, "fork", 4) == 0 || strncmp(r.faults, "malloc", 6) == 0;
        EXPECT_TRUE(test::eventually([&] { return descriptors() == 7 + open; })) << descriptors();
        // Signals of two ends would merge.
        EXPECT_TRUE(deaf || test::eventually([&] { return commands().empty(); }));
        EXPECT_EQ(course(2, "/bin/echo on", !deaf),
                  deaf ? "2,-1,0 [on\r\n]" : "2,-1,0 2,-3,0 [on\r\n]");
        finish();
        EXPECT_EQ(program->wait().err, r.err);
        EXPECT_NE(slurp("vosterd.log").find(r.log), std::string::npos) << slurp("vosterd.log");
    }
}

TEST_F(Faults, OfTheRequestLoop) {
    const struct {
        const char *faults;
        int code;
    } rows[] = {{"read:1:5", 150 + EIO}, {"read:1:104", 0}};
    for (const auto &r : rows) {
        plan(r.faults);
        EXPECT_EQ(record(), "the daemon closed the link") << r.faults;
        finish(r.code);
    }
}

TEST_F(Faults, OfTheShutDown) {
    plan("kill:1:1 fcntl:2:37");
    const int killed = run(1, "/bin/cat");
    EXPECT_EQ(plex::hostkill(link, 1), 0); // fails, but the command is dropped
    const int cat = run(2, "/bin/cat");
    finish(0, true);
    EXPECT_EQ(program->wait().err, "fcntl: 37 (No locks available)\n");
    over(cat);
    close(killed);
}

TEST_F(Faults, OfAKillThatEndingOvertakes) {
    plan("kill:1:-15");
    const int cat = run(1, "/bin/cat");
    const pid_t pid = commands().at(0);
    EXPECT_EQ(plex::hostkill(link, 1), 0);
    EXPECT_TRUE(test::eventually([&] { return state(pid) == 'Z' || state(pid) == '-'; }));
    finish(100 + SIGTERM);
    close(cat);
}

TEST_F(Faults, SignalsWithoutAnEnd) {
    plan("");
    const auto logged = [&](const char *text) {
        return test::eventually(
            [&] { return slurp("vosterd.log").find(text) != std::string::npos; });
    };
    kill(program->pid, SIGCHLD);
    EXPECT_TRUE(logged("Received SIGCHLD.\nwait: No child processes")) << slurp("vosterd.log");
    const int cat = run(1, "/bin/cat");
    EXPECT_EQ(write(cat, "x\n", 2), 2);
    EXPECT_EQ(test::expect(cat, "x\r\nx\r\n"), "x\r\nx\r\n"); // it runs, and a hang-up will end it
    kill(commands().at(0), SIGSTOP);                          // a stop is no end
    EXPECT_TRUE(logged("Received SIGCHLD.\nCould not find child (pid=0)\n"));
    EXPECT_EQ(output(2, "/bin/echo x"), "x\r\n");
    close(cat);
    finish();
    const test::Home other;
    const Outcome o = inchild([] {
        plex::lockfd = plex::maklck(plex::LOCKNAME);
        plex::usignal(SIGPIPE, plex::process_signal);
        raise(SIGPIPE);
    });
    EXPECT_EQ(o.code(), 0);
    EXPECT_EQ(o.err, "SIGPIPE");
    EXPECT_FALSE(test::exists(plex::LOCKNAME));
}

TEST_F(Faults, OfServices) {
    const struct {
        const char *faults;
        void (*body)();
        int code;
        const char *err;
    } rows[] = {
        {"fork:1:11", plex::daemon_init, 1, "Fork failed: Resource temporarily unavailable\n"},
        {"fork:1:11", plex::daemon_wait, 255, ""},
        {"getrlimit:1:1", [] { plex::gfinit(), _exit(plex::fopavl); }, 60, ""},
        {"getrlimit:1:1", [] { _exit(plex::maxfil(5)); }, 255, ""},
        {"setrlimit:1:1", [] { _exit(plex::maxfil(5)); }, 255, ""},
    };
    test::spew("cfg", "");
    for (const auto &r : rows) {
        const Outcome o = inchild([&] {
            setenv("BBSCONFIG", "cfg", 1);
            test::fault(r.faults);
            r.body();
        });
        EXPECT_EQ(o.code(), r.code) << r.faults << o.err;
        EXPECT_EQ(o.err, r.err) << r.faults;
    }
}

} // namespace
