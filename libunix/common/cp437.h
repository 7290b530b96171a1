// Code page 437, the characters of a screen image, and Unicode.
#pragma once

#include <cwchar>
#include <string>
#include <string_view>

namespace plex {

// The character or picture that shows the byte.
wchar_t fromcp437(unsigned char c);

// The printable byte of the character; -1 when the code page has none.
int tocp437(wint_t c);

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
