// The source form of message files (docs/messages.md), and the files made of it.
#pragma once

#include <string>
#include <vector>

namespace plex {

struct Message {
    std::string name;               // for the programs that show it; empty for none
    std::vector<std::string> texts; // by language, each with its terminator; empty for none
    int line = 0;                   // where it begins in the source, 0 for a number not used
};

struct Source {
    std::vector<std::string> languages; // the first is the default
    std::vector<Message> messages;      // by number
};

// Reads a source file. Whatever is wrong with it is told on standard error, with file and line;
// false then.
bool readsource(const std::string &path, Source &source);

// The message file, byte by byte.
std::string messagefile(const Source &source);

// A C++ header with the numbers of the messages that have names.
std::string nameheader(const Source &source);

} // namespace plex
