// Writing what a program makes to where its user wants it.
#pragma once

#include <string>
#include <string_view>

namespace plex {

// Writes the file. A regular one, or one that is not there yet, is replaced in one step, whole or
// not at all; its mode and owner stay, links to it are followed. What is no regular file (a device,
// a pipe) is written as it stands. False with errno.
bool writefile(const std::string &path, std::string_view bytes);

// Whether both names lead to one file, which may be a file to come.
bool samefile(const std::string &a, const std::string &b);

} // namespace plex
