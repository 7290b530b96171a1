// What the launch bench launches: a program with nothing to it, so that what is measured is the
// launching. It exits 0 at once, or with an argument stays until a signal ends it.

#if defined(__x86_64__)
asm(R"(
    .globl _start
_start:
    cmpq $1, (%rsp)
    jne 1f
    movl $231, %eax     # exit_group
    xorl %edi, %edi
    syscall
1:  movl $34, %eax      # pause
    syscall
    jmp 1b
    .section .note.GNU-stack, "", @progbits
)");
#else
#include <unistd.h>

int main(int argc, char **) {
    while (argc > 1) {
        pause();
    }
    return 0;
}
#endif
