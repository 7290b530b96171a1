#include "libunix/daemon/template.h"

namespace plex {

void set_termios(struct termios *t) {
    // The record is not cleared: the daemon's is a zero-initialised global, filled once.
    t->c_iflag = BRKINT | ICRNL | IXON | IMAXBEL;
    t->c_oflag = OPOST | ONLCR;
    t->c_cflag = CS8 | CREAD | HUPCL;
    t->c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | ECHOCTL | IEXTEN;

    t->c_cc[VDISCARD] = 0x0F; // ^O
    t->c_cc[VLNEXT] = 0x16;   // ^V
    t->c_cc[VREPRINT] = 0x12; // ^R
    t->c_cc[VWERASE] = 0x17;  // ^W
    t->c_cc[VEOL2] = 0xFF;
    t->c_cc[VERASE] = 0x08; // ^H
    t->c_cc[VINTR] = 0x03;  // ^C
    t->c_cc[VKILL] = 0x15;  // ^U
    t->c_cc[VQUIT] = 0x1C;  // ^backslash
    t->c_cc[VSTART] = 0x11; // ^Q
    t->c_cc[VSTOP] = 0x13;  // ^S
    t->c_cc[VSUSP] = 0x1A;  // ^Z

    // The end-of-file character is ^A, and there is no end-of-line character: where the system was
    // made, VMIN and VTIME share the slots of VEOF and VEOL and were set last. Here each has its
    // own, and the result is deliberately the same.
    t->c_cc[VEOF] = 0x01;
    t->c_cc[VEOL] = 0x00;
    t->c_cc[VMIN] = 1;
    t->c_cc[VTIME] = 0;
}

void set_winsize(struct winsize *w) {
    w->ws_row = 24;
    w->ws_col = 80;
    w->ws_xpixel = 100;
    w->ws_ypixel = 100;
}

} // namespace plex
