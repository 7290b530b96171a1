#include "tools/harbour/menu.h"

#include "libsrc/plex.h"
#include "tools/harbour/texts.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace harbour {
namespace {

constexpr size_t longesttitle = 40;
constexpr double mostminutes = 1440;

std::string trimmed(const std::string &text) {
    const size_t from = text.find_first_not_of(" \t");
    return from == text.npos ? "" : text.substr(from, text.find_last_not_of(" \t\r\n") + 1 - from);
}

char upper(char c) {
    return static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

// Takes a line apart and adds its entry; what is wrong with it, else an empty string.
std::string addline(const std::string &line, Menu &menu) {
    std::array<std::string, 4> fields;
    size_t from = 0;
    for (size_t i = 0; i < fields.size(); i++) {
        const size_t bar = i + 1 < fields.size() ? line.find('|', from) : line.size();
        if (bar == line.npos) {
            return "not of the form KEY | MINUTES | TITLE | COMMAND LINE";
        }
        fields[i] = trimmed(line.substr(from, bar - from));
        from = bar + 1;
    }
    std::mbstate_t open = {};
    Entry entry = {upper(fields[0][0]), 0, fromutf8(fields[2], open), fields[3]};
    if (fields[0].size() != 1 || isgraph(static_cast<unsigned char>(entry.key)) == 0) {
        return "the key is not one character";
    }
    if (entry.key == WHO || entry.key == LANGUAGE || entry.key == GOODBYE || entry.key == '?') {
        return std::string("the menu itself has the key ") + entry.key;
    }
    if (findentry(menu, entry.key) != nullptr) {
        return std::string("the key ") + entry.key + " is taken already";
    }
    if (!readnumber(fields[1], 0, mostminutes, entry.minutes)) {
        return "the minutes are no number from 0 to 1440";
    }
    if (entry.title.empty() || entry.title.size() > longesttitle) {
        return "the title does not have 1 to 40 characters";
    }
    if (entry.command.empty() || entry.command[0] != '/' || entry.command.size() > plex::CMDSIZE) {
        return "the command line does not start with a path, or is too long";
    }
    menu.entries.push_back(entry);
    return "";
}

} // namespace

bool readmenu(const char *path, Menu &menu) {
    menu = {};
    FILE *file = fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    char *line = nullptr;
    size_t room = 0;
    for (int number = 1; getline(&line, &room, file) >= 0; number++) {
        const std::string stripped = trimmed(line);
        if (stripped.empty() || stripped[0] == '#') {
            continue;
        }
        const std::string fault = addline(stripped, menu);
        if (!fault.empty()) {
            menu.faults.push_back(std::string(path) + ":" + std::to_string(number) + ": " + fault);
        }
    }
    free(line);
    const bool whole = ferror(file) == 0;
    fclose(file);
    return whole;
}

const Entry *findentry(const Menu &menu, char key) {
    for (const Entry &entry : menu.entries) {
        if (entry.key == upper(key)) {
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
