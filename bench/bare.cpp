// The same as exit0 in a few instructions, without the C library, whose own start takes longer than
// everything else in a launch: what is left is the launching. Elsewhere it
// is exit0 over again.

#if defined(__x86_64__)
asm(R"(
    .globl _start
_start:
    movl $231, %eax     # exit_group
    xorl %edi, %edi
    syscall
    .section .note.GNU-stack, "", @progbits
)");
#else
int main() {
    return 0;
}
#endif
