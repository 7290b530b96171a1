// Code page 437, the characters of a screen image, and Unicode.
#pragma once

#include <cwchar>

namespace plex {

// The character or picture that shows the byte.
wchar_t fromcp437(unsigned char c);

// The printable byte of the character; -1 when the code page has none.
int tocp437(wint_t c);

} // namespace plex
