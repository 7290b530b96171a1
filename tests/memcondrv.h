// A system console in memory: a keyboard that a test types on, video memory, a video controller
// that keeps what was written to it. Each request can be refused.
#pragma once

#include "libunix/console/condrv.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct Console {
    std::string refused;        // the one request that fails, with EPERM
    std::set<std::string> held; // what a program has taken and not given back
    plex::xqEventQueue queue = {};
    std::array<unsigned char, 4029> video = {};
    std::array<unsigned char, plex::scrnmapsize> map = {};
    std::vector<std::pair<int, int>> writes; // controller register and value
    std::array<uint8_t, 256> registers = {};
    uint8_t selected = 0;

    int32_t request(const std::string &name, const char *takes = "", const char *gives = "") {
        errno = EPERM;
        if (name == refused) {
            return -1;
        }
        held.insert(takes);
        held.erase(gives);
        return 0;
    }

    void put(int scan, uint8_t type = plex::XQ_KEY) {
        queue.xq_events[queue.xq_tail] = {type, static_cast<uint8_t>(scan), 0, 0, 0};
        queue.xq_tail = (queue.xq_tail + 1) % queue.xq_size;
    }

    void type(const std::vector<int> &scans) { // a signal for each
        for (const int scan : scans) {
            put(scan);
            raise(SIGUSR2);
        }
    }
};

inline Console console;
constexpr int32_t consolefd = 77; // no test opens so many

constexpr plex::condrv memorycondrv = {
    .conopen = [] { return console.request("conopen", "console") < 0 ? -1 : consolefd; },
    .conclose = [](int32_t) { return console.request("conclose", "", "console"); },
    .quemode =
        [](int32_t, plex::kd_quemode *mode) {
            if (mode == nullptr) {
                return console.request("queoff", "", "keyboard");
            }
            console.queue.xq_size = mode->qsize;
            mode->qaddr = &console.queue;
            return mode->signo == SIGUSR2 ? console.request("quemode", "keyboard") : -1;
        },
    .drain = [] { return 0; },
    .ioports =
        [](int32_t, int32_t on) {
            return on != 0 ? console.request("ioports", "ports")
                           : console.request("iooff", "", "ports");
        },
    .getscrnmap =
        [](int32_t fd, unsigned char *map) {
            std::copy(console.map.begin(), console.map.end(), map);
            return fd == 0 ? console.request("getscrnmap", "map") : -1;
        },
    .setscrnmap =
        [](int32_t fd, const unsigned char *map) {
            std::copy(map, map + console.map.size(), console.map.begin());
            return fd == 0 ? console.request("setscrnmap", "", "map") : -1;
        },
    .isconsole = [](int32_t fd) { return fd == 0 ? console.request("isconsole") : -1; },
    .mapvideo = [](int32_t) -> unsigned char * {
        return console.request("mapvideo", "graphics") < 0 ? nullptr : console.video.data();
    },
    .setdisplay =
        [](int32_t, int32_t mode) {
            return mode == 0 ? console.request("text", "", "graphics") : -1;
        },
    .setkbmode =
        [](int32_t, int32_t mode) {
            return mode == 1 ? console.request("kbmode", "", "keyboard") : -1;
        },
    .portwrite =
        [](uint16_t port, uint8_t value) {
            if (port == plex::crtindex) {
                console.selected = value;
            } else if (port == plex::crtdata) {
                console.registers[console.selected] = value;
                console.writes.emplace_back(console.selected, value);
            }
        },
    .portread = [](uint16_t port) -> uint8_t {
        return port == plex::crtdata ? console.registers[console.selected] : 0;
    },
};

// Makes `console` new and the driver in use.
inline void plugin() {
    console = Console();
    plex::condriver = &memorycondrv;
}

} // namespace test
