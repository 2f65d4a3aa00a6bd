/* The skeleton's replay logic: it takes note of the module and counts its
   interrupts. A real player decodes the module in skeleton_init and drives
   Paula from skeleton_interrupt. */
#include "deliplayer.h"

static const u8* module;
static u32 module_len;
u32 skeleton_ticks;

/* 0: ready to play; any other value: the module cannot be played. */
int skeleton_init(const void* base) {
    module = (const u8*)db_long(base, DB_MODULE);
    module_len = db_long(base, DB_MODULELEN);
    skeleton_ticks = 0;
    return module ? 0 : -1;
}

void skeleton_interrupt(const void* base) {
    (void)base;
    skeleton_ticks++;
}
