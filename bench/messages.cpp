// What message files cost: opening the largest one there can be, and reading from it.

#include "libsrc/base/text.h"
#include "libsrc/common/lingo.h"
#include "libsrc/common/msgfile.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

using plex::msgblk;

void put(std::string &file, uint32_t value, size_t size) {
    for (; size > 0; size--, value >>= 8) {
        file += static_cast<char>(value);
    }
}

// As many messages as a file can have, with a text of 30 bytes in each of its languages.
std::string makefile(int languages) {
    const std::string text = std::string(29, 'x') + '\0';
    const auto l = static_cast<uint32_t>(languages);
    const uint32_t n = static_cast<uint32_t>(plex::mostlengths) / l;
    const auto size = static_cast<uint32_t>(text.size());
    std::string file;
    for (uint32_t i = 0; i < n * l; i++) {
        file += text;
    }
    const auto lnglist = static_cast<uint32_t>(file.size());
    for (uint32_t i = 0; i < l; i++) {
        file += "English/" + std::to_string(i) + '\0';
    }
    const auto loclist = static_cast<uint32_t>(file.size());
    for (uint32_t i = 0; i <= n; i++) {
        put(file, i * l * size, 4);
    }
    const auto lenlist = static_cast<uint32_t>(file.size());
    for (uint32_t i = 0; l > 1 && i < n * l; i++) {
        put(file, size, 2);
    }
    put(file, lnglist, 4);
    put(file, lenlist, 4);
    put(file, loclist, 4);
    put(file, l, 2);
    put(file, n, 2);
    return file;
}

// The file for a run, and its languages as those of the system.
class File {
public:
    explicit File(int languages) {
        const std::string bytes = makefile(languages);
        const int fd = mkstemp(path);
        if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            abort();
        }
        close(fd);
        plex::inimsg(100);
        plex::nlingo = languages;
        plex::alclng();
        for (int i = 0; i < languages; i++) {
            plex::languages[i] = static_cast<plex::lingo *>(calloc(1, sizeof(plex::lingo)));
            plex::stzcpy(plex::languages[i]->name, ("English/" + std::to_string(i)).c_str(),
                         sizeof plex::lingo::name);
        }
        plex::clingo = languages - 1;
    }
    ~File() { unlink(path); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    char path[32] = "/tmp/plexbench.XXXXXX";
};

void open(benchmark::State &state) {
    const File file(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        msgblk *mb = plex::opnmsg(file.path);
        plex::clsmsg(mb);
        plex::rstmbk();
    }
}
BENCHMARK(open)->ArgName("languages")->Arg(1)->Arg(7)->Unit(benchmark::kMillisecond);

void read(benchmark::State &state) {
    const File file(static_cast<int>(state.range(0)));
    msgblk *mb = plex::opnmsg(file.path);
    int message = 0;
    for (auto _ : state) {
        message = (message + 3001) % mb->msgcnt;
        benchmark::DoNotOptimize(plex::rawmsg(message));
    }
    plex::clsmsg(mb);
    plex::rstmbk();
}
BENCHMARK(read)->ArgName("languages")->Arg(1)->Arg(7);

} // namespace

BENCHMARK_MAIN();
