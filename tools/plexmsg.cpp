// Makes message files of plain text, and shows what is in them. It reads them with the library's
// own routines; the languages of a file stand in for the table that the host would configure.

#include "libsrc/plex.h"
#include "tools/msgsource.h"
#include "tools/options.h"
#include "tools/outfile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

namespace plex {
namespace {

constexpr size_t mostshown = 60;             // bytes of a text in a list
constexpr int32_t longestread = 1024 * 1024; // bytes of a text; a longer one is cut

constexpr char usage[] = "usage: plexmsg compile [-n NAMES.h] SOURCE.txt OUT.mcv\n"
                         "       plexmsg list FILE.mcv\n"
                         "       plexmsg show [-l LANGUAGE] FILE.mcv N\n"
                         "Makes message files of plain text, and shows what is in them.\n";

int compile(const char *source, const char *out, const char *names) {
    const char *same = samefile(source, out)                         ? out
                       : names != nullptr && samefile(source, names) ? names
                       : names != nullptr && samefile(out, names)    ? names
                                                                     : nullptr;
    if (same != nullptr) {
        fail(1, "%s cannot be two files at once", same);
    }
    Source parsed;
    if (!readsource(source, parsed)) {
        return 1;
    }
    if (!writefile(out, messagefile(parsed))) {
        fail(1, "cannot write %s: %s", out, strerror(errno));
    }
    if (names != nullptr && !writefile(names, nameheader(parsed))) {
        fail(1, "cannot write %s: %s", names, strerror(errno));
    }
    return 0;
}

void addlanguage(const char *name) {
    auto *lp = static_cast<lingo *>(alczer(sizeof(lingo)));
    stzcpy(lp->name, name, sizeof lp->name);
    languages[nlingo++] = lp;
}

// Makes the file's languages the table of languages, with room for one more, and matches the two
// as opening the file with that table would, but without a search for each name. Returns for each
// of the file's languages by which of the table a program finds it, -1 for none: the file may hold
// a name twice, or one that is too long.
std::vector<int> takelanguages(msgblk *mb) {
    FILE *file = fopen(mb->filnam, "rbe");
    if (file == nullptr || fseek(file, mb->lnglist, SEEK_SET) != 0) {
        fail(1, "%s: %s", mb->filnam, strerror(errno));
    }
    nlingo = mb->lngcnt + 1;
    alclng();
    mb->mslidx = static_cast<int *>(alczer(static_cast<unsigned>(nlingo) * sizeof(int)));
    nlingo = 0;
    std::vector<int> finders(static_cast<size_t>(mb->lngcnt), -1);
    finders[0] = 0;                   // the default, whatever it is called
    std::map<std::string, int> first; // of a name
    for (int i = 0; i < mb->lngcnt; i++) {
        char name[sizeof lingo::name];
        const bool whole = fgetstg(name, sizeof name, file) != 0;
        while (!whole && getc(file) > 0) {
        }
        addlanguage(name);
        const int j = whole ? first.try_emplace(strlwr(name), i).first->second : -1;
        if (j >= 0 && (i == 0) == (j == 0)) {
            if (mb->mslidx[j] != 0) {
                finders[static_cast<size_t>(mb->mslidx[j])] = -1; // the later one counts
            }
            mb->mslidx[j] = i;
            finders[static_cast<size_t>(i)] = j;
        }
    }
    fclose(file);
    return finders;
}

msgblk *openfile(const char *file) {
    msgblk *mb = tryopn(file);
    if (mb != nullptr) {
        const auto size = filelength(fileno(mb->msgfp));
        inimsg(static_cast<int>(std::clamp<uint64_t>(size, 2, longestread)));
        return mb;
    }
    fail(1, "%s", msgwhy());
}

const char *text(int number) {
    const char *bytes = tryraw(number);
    if (bytes == nullptr) {
        fail(1, "%s", msgwhy());
    }
    return bytes;
}

// The bytes stored for a message in one of the file's languages.
int textlength(const msgblk *mb, int number, int lang) {
    return mb->lngcnt > 1 ? mb->lengths[number * mb->lngcnt + lang]
                          : mb->msgloc[number + 1] - mb->msgloc[number];
}

// As it can be written on one line of a terminal, cut where it is longer than a list shows.
std::string printable(const char *bytes) {
    std::string line;
    for (; *bytes != '\0' && line.size() < mostshown; bytes++) {
        const auto byte = static_cast<unsigned char>(*bytes);
        char code[8];
        if (byte == '\n') {
            line += "\\n";
        } else if (byte == '\\') {
            line += "\\\\";
        } else if (byte < 0x20 || byte == 0x7F) {
            snprintf(code, sizeof code, "\\x%02X", byte);
            line += code;
        } else {
            line += *bytes;
        }
    }
    return '"' + line + (*bytes != '\0' ? "\"..." : "\"");
}

// A language's name on a terminal.
std::string languagename(int lang) {
    const std::string quoted = printable(languages[lang]->name);
    return quoted.substr(1, quoted.size() - 2);
}

int list(const char *file) {
    msgblk *mb = openfile(file);
    const std::vector<int> finders = takelanguages(mb);
    printf("%s: %d languages, %d messages\n", mb->filnam, mb->lngcnt, mb->msgcnt);
    for (int lang = 0; lang < mb->lngcnt; lang++) {
        printf("language %d %s%s\n", lang, languagename(lang).c_str(),
               finders[static_cast<size_t>(lang)] >= 0 ? "" : " (never found)");
    }
    for (int number = 0; number < mb->msgcnt; number++) {
        bool any = false;
        for (int lang = 0; lang < mb->lngcnt; lang++) {
            const int length = textlength(mb, number, lang);
            clingo = finders[static_cast<size_t>(lang)];
            if (length > 0 && clingo >= 0) {
                printf("message %d %s %d %s\n", number, languagename(lang).c_str(), length,
                       printable(text(number)).c_str());
                any = true;
            }
        }
        if (!any) {
            printf("message %d has no text\n", number);
        }
    }
    return 0;
}

// Chooses the language to show a message in.
void speak(const char *file, const char *language) {
    clingo = lngfnd(language);
    if (clingo >= 0) {
        return;
    }
    if (strchr(language, '/') == nullptr || strlen(language) >= sizeof lingo::name) {
        fail(1, "%s has no language \"%s\", or several", file, language);
    }
    clingo = nlingo; // one that the file lacks falls back like any other
    addlanguage(language);
}

int show(const char *file, const char *number, const char *language) {
    char *end = nullptr;
    errno = 0;
    const long n = strtol(number, &end, 10);
    if (end == number || *end != '\0' || errno != 0 || n < 0 || n > INT16_MAX) {
        fail(1, "\"%s\" is not a message number", number);
    }
    takelanguages(openfile(file));
    if (language != nullptr) {
        speak(file, language);
    }
    const char *bytes = text(static_cast<int>(n));
    if (rlingo != clingo) {
        fprintf(stderr, "plexmsg: no text in %s, this is %s\n", languagename(clingo).c_str(),
                languagename(rlingo).c_str());
    }
    const size_t length = strlen(bytes);
    fwrite(bytes, 1, length, stdout);
    if (length == 0 || bytes[length - 1] != '\n') {
        putchar('\n');
    }
    return 0;
}

int run(int argc, char **argv) {
    program = {.name = "plexmsg", .usage = usage};
    while (nextoption(argc, argv, "+") != -1) {
    }
    if (optind == argc) {
        wronguse("what to do is missing: compile, list or show");
    }
    argc -= optind;
    argv += optind;
    optind = 0; // and the search starts again behind the command, by its own rules
    const std::string command = argv[0];
    const bool compiles = command == "compile";
    const bool shows = command == "show";
    if (!compiles && !shows && command != "list") {
        wronguse("'%s' is neither compile nor list nor show", command.c_str());
    }
    const char *value = nullptr; // the one option that each of them has at most
    while (nextoption(argc, argv, compiles ? "n:" : shows ? "l:" : "") != -1) {
        value = optarg;
    }
    char **args = argv + optind;
    const int wanted = compiles || shows ? 2 : 1;
    if (argc - optind != wanted) {
        wronguse("%s takes %d words, not %d", command.c_str(), wanted, argc - optind);
    }
    return compiles ? compile(args[0], args[1], value)
           : shows  ? show(args[0], args[1], value)
                    : list(args[0]);
}

} // namespace
} // namespace plex

int main(int argc, char **argv) {
    const int status = plex::run(argc, argv);
    plex::flushoutput();
    return status;
}
