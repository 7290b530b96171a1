// Texts in code page 437 and in UTF-8. Apart from cp437.h, as strings bring the memory of the C++
// library along, which the daemon does without.
#pragma once

#include <string>
#include <string_view>

namespace plex {

// The code page's bytes as UTF-8; control characters stay.
std::string toutf8(std::string_view bytes);

// The beginning of a character, whose rest is to come; as it is at first, when there is none.
struct Utf8part {
    unsigned code = 0;
    int left = 0; // bytes to come
};

// UTF-8 as the code page's bytes, "?" for what that does not have and for what is no character;
// ASCII stays. `part` keeps what the bytes end within, for the next call.
std::string fromutf8(std::string_view bytes, Utf8part &part);

} // namespace plex
