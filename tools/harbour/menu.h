// The menu: what callers may run. docs/harbour.md has the file's form.
#pragma once

#include <string>
#include <vector>

namespace harbour {

struct Entry {
    char key;            // in upper case
    double minutes;      // allowed; 0: as long as the call lasts
    std::string title;   // in code page 437
    std::string command; // as the daemon takes it
};

struct Menu {
    std::vector<Entry> entries;
    std::vector<std::string> faults; // "FILE:LINE: what is wrong", one for each line left out
};

// The keys that the menu has of its own.
constexpr char WHO = 'W';
constexpr char LANGUAGE = 'L';
constexpr char GOODBYE = 'G';
constexpr char AGAIN = '?';

// Reads harbour.menu. False, with a fault that says why, when that cannot be read.
bool readmenu(Menu &menu);

// The entry with that key, in upper case; null when there is none.
const Entry *findentry(const Menu &menu, char key);

// `text` as a number within these limits: false when it is none.
bool readnumber(const std::string &text, double least, double most, double &number);

} // namespace harbour
