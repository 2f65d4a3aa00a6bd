/* The runtime check as a 68000 program: results and buffer in BSS. */
#include "arith.h"

arith_u32 arith_results[ARITH_RESULTS];
unsigned char arith_buffer[MEM_BUFFER];

void arith_run(void) { arith_compute(arith_results, arith_buffer); }

#ifdef ARITH_QEMU
/* Under qemu-m68k's Linux user mode, results and buffer to stdout; system call number in D0, arguments from D1. */
static void linux_call(long number, long a, long b, long c) {
    register long d0 __asm__("d0") = number;
    register long d1 __asm__("d1") = a;
    register long d2 __asm__("d2") = b;
    register long d3 __asm__("d3") = c;
    __asm__ volatile("trap #0" : "+d"(d0) : "d"(d1), "d"(d2), "d"(d3) : "memory");
}

void _start(void) {
    arith_run();
    linux_call(4, 1, (long)arith_results, sizeof arith_results); /* write */
    linux_call(4, 1, (long)arith_buffer, sizeof arith_buffer);
    linux_call(1, 0, 0, 0); /* exit */
}
#endif
