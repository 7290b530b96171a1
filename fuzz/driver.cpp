// Runs an entry without libFuzzer: the inputs of its corpus, then thousands made of their pieces,
// the same ones each time. The input that ends the run is shown.
//   fuzz_NAME CORPUS RUNS MOST

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
[[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);
[[gnu::weak]] size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t room,
                                             unsigned seed);
}

namespace {

std::vector<std::string> corpus;
std::string input;
std::minstd_rand rng;

size_t below(size_t n) {
    return n == 0 ? 0 : (rng() >> 4) % n;
}

void shown(int signo) {
    fprintf(stderr, "signal %d; the input:", signo);
    for (const char byte : input) {
        fprintf(stderr, " %02x", static_cast<unsigned char>(byte));
    }
    fputs("\n", stderr);
    _Exit(1);
}

void run() {
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
}

} // namespace

// Some bytes become a piece of an input of the corpus, or any byte; often among the first ones,
// which choose how an input is meant.
extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t room) {
    std::string text(reinterpret_cast<const char *>(data), size);
    const std::string &other = corpus[below(corpus.size())];
    const std::string piece = other.substr(below(other.size()), below(24));
    const size_t at = below(4) != 0 ? below(size + 1) : below(std::min<size_t>(size, 8) + 1);
    text.replace(at, below(8),
                 below(4) != 0 ? piece : std::string(1, static_cast<char>(rng() >> 4)));
    return text.copy(reinterpret_cast<char *>(data), room);
}

int main(int argc, char **argv) {
    for (const auto &file : std::filesystem::directory_iterator(argv[1])) {
        corpus.emplace_back(std::istreambuf_iterator<char>(std::ifstream(file.path()).rdbuf()),
                            std::istreambuf_iterator<char>());
    }
    std::sort(corpus.begin(), corpus.end());
    const size_t room = static_cast<size_t>(atoi(argv[3]));
    const int runs = corpus.empty() ? 0 : atoi(argv[2]);
    signal(SIGABRT, shown);
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    for (const std::string &whole : corpus) {
        input = whole;
        run();
    }
    for (int i = 0; i < runs; i++) {
        if (i % 32 == 0) {
            input = corpus[below(corpus.size())];
        }
        size_t size = input.size();
        input.resize(room);
        auto *data = reinterpret_cast<uint8_t *>(input.data());
        size = LLVMFuzzerCustomMutator != nullptr
                   ? LLVMFuzzerCustomMutator(data, size, room, static_cast<unsigned>(rng() >> 4))
                   : LLVMFuzzerMutate(data, size, room);
        input.resize(size);
        run();
    }
    return runs > 0 ? 0 : 1;
}
