#include "tools/harbour/view.h"

#include <cstring>
#include <string_view>

namespace harbour {
namespace {

constexpr unsigned char plain = 0x07;
constexpr char reset[] = "\033[0m\033[1;24r\033[H";

Picture screen;
uint16_t cursor;
std::mbstate_t open; // a character of which the rest is to come

void feed(std::string_view bytes) {
    plex::setwin(screen.data(), 0, 0, plex::scrcols - 1, plex::scrrows - 2, 1);
    plex::ansion(1);
    plex::wrcurp(cursor);
    plex::supisc();
    plex::rdcurp();
    plex::compsi();
    for (const char c : bytes) {
        if (strchr("\a\016\017", c) == nullptr) { // nor zero bytes; the last two switch fonts
            plex::outbyt(static_cast<unsigned char>(c));
        }
    }
    cursor = plex::dx;
    plex::ansion(0);
    plex::rstwin();
}

} // namespace

void drawin(Picture &picture, int bottom) {
    plex::setwin(picture.data(), 0, 0, plex::scrcols - 1, static_cast<uint8_t>(bottom), 0);
}

void blank(Picture &picture) {
    for (size_t i = 0; i < picture.size(); i += 2) {
        picture[i] = ' ';
        picture[i + 1] = plain;
    }
}

void openview(const Line &line) {
    blank(screen);
    cursor = 0;
    open = {};
    feed(reset);
    feedview(line, line.recent.data(), line.recent.size());
}

void feedview(const Line &line, const char *bytes, size_t len) {
    const std::string_view sent(bytes, len);
    feed(line.utf8 ? fromutf8(sent, open) : std::string(sent));
}

const Picture &viewpicture() {
    return screen;
}

uint16_t viewcursor() {
    return cursor;
}

} // namespace harbour
