#include "tools/harbour/menu.h"

#include "libsrc/plex.h"
#include "tools/harbour/messages.h"
#include "tools/options.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace harbour {
namespace {

constexpr const char *path = "harbour.menu";
constexpr int longesttext = 4096;

std::string trimmed(const std::string &text) {
    const size_t from = text.find_first_not_of(" \t");
    return from == text.npos ? "" : text.substr(from, text.find_last_not_of(" \t\r") + 1 - from);
}

// Takes a line apart and adds its entry; what is wrong with it, else an empty string.
std::string addline(const std::string &line, Menu &menu) {
    std::istringstream rest(line);
    std::array<std::string, 4> fields;
    for (std::string &field : fields) {
        std::getline(rest, field, &field == &fields.back() ? '\n' : '|');
        field = trimmed(field);
    }
    plex::Utf8part part;
    const auto key = static_cast<char>(toupper(static_cast<unsigned char>(fields[0][0])));
    Entry entry = {key, 0, plex::fromutf8(fields[2], part), fields[3]};
    const std::pair<bool, const char *> faults[] = {
        {rest.fail(), "not of the form KEY | MINUTES | TITLE | COMMAND LINE"},
        {fields[0].size() != 1 || key <= ' ' || key > '~', "the key is not one character"},
        {key == WHO || key == LANGUAGE || key == GOODBYE || key == AGAIN, "the menu has this key"},
        {findentry(menu, key) != nullptr, "the key is taken already"},
        {!readnumber(fields[1], 0, 1440, entry.minutes),
         "the minutes are no number from 0 to 1440"},
        {entry.title.empty() || entry.title.size() > 40,
         "the title does not have 1 to 40 characters"},
        {entry.command[0] != '/', "the command line does not start with a path"},
        {entry.command.size() > plex::CMDSIZE, "the command line is too long"}};
    for (const auto &[wrong, why] : faults) {
        if (wrong) {
            return why;
        }
    }
    menu.push_back(entry);
    return "";
}

} // namespace

void opentexts() {
    plex::inilingo();
    plex::inimsg(longesttext);
    const int count = plex::opnmsg("harbour.mcv")->msgcnt;
    if (count != T_COUNT + 1) {
        plex::fail(1, "harbour.mcv has %d texts, not %d: it is another version's", count,
                   T_COUNT + 1);
    }
    if (plex::sameas("English/ANSI", plex::languages[0]->name) == 0) {
        plex::fail(1, "the first language of pxhost.cfg is not English/ANSI");
    }
    for (int i = 0; i < plex::nlingo * count; i++) {
        text(i / count, i % count); // what is cut is found now, not when a caller needs it
    }
}

std::string text(int language, int number, Words words) {
    plex::clingo = language;
    std::string out;
    for (const char *at = plex::rawmsg(number); *at != '\0'; at++) {
        if (at[0] == '$' && at[1] >= '1' && at[1] <= '9') {
            const auto word = static_cast<size_t>(*++at - '1');
            out += word < words.size() ? words.begin()[word] : "";
        } else {
            out += *at == '\n' ? "\r\n" : std::string(1, *at);
        }
    }
    return out;
}

bool plainlanguage(int language) {
    return plex::findstg("/ascii", plex::languages[language]->name) != 0;
}

Menu readmenu(void (*fault)(const std::string &)) {
    Menu menu;
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); number++) {
        line = trimmed(line);
        const std::string wrong = line.empty() || line[0] == '#' ? "" : addline(line, menu);
        if (!wrong.empty()) {
            fault(std::string(path) + ":" + std::to_string(number) + ": " + wrong);
        }
    }
    if (!file.eof()) {
        fault(std::string(path) + ": " + strerror(errno));
    }
    return menu;
}

const Entry *findentry(const Menu &menu, char key) {
    for (const Entry &entry : menu) {
        if (entry.key == key) {
            return &entry;
        }
    }
    return nullptr;
}

bool readnumber(const std::string &text, double least, double most, double &number) {
    char *end = nullptr;
    number = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && number >= least && number <= most;
}

} // namespace harbour
