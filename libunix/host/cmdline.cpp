#include "libunix/host/cmdline.h"

#include "libunix/daemon/wire.h"
#include "libunix/plumbing/prsstr.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {
namespace {

// Adds an argument as a word: escaped quotes are no quotes to the splitting, which drops the
// backslashes in the end; a pair of quotes around the whole keeps blanks, or nothing at all,
// together.
void addword(std::string &line, const std::string &arg) {
    bool around = arg.empty();
    for (const char c : arg) {
        around = around || isspace(static_cast<unsigned char>(c)) != 0;
    }
    const char *quote = around ? "\"" : "";
    line.append(line.empty() ? "" : " ").append(quote);
    for (const char c : arg) {
        line.append(c == '"' ? "\\" : "").push_back(c);
    }
    line.append(quote);
}

} // namespace

bool executable(const std::string &path) {
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0) {
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        errno = EACCES;
        return false;
    }
    return access(path.c_str(), X_OK) == 0;
}

std::string absolute(const std::string &path) {
    if (path.starts_with('/')) {
        return path;
    }
    char *cwd = getcwd(nullptr, 0);
    std::string whole = cwd != nullptr ? std::string(cwd) + "/" + path : path;
    free(cwd);
    return whole;
}

std::string findprogram(const std::string &name) {
    if (name.empty()) {
        errno = ENOENT;
        return "";
    }
    if (name.find('/') != std::string::npos) {
        return executable(name) ? absolute(name) : "";
    }
    const char *path = getenv("PATH");
    std::string rest = path != nullptr ? path : "/bin:/usr/bin";
    int cause = ENOENT;
    for (bool more = true; more;) {
        const size_t colon = rest.find(':');
        const std::string dir = rest.substr(0, colon);
        more = colon != std::string::npos;
        rest.erase(0, more ? colon + 1 : rest.size());
        const std::string file = (dir.empty() ? "." : dir) + "/" + name; // empty: where one stands
        if (executable(file)) {
            return absolute(file);
        }
        // A directory that may not be searched has, for all one knows, no such program.
        cause = errno == EACCES && access(file.c_str(), F_OK) == 0 ? EACCES : cause;
    }
    errno = cause;
    return "";
}

std::string makeline(const std::vector<std::string> &args, std::string &line) {
    line.clear();
    if (args.size() > MAXWORDS) {
        return "more than " + std::to_string(MAXWORDS) + " words";
    }
    for (const std::string &arg : args) {
        if (arg.find('\\') != std::string::npos) {
            return "no command line can carry the backslash in '" + arg + "'";
        }
        addword(line, arg);
    }
    if (line.size() > CMDSIZE) {
        return "longer than " + std::to_string(CMDSIZE) + " bytes";
    }
    return "";
}

} // namespace plex
