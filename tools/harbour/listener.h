// Where callers come in: taken while there is a line, told why not when there is none.
#pragma once

#include <string>

namespace harbour {

// Listens at ADDRESS:PORT; an address of version 6 stands in brackets, port 0 is any. `at` becomes
// what it is. Returns an empty string, or what is wrong.
std::string openlistener(const std::string &where, std::string &at);
void closelistener();

// Whether only this machine can reach that address.
bool loopback(const std::string &at);

// The listener's event came.
void takecalls();

// Milliseconds until listenagain is to be called; -1: not at all.
int listenerwait();
void listenagain();

} // namespace harbour
