// What tests share: a home of their own, child processes that are always ended, bounded waits.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace test {

// The bound on every wait. Nothing takes this long; a test that reaches it has failed.
constexpr int patience = 10000; // milliseconds

// A new directory that is the working directory while the object lives, and is removed with all
// that is in it.
class Home {
public:
    Home();
    ~Home();
    Home(const Home &) = delete;
    Home &operator=(const Home &) = delete;

    std::string path;
};

std::string slurp(const std::string &path); // a whole file; empty when it is missing
void spew(const std::string &path, std::string_view text);

// Polls `done` until it holds; false when patience ran out.
bool eventually(const std::function<bool()> &done);

// Waits until `fd` can be read (or is at its end); false when patience ran out.
bool readable(int fd, int milliseconds = patience);

// Reads exactly `len` bytes, until `text` has come, or until the end of the stream; less when that
// or patience comes first.
std::string take(int fd, size_t len);
std::string expect(int fd, const std::string &text);

// The descriptor that would be opened next: the same as before when nothing was left open.
int nextfd();

// How a child ended (its exit code, 128 + the signal that ended it, or -1 when it had to be
// killed), and what it wrote.
struct Outcome {
    std::string out, err;
    int status = -1;

    int code() const { return status; }
};

// A process beside the test, with its output captured, killed at the latest by the destructor or
// with the test. Its own children must not outlive it with its output, which is read until all
// close it.
class Program {
public:
    // A forked child that exits 0 when `body` returns.
    explicit Program(const std::function<void()> &body);
    explicit Program(const std::vector<std::string> &argv);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    Outcome wait(); // for its end, bounded

    pid_t pid = -1;
    int out = -1; // its standard output and error, to be read while it runs
    int err = -1;
};

Outcome inchild(const std::function<void()> &body);
std::string told(const std::function<void()> &body); // the same as "OUT|ERR|CODE"

void say(std::initializer_list<int> results); // on standard output, a blank behind each

// Lets the Nth call of a name from now on fail with an error number, or sends its process a signal
// first when the number is negative: "fork:1:11 kill:2:-15", at most four; an empty text ends it.
// A program takes its first plan from the environment's FAULTS. For what is linked with faults.
void fault(const char *plan);

// Starts the log, to standard output or error.
void logout(const char *where = "stdout");

} // namespace test
