#include "tools/harbour/texts.h"

#include "libsrc/plex.h"
#include "libunix/common/cp437.h"
#include "tools/harbour/messages.h"

#include <cctype>
#include <climits>
#include <clocale>
#include <cstdio>

namespace harbour {
namespace {

constexpr int longest = 4096; // bytes of a message

} // namespace

std::string opentexts() {
    if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr) {
        return "the system has no C.UTF-8 locale";
    }
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

std::string withoutcolours(std::string_view text) {
    std::string out;
    bool escape = false;
    for (const char c : text) {
        escape = escape || c == '\033';
        out.append(escape || static_cast<unsigned char>(c) < ' ' ? 0 : 1, c);
        escape = escape && c != 'm';
    }
    return out;
}

char yeskey(int language) {
    const char *yes = plex::languages[language]->yes;
    return static_cast<char>(tolower(static_cast<unsigned char>(*yes != '\0' ? *yes : 'y')));
}

std::string toutf8(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        char character[MB_LEN_MAX] = {c};
        std::mbstate_t state = {};
        const size_t n = byte < 0x80 ? 1 : wcrtomb(character, plex::fromcp437(byte), &state);
        out.append(character, n);
    }
    return out;
}

std::string fromutf8(std::string_view bytes, std::mbstate_t &open) {
    std::string out;
    for (const char c : bytes) {
        wchar_t character = 0;
        size_t n = mbrtowc(&character, &c, 1, &open);
        if (n == static_cast<size_t>(-1)) { // no character; but one may begin with this byte
            open = {};
            out += '?';
            n = static_cast<signed char>(c) >= 0 ? mbrtowc(&character, &c, 1, &open)
                                                 : static_cast<size_t>(-2);
        }
        if (n <= 1) {
            const int byte = character < 0x80 ? static_cast<unsigned char>(c)
                                              : plex::tocp437(static_cast<wint_t>(character));
            out += static_cast<char>(byte < 0 ? '?' : byte);
        }
    }
    return out;
}

} // namespace harbour
