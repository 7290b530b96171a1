// For tests of the common library. A program that links common.cpp has its own fatal-error path,
// which only tells the message.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test {

// Runs `body` in a child: the message of the fatal error that ended it, or how it ended otherwise
// (empty when it returned).
std::string fatal(const std::function<void()> &body);

// Makes these the languages of the system, without their configuration; none frees the table.
void speak(const std::vector<std::string> &names);

} // namespace test
