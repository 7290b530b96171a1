#include "tests/support.h"

#include "libunix/runtime/bgnlog.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

Home::Home() {
    char name[] = "/tmp/plextest.XXXXXX";
    path = mkdtemp(name);
    std::filesystem::current_path(path);
}

Home::~Home() {
    std::error_code ignored;
    std::filesystem::current_path("/");
    std::filesystem::remove_all(path, ignored);
    EXPECT_EQ(nextfd(), next) << "a descriptor stayed open";
}

std::string slurp(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void spew(const std::string &path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

bool eventually(const std::function<bool()> &done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(patience);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        poll(nullptr, 0, 1);
    }
    return true;
}

// Reads `most` bytes at most, or as many as come before the end, or before patience runs out.
static std::string take(int fd, size_t most = SIZE_MAX) {
    std::string text;
    pollfd pfd = {fd, POLLIN, 0};
    while (text.size() < most && poll(&pfd, 1, patience) != 0) {
        char buf[4096];
        const ssize_t n = read(fd, buf, std::min(sizeof buf, most - text.size()));
        if (n == 0 || (n < 0 && errno != EINTR)) {
            break;
        }
        text.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
    }
    return text;
}

std::string expect(int fd, const std::string &text) {
    std::string got;
    for (std::string byte = "?"; !got.ends_with(text) && !byte.empty(); got += byte) {
        byte = take(fd, 1);
    }
    return got;
}

int nextfd() {
    const int fd = dup(2);
    close(fd);
    return fd;
}

Outcome inchild(const std::function<void()> &body) {
    int pipes[4];
    if (pipe2(pipes, O_CLOEXEC) != 0 || pipe2(pipes + 2, O_CLOEXEC) != 0) {
        abort();
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(pipes[1], 1);
        dup2(pipes[3], 2);
        for (const int fd : pipes) {
            close(fd);
        }
        body();
        fflush(nullptr);
        _exit(0);
    }
    close(pipes[1]);
    close(pipes[3]);
    Outcome outcome = {take(pipes[0]), take(pipes[2]), 0};
    close(pipes[0]);
    close(pipes[2]);
    int status = 0;
    if (!eventually([&] { return waitpid(pid, &status, WNOHANG) != 0; })) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

std::string told(const std::function<void()> &body) {
    const Outcome o = inchild(body);
    return o.out + "|" + o.err + "|" + std::to_string(o.status);
}

void say(std::initializer_list<int> results) {
    for (const int result : results) {
        printf("%d ", result);
    }
}

void logout(const char *where) {
    setenv("BBSLOG", where, 1);
    plex::bgnlog("");
}

} // namespace test
