/* The 68000 runtime helpers (operators, mem*) against the host's own: plain C for m68k gcc and the host. */
#ifndef ORVEL_TEST_ARITH_H
#define ORVEL_TEST_ARITH_H

#ifdef __m68k__
typedef unsigned int arith_u32; /* 32 bits with m68k gcc */
void* memcpy(void* dst, const void* src, __SIZE_TYPE__ n);
void* memmove(void* dst, const void* src, __SIZE_TYPE__ n);
void* memset(void* dst, int c, __SIZE_TYPE__ n);
int memcmp(const void* a, const void* b, __SIZE_TYPE__ n);
#else
#include <stdint.h>
#include <string.h>
typedef uint32_t arith_u32;
#endif

/* Operand pairs: each divide path (16-bit divisor, wide, top bit set), the signs, the 32-bit edges. */
static const int arith_cases[][2] = {
    {0, 1}, {7, 3}, {-7, 3}, {7, -3}, {-7, -3}, {-100000, 7}, {0x7FFFFFFF, 1}, {0x7FFFFFFF, 0xFFFF}, {0x12345678, 0x10000},
    {0x12345678, 0x10001}, {-0x12345678, 0x1234}, {0x7FFFFFFF, 0x7FFFFFFF}, {0x7FFFFFFF, 0x40000000}, {-0x7FFFFFFF - 1, 2},
    {-0x7FFFFFFF - 1, 0x7FFFFFFF}, {-1, 0x10000}, {-1, -0x10000}, {-1, -1 - 0x7FFFFFFF}, {-3, -2}, {0x40000000, -0x40000000},
    {0x0001FFFF, 0x0001FFFE}, {0x7654321, 0xFFFFF}, {-123456789, -987}, {46341, 46341}, {5, -0x7FFFFFFF},
};
/* Block operations on one buffer (kind, destination, source, length, byte); odd, even and mixed pointers. */
enum { ARITH_CASES = sizeof arith_cases / sizeof arith_cases[0], ARITH_PER_CASE = 5, MEM_SET = 0, MEM_CPY, MEM_MOVE, MEM_CMP };
static const int mem_ops[][5] = {
    {MEM_SET, 1, 0, 1, 0x22}, {MEM_SET, 3, 0, 13, 0xAB}, {MEM_SET, 64, 0, 40, 0x80}, {MEM_SET, 129, 0, 0, 0xFF},
    {MEM_CPY, 200, 2, 37, 0}, {MEM_CPY, 257, 5, 21, 0}, {MEM_CPY, 300, 3, 30, 0}, {MEM_MOVE, 10, 4, 50, 0},
    {MEM_MOVE, 4, 9, 50, 0}, {MEM_MOVE, 401, 400, 31, 0}, {MEM_MOVE, 440, 441, 31, 0}, {MEM_CMP, 200, 2, 37, 0},
    {MEM_CMP, 3, 64, 10, 0}, {MEM_CMP, 64, 3, 10, 0}, {MEM_CMP, 100, 101, 0, 0}, {MEM_CMP, 129, 64, 1, 0},
};
/* Then pseudo-random operands, folded into one check value per operation. */
enum { MEM_OPS = sizeof mem_ops / sizeof mem_ops[0], MEM_BUFFER = 512, ARITH_RANDOM = 3000,
       ARITH_RESULTS = ARITH_CASES * ARITH_PER_CASE + MEM_OPS + ARITH_PER_CASE };

/* Product, unsigned quotient and remainder, signed quotient and remainder. */
static void arith_pair(int a, int b, arith_u32* r) {
    arith_u32 ua = (arith_u32)a, ub = (arith_u32)b;
    r[0] = ua * ub, r[1] = ua / ub, r[2] = ua % ub, r[3] = (arith_u32)(a / b), r[4] = (arith_u32)(a % b);
}

static void arith_compute(arith_u32* results, unsigned char* buffer) {
    /* Read through volatile so that nothing is folded at compile time. */
    const volatile int(*cases)[2] = arith_cases;
    const volatile int(*ops)[5] = mem_ops;
    arith_u32 seed = 12345, ua, ub, v[ARITH_PER_CASE], *mem = results + ARITH_CASES * ARITH_PER_CASE,
              *fold = mem + MEM_OPS;
    int i, k;
    for (i = 0; i < ARITH_CASES; i++) arith_pair(cases[i][0], cases[i][1], results + i * ARITH_PER_CASE);
    for (i = 0; i < MEM_BUFFER; i++) buffer[i] = (unsigned char)(i * 7 + 3);
    for (i = 0; i < MEM_OPS; i++) {
        unsigned char *d = buffer + ops[i][1], *s = buffer + ops[i][2];
        int len = ops[i][3], kind = ops[i][0], c = kind == MEM_CMP ? memcmp(d, s, len) : 0;
        void* r = kind == MEM_SET ? memset(d, ops[i][4], len) : kind == MEM_CPY ? memcpy(d, s, len)
                : kind == MEM_MOVE ? memmove(d, s, len) : buffer;
        mem[i] = kind == MEM_CMP ? (arith_u32)((c > 0) - (c < 0)) : (arith_u32)((unsigned char*)r - buffer); /* sign */
    }
    for (k = 0; k < ARITH_PER_CASE; k++) fold[k] = 0;
    for (i = 0; i < ARITH_RANDOM; i++) {
        /* xorshift: no multiply, so the generator does not test itself */
        seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5, ua = seed;
        seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5, ub = seed >> (seed & 31); /* every width */
        if (ub == 0 || (ua == 0x80000000u && ub == 0xFFFFFFFFu)) continue;
        arith_pair((int)ua, (int)ub, v);
        for (k = 0; k < ARITH_PER_CASE; k++) fold[k] = (fold[k] << 5 | fold[k] >> 27) ^ v[k];
    }
}

#endif
