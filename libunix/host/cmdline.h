// From what a person types to what the daemon takes: a command's path, and a command line.
#pragma once

#include <string>
#include <vector>

namespace plex {

// Finds the program that `name` means: itself when it has a slash, else the first executable of
// that name along PATH. Returns its absolute path, or an empty string with errno: ENOENT when there
// is none, EACCES when there is one that may not be executed.
std::string findprogram(const std::string &name);

// Whether `path` is a file that may be executed; else false with errno.
bool executable(const std::string &path);

// `path` seen from the root.
std::string absolute(const std::string &path);

// Writes into `line` the command line that the daemon splits into exactly `args`. Returns an empty
// string, or why there is no such line.
std::string makeline(const std::vector<std::string> &args, std::string &line);

} // namespace plex
