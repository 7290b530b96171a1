// The first process of the emulated PC: tells the serial line the console's font, runs conshow
// twice on that console and tells how each ended, with the keyboard's mode and settings, and what
// stands on the screen, before and after. With the argument "framebuffer" the first is an ordinary
// user's, who may open the terminal and its cells.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
constexpr gid_t tty = 5;
constexpr size_t glyphsize = 32; // bytes; the console's has 16 lines

struct State {
    int mode = -1;
    alignas(termios) std::array<char, sizeof(termios)> term = {};
    std::array<char, 65536> screen = {};
};

void look(State &state) {
    ioctl(0, KDGKBMODE, &state.mode);
    tcgetattr(0, reinterpret_cast<termios *>(state.term.data()));
    const int fd = open("/dev/vcsa1", O_RDONLY);
    if (read(fd, state.screen.data(), state.screen.size()) <= 0) {
        puts("no /dev/vcsa1");
    }
    close(fd);
}

void askfont() {
    static std::array<unsigned char, 256 * glyphsize> font;
    console_font_op get = {KD_FONT_OP_GET, 0, 8, 32, 256, font.data()};
    if (ioctl(0, KDFONTOP, &get) != 0) {
        puts("no font");
    }
    for (size_t at = 0; at < font.size(); at++) {
        if (at % glyphsize < 16) {
            printf("%02x", font[at]);
        }
    }
    puts("");
}

[[noreturn]] void program(const char *picture, bool user) {
    if (user && (chown("/dev/tty1", nobody, tty) != 0 || chown("/dev/vcsa1", 0, tty) != 0 ||
                 chmod("/dev/vcsa1", 0660) != 0 || setgid(tty) != 0 || setuid(nobody) != 0)) {
        _exit(126);
    }
    execl("/program", "/program", picture, nullptr);
    _exit(127);
}

void serve(bool framebuffer) {
    setsid();
    dup2(open("/dev/tty1", O_RDWR), 0);
    dup2(open("/dev/ttyS0", O_RDWR | O_NOCTTY), 1);
    dup2(1, 2);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    setenv("BBSDISP", "unixcon", 1);
    setenv("BBSCONFIG", "/plexhost.cfg", 1);
    for (int i = 0; i < 60; i++) { // scrolled: the screen no longer begins where the memory does
        dprintf(0, "line %d\r\n", i);
    }
    askfont();
    for (const char *picture : {"/chart.ans", "/sample.ans"}) {
        dprintf(0, "\033[1mbefore %s\033[0m ", picture);
        static State before;
        static State after;
        look(before);
        if (fork() == 0) {
            program(picture, framebuffer && strcmp(picture, "/chart.ans") == 0);
        }
        int status = 0;
        wait(&status);
        look(after);
        dprintf(0, "\033[2J"); // before it is told: nobody takes what is left for the next
        const bool keyboard = before.mode == after.mode && before.term == after.term;
        printf("ended %d keyboard %s screen %s\n", WEXITSTATUS(status),
               keyboard ? "same" : "changed", before.screen == after.screen ? "same" : "changed");
    }
}

} // namespace

int main(int argc, char **argv) {
    mkdir("/dev", 0755);
    mount("dev", "/dev", "devtmpfs", 0, nullptr);
    if (fork() == 0) {
        serve(argc > 1 && strcmp(argv[1], "framebuffer") == 0);
    }
    for (;;) {
        wait(nullptr);
    }
}
