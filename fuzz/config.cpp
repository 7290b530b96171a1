// Configuration files. Of an input the first byte is the length of the option's name, which
// follows; the rest is the file.

#include "libunix/runtime/config.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr size_t piece = 1022;
constexpr size_t longest = 64;

int fd = -1;

char fold(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The file as it is meant to be read; false when there is no such setting.
bool expected(std::string_view file, const std::string &name, std::string &value) {
    const std::string key = name + "=";
    while (!file.empty()) {
        const size_t end = file.substr(0, piece).find('\n');
        std::string line(file.substr(0, end != file.npos ? end + 1 : piece));
        file.remove_prefix(line.size());
        line = line.c_str();
        if (line.size() >= key.size() &&
            std::equal(key.begin(), key.end(), line.begin(),
                       [](char a, char b) { return fold(a) == fold(b); })) {
            line.pop_back();
            const size_t equals = line.find('=');
            value = equals != line.npos ? line.substr(equals + 1) : "";
            return name.size() <= longest;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, size_t size) {
    if (size == 0) {
        return 0;
    }
    if (fd < 0) {
        fd = memfd_create("cfg", 0);
        setenv("BBSCONFIG", ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
    }
    std::string_view all(reinterpret_cast<const char *>(data + 1), size - 1);
    const std::string name = std::string(all.substr(0, data[0])).c_str();
    const std::string_view file = all.substr(std::min<size_t>(data[0], all.size()));
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, file.data(), file.size(), 0) != static_cast<ssize_t>(file.size())) {
        abort();
    }
    std::string value;
    const bool found = expected(file, name, value);
    const char *got = plex::getcfg(name.c_str());
    if (found ? got == nullptr || value != got : got != nullptr) {
        abort();
    }
    return 0;
}
