// Command strings: what the passes may do to them, and what reaches execv.

#include "fuzz/entry.h"
#include "libunix/plumbing/prsstr.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using fuzz::require;

constexpr size_t most = 1024; // a command line
constexpr size_t mostargs = 49;

std::string text; // what dospawn was given
char *buf;        // a copy that it works on, with nothing behind it
int executed;

std::string without(std::string s, char c) {
    s.erase(std::remove(s.begin(), s.end(), c), s.end());
    return s;
}

// A pass moves quotes or takes pairs of them away, and says whether it did.
void pass(int (*run)(char *), bool shortens) {
    const std::string before = buf;
    const int changed = run(buf);
    const std::string after = buf;
    require(changed == (before != after ? 1 : 0) || (!shortens && changed == 1));
    require(without(before, '"') == without(after, '"'));
    require(shortens ? (before.size() - after.size()) % 2 == 0 : before.size() == after.size());
}

bool blank(char c) {
    return std::string_view(" \t\n\v\f\r").find(c) != std::string_view::npos;
}

// The words of a text without quotes: a run of blanks ends a word and its last blank is dropped.
std::vector<std::string> plainwords(std::string_view s) {
    std::vector<std::string> words;
    std::string word;
    for (size_t i = 0; i < s.size(); i++) {
        if (!blank(s[i]) || (i + 1 < s.size() && blank(s[i + 1]))) {
            word += s[i];
        } else if (word.empty()) {
            return words;
        } else {
            words.push_back(without(word, '\\'));
            word.clear();
        }
    }
    if (!word.empty()) {
        words.push_back(without(word, '\\'));
    }
    return words;
}

} // namespace

extern "C" int execv(const char *path, char *const *argv) noexcept {
    std::vector<std::string> words;
    for (char *const *arg = argv; *arg != nullptr; arg++) {
        require(*arg >= buf && *arg <= buf + text.size());
        words.emplace_back(*arg);
        require(words.back().find('\\') == std::string::npos);
    }
    require(path == argv[0] && words.size() <= mostargs);
    require(text.find('"') != std::string::npos || words == plainwords(text));
    executed++;
    errno = ENOENT;
    return -1;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    text.assign(reinterpret_cast<const char *>(data), std::min(size, most));
    text = text.c_str();
    const auto load = [] {
        free(buf);
        buf = static_cast<char *>(malloc(text.size() + 1));
        std::copy_n(text.c_str(), text.size() + 1, buf);
    };
    load();
    pass(plex::mvrwrd, false);
    pass(plex::mvlwrd, false);
    pass(plex::rmdblq, true);
    load();
    executed = 0;
    require(plex::dospawn(buf) == -1);
    require(executed == 1 || text.empty() || std::any_of(text.begin(), text.end(), blank));
    return 0;
}
