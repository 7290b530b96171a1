// What harbour says, from the message file harbour.mcv, in code page 437 as the file has it.
#pragma once

#include <initializer_list>
#include <string>

namespace harbour {

using Words = std::initializer_list<std::string>;

// Reads the table of languages and opens the message file; where one is missing or does not add up
// the program ends through the fatal-error path. Returns an empty string, or what is wrong: a file
// that was made for another harbour, another default language. Nothing else here works before.
std::string opentexts();

// Message `number` in the language with that index, with "$1" to "$9" replaced by the words; lines
// end as on a terminal.
std::string text(int language, int number, Words words = {});

// The same as one line, without colours.
std::string plaintext(int language, int number, Words words = {});

// Whether terminals of that language's protocol know neither colours nor frames.
bool plainlanguage(int language);

} // namespace harbour
