// For runs that outlive fatal errors, and have their languages without a configuration: fuzzing,
// where an input may end in one and the next follows, and tests of the common library.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace fuzz {

extern std::string said; // the message of the last fatal error

// Calls `body`; true when it returned, false when a fatal error ended it. Not nested.
bool survives(const std::function<void()> &body);

// Makes these the languages of the system; none frees the table.
void speak(const std::vector<std::string> &names);

} // namespace fuzz
