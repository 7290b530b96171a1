// Lines are read one by one into the message and text at hand. An error is told and reading goes
// on, so that one run tells them all; nothing is made of a source with errors.

#include "tools/msgsource.h"

#include "libsrc/plex.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string_view>

namespace plex {
namespace {

constexpr size_t longestname = sizeof lingo::name - 1;
constexpr long mostmessages = INT16_MAX;     // as the trailer counts them
constexpr uint64_t tablesroom = 1024 * 1024; // what stands behind the texts is far smaller
constexpr std::string_view byteorder = "\xEF\xBB\xBF"; // some editors put this mark in front
constexpr size_t longesttext = UINT16_MAX; // as the length table counts, terminator included

// What C++ has taken: a header that gives such a name a value does not compile.
constexpr std::string_view taken =
    " alignas alignof and and_eq asm auto bitand bitor bool break case catch char char16_t char32_t"
    " char8_t class co_await co_return co_yield compl concept const const_cast consteval constexpr"
    " constinit continue decltype default delete do double dynamic_cast else enum explicit export"
    " extern false float for friend goto if inline int long main mutable namespace new noexcept not"
    " not_eq nullptr operator or or_eq private protected public register reinterpret_cast requires"
    " return short signed sizeof static static_assert static_cast struct switch template this"
    " thread_local throw true try typedef typeid typename union unsigned using virtual void"
    " volatile wchar_t while xor xor_eq ";

bool istaken(const std::string &word) {
    return taken.find(" " + word + " ") != std::string_view::npos;
}

bool isname(const std::string &word) {
    const auto letter = [](char c) {
        return c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    return !word.empty() && letter(word[0]) &&
           std::all_of(word.begin(), word.end(), [&](char c) { return letter(c) || digit(c); });
}

// Cuts the first word off `rest`.
std::string cutword(std::string &rest) {
    const size_t start = std::min(rest.find_first_not_of(" \t"), rest.size());
    const size_t end = std::min(rest.find_first_of(" \t", start), rest.size());
    std::string word = rest.substr(start, end - start);
    rest.erase(0, std::min(rest.find_first_not_of(" \t", end), rest.size()));
    return word;
}

// As names are told apart: without regard to letter case.
std::string folded(std::string name) {
    strlwr(name.data());
    return name;
}

class Reader {
public:
    Reader(std::string file, Source &into) : path(std::move(file)), source(into) {}
    bool read();

private:
    void fail(int at, const char *format, ...) __attribute__((format(printf, 3, 4)));
    void readline(std::string line);
    void language(const std::string &name);
    void message(std::string &rest);
    void text(const std::string &language);
    void addline(const std::string &line);
    size_t escape(const std::string &line, size_t at);
    void endtext();
    void endmessage();
    void checksize();
    size_t find(const std::string &name) const;
    bool take();

    std::string path;
    Source &source;
    int errors = 0;
    int number = 0;                          // of the line
    long last = -1;                          // the number of the last message
    std::set<std::string> names;             // of the messages
    std::map<std::string, size_t> languages; // the index of each, by its folded name
    Message *msg = nullptr;                  // the message at hand, if any
    std::string *stored = nullptr;           // where its text at hand goes, if there is one
    std::string bytes;                       // that text
    int textat = 0;                          // where it begins
    bool lines = false;                      // whether it has any line
    bool joined = true;                      // no line feed goes before its next line
};

// Tells an error in line `at`.
void Reader::fail(int at, const char *format, ...) {
    va_list args;
    va_start(args, format);
    fprintf(stderr, "%s:%d: ", path.c_str(), at);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    errors++;
}

// The index of the language of that name; their number when there is none.
size_t Reader::find(const std::string &name) const {
    const auto found = languages.find(folded(name));
    return found != languages.end() ? found->second : source.languages.size();
}

void Reader::language(const std::string &name) {
    if (!source.messages.empty()) {
        fail(number, "languages come before the first message");
    } else if (name.empty() || name.size() > longestname) {
        fail(number, "a language has a name of 1 to %zu bytes", longestname);
    } else if (find(name) < source.languages.size()) {
        fail(number, "there is a language \"%s\" already", name.c_str());
    } else {
        languages[folded(name)] = source.languages.size();
        source.languages.push_back(name);
    }
}

void Reader::message(std::string &rest) {
    long n = last + 1;
    std::string name = cutword(rest);
    if (!name.empty() && name[0] >= '0' && name[0] <= '9') {
        char *end = nullptr;
        n = strtol(name.c_str(), &end, 10);
        if (*end != '\0') {
            fail(number, "\"%s\" is not a message number", name.c_str());
        }
        name = cutword(rest);
    }
    if (n >= mostmessages) {
        fail(number, "message numbers go up to %ld", mostmessages - 1);
        return;
    }
    if (!name.empty() && !isname(name)) {
        fail(number, "\"%s\" is not a name: letters, digits and \"_\", no digit first",
             name.c_str());
    } else if (istaken(name)) {
        fail(number, "\"%s\" is a word of C++ itself", name.c_str());
    } else if (!name.empty() && !names.insert(name).second) {
        fail(number, "there is a message \"%s\" already", name.c_str());
    }
    if (!rest.empty()) {
        fail(number, "\"%s\" is more than a number and a name", rest.c_str());
    }
    last = n;
    if (source.messages.size() <= static_cast<size_t>(n)) {
        source.messages.resize(static_cast<size_t>(n) + 1);
    }
    msg = &source.messages[static_cast<size_t>(n)];
    if (msg->line != 0) {
        fail(number, "message %ld stands in line %d already", n, msg->line);
    }
    msg->name = name;
    msg->line = number;
    msg->texts.assign(source.languages.size(), "");
}

void Reader::text(const std::string &language) {
    const size_t lang = find(language);
    textat = number;
    lines = false;
    joined = true;
    bytes.clear();
    stored = &bytes; // for one that belongs nowhere
    if (msg == nullptr) {
        fail(number, "a text belongs to a message");
    } else if (lang == source.languages.size()) {
        fail(number, "there is no language \"%s\"", language.c_str());
    } else if (!msg->texts[lang].empty()) {
        fail(number, "message %ld has a text in %s already", last, language.c_str());
    } else {
        stored = &msg->texts[lang];
    }
}

// Adds one line to the text at hand.
void Reader::addline(const std::string &line) {
    if (!joined) {
        bytes += '\n';
    }
    joined = false;
    lines = true;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == '\\' && i + 1 == line.size()) {
            joined = true;
        } else if (line[i] == '\\') {
            i += escape(line, i + 1);
        } else if (line[i] == '\0') {
            fail(number, "a text cannot hold a zero byte");
        } else {
            bytes += line[i];
        }
    }
}

// Adds the byte that the escape sequence stands for whose "\" is before `at`; returns its length.
size_t Reader::escape(const std::string &line, size_t at) {
    constexpr std::string_view codes = "nrtae\\";
    constexpr std::string_view values = "\n\r\t\a\x1B\\";
    const size_t code = codes.find(line[at]);
    if (code != std::string_view::npos) {
        bytes += values[code];
        return 1;
    }
    if (line[at] != 'x') {
        fail(number, "unknown: \\%c", line[at]);
        return 1;
    }
    const std::string digits = line.substr(at + 1, 2);
    const auto hex = [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; };
    if (digits.size() != 2 || digits == "00" || !std::all_of(digits.begin(), digits.end(), hex)) {
        fail(number, "\\x takes two hexadecimal digits, not 00");
        return 1;
    }
    bytes += static_cast<char>(strtoul(digits.c_str(), nullptr, 16));
    return 3;
}

void Reader::endtext() {
    if (stored == nullptr) {
        return;
    }
    if (!lines) {
        fail(textat, "this text has no lines");
    }
    if (source.languages.size() > 1 && bytes.size() >= longesttext) {
        fail(textat, "this text is longer than %zu bytes", longesttext - 1);
    }
    bytes += '\0';
    *stored = bytes;
    stored = nullptr;
}

void Reader::endmessage() {
    endtext();
    if (msg != nullptr && (msg->texts.empty() || msg->texts[0].empty())) {
        fail(msg->line, "this message has no text in the default language");
    }
    msg = nullptr;
}

void Reader::readline(std::string line) {
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    const size_t start = line.find_first_not_of(" \t");
    if (start != std::string::npos && line[start] == '|') {
        if (stored != nullptr) {
            addline(line.substr(start + 1));
        } else {
            fail(number, "this line belongs to no text");
        }
        return;
    }
    line.resize(static_cast<size_t>(strpln(line.c_str())));
    const std::string word = cutword(line);
    if (word.empty() || word[0] == '#') {
        return;
    }
    if (word == "language") {
        endmessage();
        language(line);
    } else if (word == "message") {
        endmessage();
        message(line);
    } else if (word == "text") {
        endtext();
        text(line);
    } else {
        fail(number, "not a language, a message, a text, or a line of a text");
    }
}

void Reader::checksize() {
    const size_t languages = source.languages.size();
    const size_t messages = source.messages.size();
    uint64_t size = 0;
    for (const Message &m : source.messages) {
        for (const std::string &t : m.texts) {
            size += t.size();
        }
    }
    if (languages == 0) {
        fail(number, "there is no language");
    } else if (languages > INT16_MAX) {
        fail(number, "%zu languages are more than %d", languages, INT16_MAX);
    } else if (languages > 1 && languages * messages > static_cast<size_t>(mostlengths)) {
        fail(number, "%zu languages times %zu messages are more than %d", languages, messages,
             mostlengths);
    } else if (size > INT32_MAX - tablesroom) {
        fail(number, "the texts are too long for one file");
    }
}

bool Reader::take() {
    FILE *in = fopen(path.c_str(), "re");
    if (in == nullptr) {
        return false;
    }
    char *line = nullptr;
    size_t room = 0;
    for (ssize_t n = 0; (n = getline(&line, &room, in)) > 0;) {
        number++;
        std::string_view text(line, static_cast<size_t>(n));
        if (number == 1 && text.starts_with(byteorder)) {
            text.remove_prefix(byteorder.size());
        }
        readline(std::string(text.substr(0, text.size() - (text.ends_with('\n') ? 1 : 0))));
    }
    const bool whole = ferror(in) == 0;
    const int cause = errno;
    free(line);
    fclose(in);
    errno = cause;
    return whole;
}

bool Reader::read() {
    if (!take()) {
        fprintf(stderr, "plexmsg: cannot read %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    endmessage();
    if (errors == 0) {
        checksize();
    }
    return errors == 0;
}

void put32(std::string &out, size_t value) {
    const int32_t word = nsl2l(static_cast<int32_t>(value));
    out.append(reinterpret_cast<const char *>(&word), sizeof word);
}

void put16(std::string &out, size_t value) {
    const uint16_t word = nus2l(static_cast<uint16_t>(value));
    out.append(reinterpret_cast<const char *>(&word), sizeof word);
}

} // namespace

bool readsource(const std::string &path, Source &source) {
    return Reader(path, source).read();
}

std::string messagefile(const Source &source) {
    std::string out;
    std::string locations;
    std::string lengths;
    for (const Message &m : source.messages) {
        put32(locations, out.size());
        for (size_t lang = 0; lang < source.languages.size(); lang++) {
            const std::string text = m.texts.empty() ? "" : m.texts[lang];
            out += text;
            put16(lengths, text.size());
        }
    }
    put32(locations, out.size());
    const size_t lnglist = out.size();
    for (const std::string &name : source.languages) {
        out += name + '\0';
    }
    const size_t loclist = out.size();
    out += locations;
    const size_t lenlist = out.size();
    if (source.languages.size() > 1) {
        out += lengths;
    }
    put32(out, lnglist);
    put32(out, lenlist);
    put32(out, loclist);
    put16(out, source.languages.size());
    put16(out, source.messages.size());
    return out;
}

std::string nameheader(const Source &source) {
    std::string out = "// The numbers of the messages. Made by plexmsg.\n#pragma once\n\n";
    for (size_t n = 0; n < source.messages.size(); n++) {
        if (!source.messages[n].name.empty()) {
            out += "constexpr int " + source.messages[n].name + " = " + std::to_string(n) + ";\n";
        }
    }
    return out;
}

} // namespace plex
