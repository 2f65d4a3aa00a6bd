/* DeliTracker/EaglePlayer interface for player code written in C: the global
   base arrives as a pointer (the assembly entry stubs push A5) and its fields
   are read at their byte offsets, big-endian as the 68000 sees them. */
#ifndef DELIPLAYER_H
#define DELIPLAYER_H

typedef unsigned char u8;
typedef unsigned short u16;
typedef unsigned int u32; /* int is 32 bits with m68k gcc */

/* From players/runtime. */
void* memcpy(void* dst, const void* src, __SIZE_TYPE__ n);
void* memmove(void* dst, const void* src, __SIZE_TYPE__ n);
void* memset(void* dst, int c, __SIZE_TYPE__ n);
int memcmp(const void* a, const void* b, __SIZE_TYPE__ n);

enum {
    DB_MODULE = 0x24,
    DB_MODULELEN = 0x28,
    DB_SUBSONG = 0x2C,
    DB_VOLUME = 0x2E,
    DB_TIMER = 0x36,
    DB_VOICES = 0x146,
};

/* Function pointers of the base, by index (the assembly calls them with A5 =
   the base). */
enum {
    FN_AUDIOALLOC = 5,
    FN_AUDIOFREE = 6,
    FN_SONGEND = 9,
    FN_SETTIMER = 11,
};

static inline u32 db_long(const void* base, int offset) {
    return *(const volatile u32*)((const u8*)base + offset);
}
static inline u16 db_word(const void* base, int offset) {
    return *(const volatile u16*)((const u8*)base + offset);
}

/* Paula, for players that drive it directly. */
#define CUSTOM ((volatile u16*)0xDFF000)
#define AUD_REG(channel, reg) (CUSTOM[(0xA0 + 16 * (channel) + (reg)) / 2])
enum { AUD_LCH = 0, AUD_LCL = 2, AUD_LEN = 4, AUD_PER = 6, AUD_VOL = 8 };
#define DMACON_REG (CUSTOM[0x96 / 2])

#endif
