// What callers are shown: the texts, from the message file harbour.mcv, and the programs that they
// may run, from harbour.menu. All of it is in code page 437.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

namespace harbour {

using Words = std::initializer_list<std::string>;

// Reads the table of languages and opens the message file. What is missing or does not add up ends
// the program: through the fatal-error path, and with status 1 a file of another version's or a
// default language that does not have all texts.
void opentexts();

// Message `number` in the language with that index, with "$1" to "$9" replaced by the words; lines
// end as on a terminal.
std::string text(int language, int number, Words words = {});

// Whether terminals of that language's protocol know neither colours nor frames.
bool plainlanguage(int language);

struct Entry {
    char key;            // in upper case
    double minutes;      // allowed; 0: as long as the call lasts
    std::string title;   // in code page 437
    std::string command; // as the daemon takes it
};
using Menu = std::vector<Entry>;

// The keys that the menu has of its own.
constexpr char WHO = 'W';
constexpr char LANGUAGE = 'L';
constexpr char GOODBYE = 'G';
constexpr char AGAIN = '?';

// Reads the menu; docs/harbour.md has the file's form. `fault` is told of each line left out, as
// "FILE:LINE: what is wrong", and of a file that cannot be read.
Menu readmenu(void (*fault)(const std::string &));

// The entry with that key, in upper case; null when there is none.
const Entry *findentry(const Menu &menu, char key);

// `text` as a number within these limits: false when it is none.
bool readnumber(const std::string &text, double least, double most, double &number);

} // namespace harbour
