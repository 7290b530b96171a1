#include "libunix/common/utf8.h"

#include "libunix/common/cp437.h"

#include <algorithm>
#include <bit>

namespace plex {

std::string toutf8(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        const unsigned code = byte < 0x80 ? byte : static_cast<unsigned>(fromcp437(byte));
        if (code >= 0x800) {
            out += static_cast<char>(0xE0 | code >> 12);
        }
        if (code >= 0x80) {
            out += static_cast<char>(code >= 0x800 ? 0x80 | (code >> 6 & 0x3F) : 0xC0 | code >> 6);
        }
        out += static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code);
    }
    return out;
}

std::string fromutf8(std::string_view bytes, Utf8part &part) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (part.left > 0 && (byte & 0xC0) == 0x80) {
            part.code = part.code << 6 | (byte & 0x3F);
            if (--part.left == 0) {
                const int found = tocp437(part.code);
                out += static_cast<char>(found != -1 ? found : '?');
            }
            continue;
        }
        out.append(part.left > 0 ? 1 : 0, '?'); // that one was cut
        const int ones = std::countl_one(byte); // the bytes of the character; 0 is one of ASCII
        part.left = ones < 5 ? std::max(ones - 1, 0) : 0;
        part.code = byte & (0x3FU >> part.left);
        if (part.left == 0) {
            out += byte < 0x80 ? c : '?';
        }
    }
    return out;
}

} // namespace plex
