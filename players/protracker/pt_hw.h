/* The replay's only contact with the hardware: Paula's registers in the
 * custom-chip block, the LED filter bit of CIA-A, and a short wait for
 * audio DMA. On the Amiga these are plain volatile accesses; a native build
 * (the test harness) routes them through hooks it installs. */
#ifndef PT_HW_H
#define PT_HW_H

#include <stdint.h>

/* Register offsets from $DFF000. */
#define PT_DMACON 0x096
#define PT_VHPOSR 0x006
#define PT_AUD(ch, r) (0x0A0 + ((ch) << 4) + (r))
#define PT_LC 0   /* AUDxLCH; AUDxLCL follows at +2 */
#define PT_LEN 4  /* words */
#define PT_PER 6  /* colour clocks per sample */
#define PT_VOL 8  /* 0..64 */

#define PT_DMA_SET 0x8000    /* DMACON: set the given bits instead of clearing them */
#define PT_DMA_MASTER 0x0200 /* DMACON: DMAEN */

#if defined(__mc68000__) || defined(__m68k__)

#define PT_CUSTOM_BASE 0xDFF000UL
#define PT_CIAA_PRA 0xBFE001UL /* bit 1 high = power LED off = filter off */

static inline void pt_hw_write(uint16_t reg, uint16_t value) {
    *(volatile uint16_t *)(PT_CUSTOM_BASE + reg) = value;
}

/* One long store: the bus splits it into LCH then LCL, as on the hardware. */
static inline void pt_hw_location(int ch, const void *p) {
    *(const void *volatile *)(PT_CUSTOM_BASE + PT_AUD(ch, PT_LC)) = p;
}

static inline void pt_hw_filter(int on) {
    volatile uint8_t *pra = (volatile uint8_t *)PT_CIAA_PRA;
    *pra = on ? (uint8_t)(*pra & ~2) : (uint8_t)(*pra | 2);
}

/* Paula only notices a DMA stop or a new location at its next sample fetch;
 * a few raster lines (64 us each) cover the slowest period. */
static inline void pt_hw_dma_wait(void) {
    volatile const uint16_t *vhpos = (volatile const uint16_t *)(PT_CUSTOM_BASE + PT_VHPOSR);
    int lines = 5;
    uint16_t line = (uint16_t)(*vhpos >> 8);
    while (lines > 0) {
        uint16_t now = (uint16_t)(*vhpos >> 8);
        if (now != line) {
            line = now;
            lines--;
        }
    }
}

#else

typedef struct PtHwHooks {
    void (*write)(void *ctx, uint16_t reg, uint16_t value);
    uint32_t (*address)(void *ctx, const void *p); /* host pointer -> chip address */
    void (*filter)(void *ctx, int on);
    void *ctx;
} PtHwHooks;

#ifdef __cplusplus
extern "C" PtHwHooks pt_hw_hooks;
#else
extern PtHwHooks pt_hw_hooks;
#endif

static inline void pt_hw_write(uint16_t reg, uint16_t value) {
    if (pt_hw_hooks.write) pt_hw_hooks.write(pt_hw_hooks.ctx, reg, value);
}

static inline void pt_hw_location(int ch, const void *p) {
    uint32_t a = pt_hw_hooks.address ? pt_hw_hooks.address(pt_hw_hooks.ctx, p) : 0;
    pt_hw_write((uint16_t)PT_AUD(ch, PT_LC), (uint16_t)(a >> 16));
    pt_hw_write((uint16_t)PT_AUD(ch, PT_LC + 2), (uint16_t)a);
}

static inline void pt_hw_filter(int on) {
    if (pt_hw_hooks.filter) pt_hw_hooks.filter(pt_hw_hooks.ctx, on);
}

static inline void pt_hw_dma_wait(void) {}

#endif

#endif
