// A home to try harbour in, and the files that come with it.
#pragma once

#include <string>

namespace harbour {

// Where harbour.mcv is neither in the working directory nor named by MCVPATH, has it looked for
// beside the program, or where it is installed.
void findtexts();

// Makes a private home with the sample files and has the configuration name it. Returns an empty
// string, or what went wrong.
std::string makedemo();

// Tells how to call it at that ADDRESS:PORT.
void telldemo(const std::string &at);

// Removes the home, if one was made.
void enddemo();

} // namespace harbour
