#include "tools/harbour/menu.h"

#include "libsrc/plex.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace harbour {
namespace {

constexpr const char *path = "harbour.menu";
constexpr size_t longesttitle = 40;
constexpr double mostminutes = 1440;

std::string trimmed(const std::string &text) {
    const size_t from = text.find_first_not_of(" \t");
    return from == text.npos ? "" : text.substr(from, text.find_last_not_of(" \t\r") + 1 - from);
}

// Takes a line apart and adds its entry; what is wrong with it, else an empty string.
std::string addline(std::string line, Menu &menu) {
    std::array<std::string, 4> fields;
    for (std::string &field : fields) {
        const size_t bar = &field == &fields.back() ? line.size() : line.find('|');
        if (bar == line.npos) {
            return "not of the form KEY | MINUTES | TITLE | COMMAND LINE";
        }
        field = trimmed(line.substr(0, bar));
        line.erase(0, bar + 1);
    }
    plex::Utf8part part;
    const auto key = static_cast<char>(toupper(static_cast<unsigned char>(fields[0][0])));
    Entry entry = {key, 0, plex::fromutf8(fields[2], part), fields[3]};
    if (fields[0].size() != 1 || key <= ' ' || key > '~') {
        return "the key is not one character";
    }
    if (key == WHO || key == LANGUAGE || key == GOODBYE || key == AGAIN) {
        return std::string("the menu itself has the key ") + key;
    }
    if (findentry(menu, key) != nullptr) {
        return std::string("the key ") + key + " is taken already";
    }
    if (!readnumber(fields[1], 0, mostminutes, entry.minutes)) {
        return "the minutes are no number from 0 to 1440";
    }
    if (entry.title.empty() || entry.title.size() > longesttitle) {
        return "the title does not have 1 to 40 characters";
    }
    if (entry.command[0] != '/' || entry.command.size() > plex::CMDSIZE) {
        return "the command line does not start with a path, or is too long";
    }
    menu.entries.push_back(entry);
    return "";
}

} // namespace

bool readmenu(Menu &menu) {
    menu = {};
    std::ifstream file(path);
    std::string line;
    for (int number = 1; std::getline(file, line); number++) {
        line = trimmed(line);
        const std::string fault = line.empty() || line[0] == '#' ? "" : addline(line, menu);
        if (!fault.empty()) {
            menu.faults.push_back(std::string(path) + ":" + std::to_string(number) + ": " + fault);
        }
    }
    if (!file.eof()) {
        menu.faults.push_back(std::string(path) + ": " + strerror(errno));
    }
    return file.eof();
}

const Entry *findentry(const Menu &menu, char key) {
    const auto at = std::find_if(menu.entries.begin(), menu.entries.end(),
                                 [key](const Entry &entry) { return entry.key == key; });
    return at == menu.entries.end() ? nullptr : &*at;
}

bool readnumber(const std::string &text, double least, double most, double &number) {
    char *end = nullptr;
    number = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && number >= least && number <= most;
}

} // namespace harbour
