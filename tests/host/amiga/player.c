/* Test player routines: each records that it ran and what it saw. */
#include "deliplayer.h"

/* Word offsets known to host_player_test.cpp. */
struct State {
    u32 magic;       /* 0 */
    u32 exec_base;   /* 4: A6 in Config */
    u32 eagle_base;  /* 8: filled by the host from EP_EagleBase */
    u32 store_base;  /* 12: filled by the host from tag 0x80004473 */
    u32 config_calls, init_calls, ticks;  /* 16, 20, 24 */
    u32 base;        /* 28: A5 in InitPlayer */
    u32 module, module_len, module_sum;  /* 32, 36, 40 */
    u32 tempo;       /* 44: computed with the runtime's divide */
    u32 copy[4];     /* 48: the module's first bytes, through memcpy */
};

struct State state = {.magic = 0x504C4159};

void player_config(void) { state.config_calls++; }

int player_init(const void* base) {
    const u8* module = (const u8*)db_long(base, DB_MODULE);
    u32 len = db_long(base, DB_MODULELEN), k, sum = 0;
    state.init_calls++;
    state.base = (u32)base;
    state.module = (u32)module;
    state.module_len = len;
    for (k = 0; k < len; k++) sum = sum * 31 + module[k];
    state.module_sum = sum;
    /* CIA ticks per second over ticks per interrupt: the interrupt rate. */
    state.tempo = 709379 / db_word(base, DB_TIMER);
    memcpy(state.copy, module, len < sizeof state.copy ? len : sizeof state.copy);
    return len ? 0 : 1;
}

void player_interrupt(const void* base) {
    state.ticks++;
    AUD_REG(0, AUD_VOL) = db_word(base, DB_VOLUME);
}
