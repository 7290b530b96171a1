// The first process of the emulated PC: tells the serial line the console's font, runs conshow
// twice on that console and tells how each ended, with the keyboard's mode and settings, and what
// stands on the screen, before and after. With the argument "framebuffer" the first is an ordinary
// user's, who may open the terminal and its cells.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kd.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;
constexpr gid_t tty = 5;

std::string keyboard() {
    int mode = -1;
    std::string term(sizeof(termios), '\0');
    ioctl(0, KDGKBMODE, &mode);
    tcgetattr(0, reinterpret_cast<termios *>(term.data()));
    return term + std::to_string(mode);
}

std::string screen() {
    std::string cells(65536, '\0');
    const int fd = open("/dev/vcsa1", O_RDONLY);
    if (read(fd, cells.data(), cells.size()) <= 0) {
        puts("no /dev/vcsa1");
    }
    close(fd);
    return cells;
}

void askfont() {
    static unsigned char font[256][32]; // the console's has 16 lines
    console_font_op get = {KD_FONT_OP_GET, 0, 8, 32, 256, font[0]};
    ioctl(0, KDFONTOP, &get);
    for (size_t i = 0; i < 256 * size_t{16}; i++) {
        printf("%02x", font[i / 16][i % 16]);
    }
    puts("");
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
        const std::string keysbefore = keyboard();
        const std::string before = screen();
        if (fork() == 0) {
            const bool user = framebuffer && strcmp(picture, "/chart.ans") == 0;
            if (!user ||
                (chown("/dev/tty1", nobody, tty) == 0 && chown("/dev/vcsa1", 0, tty) == 0 &&
                 chmod("/dev/vcsa1", 0660) == 0 && setgid(tty) == 0 && setuid(nobody) == 0)) {
                execl("/program", "/program", picture, nullptr);
            }
            _exit(127);
        }
        int status = 0;
        wait(&status);
        const bool same = screen() == before;
        const bool samekeys = keyboard() == keysbefore;
        dprintf(0, "\033[2J"); // before it is told: nobody takes what is left for the next
        printf("ended %d keyboard %s screen %s\n", WEXITSTATUS(status),
               samekeys ? "same" : "changed", same ? "same" : "changed");
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
