// What tests share: a home of their own, child processes that are always ended, bounded waits.
#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace test {

// The bound on every wait. Nothing takes this long; a test that reaches it has failed.
constexpr int patience = 10000; // milliseconds

// The descriptor that would be opened next: the same as before when nothing was left open.
int nextfd();

// A new directory that is the working directory while the object lives, and is removed with all
// that is in it. What is opened meanwhile is to be closed by then.
struct Home {
    Home();
    ~Home();

    std::string path;
    int next = nextfd();
};

std::string slurp(const std::string &path); // a whole file; empty when it is missing
void spew(const std::string &path, std::string_view text);

// Polls `done` until it holds; false when patience ran out.
bool eventually(const std::function<bool()> &done);

// Reads until `text` has come; less when the end of the stream or patience comes first.
std::string expect(int fd, const std::string &text);

// How a child ended (its exit code, or 128 + the signal that ended it), and what it wrote.
struct Outcome {
    std::string out, err;
    int status;
};

// Runs `body` in a forked child, which exits 0 when it returns and is killed when it outlives
// patience or the test. Its output is read until its own children, too, have closed it; it fails
// when it says more on its standard error than a pipe holds.
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
