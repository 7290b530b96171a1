#include "tools/harbour/texts.h"

#include "harbour_texts.h"
#include "libsrc/plex.h"
#include "libunix/common/cp437.h"

#include <cctype>
#include <cstdio>

namespace harbour {
namespace {

constexpr int longest = 4096; // bytes of a message

void append(std::string &out, wchar_t c) {
    const auto code = static_cast<unsigned>(c);
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | code >> 6);
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | code >> 12);
        out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// The bytes of the character that `first` begins; 0 when it begins none.
size_t lengthof(unsigned char first) {
    return first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 0;
}

char decoded(const std::string &character) {
    unsigned code = static_cast<unsigned char>(character[0]) & 0x7FU >> character.size();
    for (size_t i = 1; i < character.size(); i++) {
        code = code << 6 | (static_cast<unsigned char>(character[i]) & 0x3FU);
    }
    const int byte = plex::tocp437(code);
    return byte < 0 ? '?' : static_cast<char>(byte);
}

} // namespace

std::string opentexts() {
    plex::inilingo();
    plex::inimsg(longest);
    const plex::msgblk *file = plex::opnmsg("harbour.mcv");
    if (file->msgcnt != T_COUNT + 1) {
        return "harbour.mcv has " + std::to_string(file->msgcnt) + " texts, not " +
               std::to_string(T_COUNT + 1) + ": it is another version's";
    }
    char first[sizeof plex::lingo::name] = "";
    fseek(file->msgfp, file->lnglist, SEEK_SET);
    plex::fgetstg(first, sizeof first, file->msgfp);
    if (plex::sameas(first, plex::languages[0]->name) == 0) { // all would come out in that one
        return "the first language of pxhost.cfg is not the first one of harbour.mcv";
    }
    for (int language = 0; language < plex::nlingo; language++) {
        for (int number = 0; number < file->msgcnt; number++) {
            text(language, number); // what is cut is found now, not when a caller needs it
        }
    }
    return "";
}

std::string text(int language, int number, Words words) {
    plex::clingo = language;
    std::string out;
    for (const char *at = plex::rawmsg(number); *at != '\0'; at++) {
        if (at[0] == '$' && at[1] >= '1' && at[1] <= '9') {
            const auto word = static_cast<size_t>(*++at - '1');
            out += word < words.size() ? words.begin()[word] : "";
            continue;
        }
        out += *at == '\n' ? "\r\n" : std::string(1, *at);
    }
    return out;
}

bool plainlanguage(int language) {
    return plex::findstg("/ascii", plex::languages[language]->name) != 0;
}

char yeskey(int language) {
    const char *yes = plex::languages[language]->yes;
    return static_cast<char>(tolower(static_cast<unsigned char>(*yes != '\0' ? *yes : 'y')));
}

std::string toutf8(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        append(out, byte < 0x80 ? static_cast<wchar_t>(byte) : plex::fromcp437(byte));
    }
    return out;
}

std::string fromutf8(std::string_view bytes, std::string &open) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (!open.empty() && (byte & 0xC0) == 0x80) {
            open += c;
            if (open.size() == lengthof(static_cast<unsigned char>(open[0]))) {
                out += decoded(open);
                open.clear();
            }
            continue;
        }
        out.append(open.empty() ? 0 : 1, '?');
        open.clear();
        if (byte < 0x80) {
            out += c;
        } else if (lengthof(byte) != 0) {
            open = c;
        } else {
            out += '?';
        }
    }
    return out;
}

} // namespace harbour
