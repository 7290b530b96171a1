// The first process of the emulated PC: runs conshow twice on its console and tells the serial line
// how each ended, with the keyboard's mode and settings before and after.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <linux/kd.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

int main() {
    mkdir("/dev", 0755);
    mount("dev", "/dev", "devtmpfs", 0, nullptr);
    if (fork() == 0) {
        setsid();
        dup2(open("/dev/tty1", O_RDWR), 0);
        dup2(open("/dev/ttyS0", O_RDWR | O_NOCTTY), 1);
        dup2(1, 2);
        setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
        setenv("BBSDISP", "unixcon", 1);
        setenv("BBSCONFIG", "/plexhost.cfg", 1);
        for (int i = 0; i < 60;
             i++) { // scrolled: the screen no longer begins where the memory does
            dprintf(0, "line %d\r\n", i);
        }
        puts("ready");
        for (const char *picture : {"/chart.ans", "/sample.ans"}) {
            int mode[2] = {};
            termios term[2] = {};
            int status = 0;
            for (int i = 0; i < 2; i++) {
                ioctl(0, KDGKBMODE, &mode[i]);
                tcgetattr(0, &term[i]);
                if (i == 0 && fork() == 0) {
                    execl("/program", "/program", picture, nullptr);
                    _exit(127);
                }
                i == 0 ? wait(&status) : 0;
            }
            printf("ended %d keyboard %s\n", WEXITSTATUS(status),
                   mode[0] == mode[1] && memcmp(&term[0], &term[1], sizeof term[0]) == 0
                       ? "same"
                       : "changed");
        }
    }
    for (;;) {
        wait(nullptr);
    }
}
