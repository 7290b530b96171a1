// Makes message files of plain text, and shows what is in them. It reads them with the library's
// own routines only; the languages of a file stand in for the table that the host would configure.

#include "libsrc/plex.h"
#include "tools/msgsource.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace plex {

// This program's own fatal-error path: its user sits at a terminal, and wants one line there.
void catastro(const char *string, ...) {
    va_list args;
    va_start(args, string);
    fputs("plexmsg: ", stderr);
    vfprintf(stderr, string, args);
    fputc('\n', stderr);
    va_end(args);
    exit(1);
}

void memcata() {
    catastro("There is not enough memory to continue.");
}

} // namespace plex

namespace {

using plex::msgblk;

constexpr int usagestatus = 2;
constexpr size_t mostshown = 60;             // bytes of a text in a list
constexpr int32_t longestread = 1024 * 1024; // bytes of a text; a longer one is cut

int usage() {
    fputs("usage: plexmsg compile [-n NAMES.h] SOURCE.txt OUT.mcv\n"
          "       plexmsg list FILE.mcv\n"
          "       plexmsg show [-l LANGUAGE] FILE.mcv N\n",
          stderr);
    return usagestatus;
}

// Writes the file whole or, on failure, not at all.
bool writefile(const std::string &path, const std::string &bytes) {
    std::string temp = path + ".XXXXXX";
    const int fd = mkstemp(temp.data());
    FILE *out = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    bool done = false;
    if (out != nullptr) {
        const mode_t mask = umask(0);
        umask(mask);
        done = fchmod(fd, 0666 & ~mask) == 0 &&
               fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
        done = fclose(out) == 0 && done;
        done = done && rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!done) {
        fprintf(stderr, "plexmsg: cannot write %s: %s\n", path.c_str(), strerror(errno));
        if (fd >= 0) {
            unlink(temp.c_str());
        }
    }
    return done;
}

int compile(const char *source, const char *out, const char *names) {
    tool::Source parsed;
    if (!tool::readsource(source, parsed)) {
        return 1;
    }
    if (!writefile(out, tool::messagefile(parsed))) {
        return 1;
    }
    return names == nullptr || writefile(names, tool::nameheader(parsed)) ? 0 : 1;
}

void addlanguage(int index, const char *name) {
    auto *lp = static_cast<plex::lingo *>(plex::alczer(sizeof(plex::lingo)));
    plex::stzcpy(lp->name, name, sizeof lp->name);
    plex::languages[index] = lp;
}

// Opens the file with its own languages as the table of languages, and room for its texts. There
// is one place more in the table than the file has languages, for one that it lacks.
msgblk *openwithlanguages(const char *file) {
    msgblk *mb = plex::opnmsg(file);
    plex::nlingo = mb->lngcnt + 1;
    plex::alclng();
    plex::nlingo--;
    fseek(mb->msgfp, mb->lnglist, SEEK_SET);
    for (int i = 0; i < plex::nlingo; i++) {
        char name[sizeof plex::lingo::name];
        if (plex::fgetstg(name, sizeof name, mb->msgfp) == 0) {
            while (getc(mb->msgfp) > 0) {
            }
        }
        addlanguage(i, name);
    }
    const auto size = plex::filelength(fileno(mb->msgfp));
    plex::inimsg(static_cast<int>(std::clamp<uint64_t>(size, 2, longestread)));
    plex::clsmsg(mb);
    plex::rstmbk();
    return plex::opnmsg(file);
}

// The bytes stored for a message in one of the file's languages.
int textlength(const msgblk *mb, int number, int lang) {
    return mb->lngcnt > 1 ? mb->lengths[number * mb->lngcnt + lang]
                          : mb->msgloc[number + 1] - mb->msgloc[number];
}

// As it can be written on one line of a terminal.
std::string printable(const char *text) {
    std::string line;
    for (; *text != '\0' && line.size() < mostshown; text++) {
        const auto byte = static_cast<unsigned char>(*text);
        char code[8];
        if (byte == '\n') {
            line += "\\n";
        } else if (byte == '\\') {
            line += "\\\\";
        } else if (byte < 0x20 || byte == 0x7F) {
            snprintf(code, sizeof code, "\\x%02X", byte);
            line += code;
        } else {
            line += *text;
        }
    }
    return '"' + line + (*text != '\0' ? "\"..." : "\"");
}

int list(const char *file) {
    const msgblk *mb = openwithlanguages(file);
    printf("%s: %d languages, %d messages\n", mb->filnam, mb->lngcnt, mb->msgcnt);
    for (int lang = 0; lang < mb->lngcnt; lang++) {
        // A program finds a language by its name, and the file may hold a name twice.
        const bool found = mb->mslidx[lang] == lang;
        printf("language %d %s%s\n", lang, plex::languages[lang]->name,
               found ? "" : " (never found)");
    }
    for (int number = 0; number < mb->msgcnt; number++) {
        bool any = false;
        for (int lang = 0; lang < mb->lngcnt; lang++) {
            const int length = textlength(mb, number, lang);
            if (length > 0 && mb->mslidx[lang] == lang) {
                plex::clingo = lang;
                printf("message %d %s %d %s\n", number, plex::languages[lang]->name, length,
                       printable(plex::rawmsg(number)).c_str());
                any = true;
            }
        }
        if (!any) {
            printf("message %d has no text\n", number);
        }
    }
    return 0;
}

int show(const char *file, const char *number, const char *language) {
    char *end = nullptr;
    errno = 0;
    const long n = strtol(number, &end, 10);
    if (end == number || *end != '\0' || errno != 0 || n < 0 || n > INT16_MAX) {
        fprintf(stderr, "plexmsg: \"%s\" is not a message number\n", number);
        return 1;
    }
    openwithlanguages(file);
    if (language != nullptr) {
        plex::clingo = plex::lngfnd(language);
        if (plex::clingo < 0) {
            if (strchr(language, '/') == nullptr || strlen(language) >= sizeof plex::lingo::name) {
                fprintf(stderr, "plexmsg: %s has no language \"%s\", or several\n", file, language);
                return 1;
            }
            // A language that the file lacks falls back like any other.
            plex::clingo = plex::nlingo++;
            addlanguage(plex::clingo, language);
            plex::clsmsg(plex::curmbk);
            plex::rstmbk();
            plex::opnmsg(file);
        }
    }
    const char *text = plex::rawmsg(static_cast<int>(n));
    const char *wanted = plex::languages[plex::clingo]->name;
    if (plex::rlingo != plex::clingo) {
        fprintf(stderr, "plexmsg: no text in %s, this is %s\n", wanted,
                plex::languages[plex::rlingo]->name);
    }
    const size_t length = strlen(text);
    fwrite(text, 1, length, stdout);
    if (length == 0 || text[length - 1] != '\n') {
        putchar('\n');
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::string command = argc > 1 ? argv[1] : "";
    const char *names = nullptr;
    const char *language = nullptr;
    optind = 2;
    for (int option = 0; (option = getopt(argc, argv,
                                          command == "compile" ? "n:"
                                          : command == "show"  ? "l:"
                                                               : "")) != -1;) {
        if (option == 'n') {
            names = optarg;
        } else if (option == 'l') {
            language = optarg;
        } else {
            return usage();
        }
    }
    char **args = argv + optind;
    const int count = argc - optind;
    int status = 0;
    if (command == "compile" && count == 2) {
        status = compile(args[0], args[1], names);
    } else if (command == "list" && count == 1) {
        status = list(args[0]);
    } else if (command == "show" && count == 2) {
        status = show(args[0], args[1], language);
    } else {
        return usage();
    }
    if (fflush(stdout) != 0) {
        perror("plexmsg: standard output");
        return 1;
    }
    return status;
}
