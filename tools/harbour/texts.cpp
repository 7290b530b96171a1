#include "tools/harbour/texts.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"

namespace harbour {
namespace {

constexpr int longest = 4096; // bytes of a message

} // namespace

std::string opentexts() {
    plex::inilingo();
    plex::inimsg(longest);
    const int count = plex::opnmsg("harbour.mcv")->msgcnt;
    if (count != T_COUNT + 1) {
        return "harbour.mcv has " + std::to_string(count) + " texts, not " +
               std::to_string(T_COUNT + 1) + ": it is another version's";
    }
    if (plex::sameas("English/ANSI", plex::languages[0]->name) == 0) { // the one with all texts
        return "the first language of pxhost.cfg is not English/ANSI";
    }
    for (int i = 0; i < plex::nlingo * count; i++) {
        text(i / count, i % count); // what is cut is found now, not when a caller needs it
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

std::string plaintext(int language, int number, Words words) {
    std::string out;
    bool escape = false;
    for (const char c : text(language, number, words)) {
        escape = escape || c == '\033';
        out.append(escape || static_cast<unsigned char>(c) < ' ' ? 0 : 1, c);
        escape = escape && c != 'm';
    }
    return out;
}

bool plainlanguage(int language) {
    return plex::findstg("/ascii", plex::languages[language]->name) != 0;
}

} // namespace harbour
