// What harbour says, from the message file harbour.mcv, and the two ways its characters travel:
// the file and the console have code page 437, callers may want UTF-8.
#pragma once

#include <cwchar>
#include <initializer_list>
#include <string>
#include <string_view>

namespace harbour {

using Words = std::initializer_list<std::string>;

// Reads the table of languages and opens the message file; both missing, or a table that does not
// fit, end the program through the fatal-error path. Returns an empty string, or what is wrong: a
// file that was made for another harbour, a system without UTF-8. Nothing else here works before.
std::string opentexts();

// Message `number` in the language with that index, with "$1" to "$9" replaced by the words; lines
// end as on a terminal. In code page 437.
std::string text(int language, int number, Words words = {});

// Whether terminals of that language's protocol know neither colours nor frames.
bool plainlanguage(int language);

// A text as one line: without line ends and colours.
std::string withoutcolours(std::string_view text);

// The languages' words for yes and no begin with these, in lower case.
char yeskey(int language);

// Code page 437 as UTF-8; control characters stay.
std::string toutf8(std::string_view bytes);

// UTF-8 as code page 437, "?" for what that does not have. `open` keeps the beginning of a
// character that the bytes end in; zero at first, and again with each new stream.
std::string fromutf8(std::string_view bytes, std::mbstate_t &open);

} // namespace harbour
