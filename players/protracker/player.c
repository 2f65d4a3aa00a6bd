/* The player's routines behind the entries in player.s: the module comes
 * from the global base, the tracker variant from the host's "type" option,
 * and the ticks from a CIA-B timer whose interrupt server calls
 * pt_player_tick. */
#include "deliplayer.h"
#include "pt_hw.h"
#include "ptreplay.h"

/* player.s */
u32 pt_deli_call(const void *base, int index);
void *pt_open_resource(const char *name);
u32 pt_add_icr(void *resource, int bit, void *interrupt);
void pt_rem_icr(void *resource, int bit, void *interrupt);
int pt_read_options(void *block);
void pt_player_server(void);

/* CIA-B: timer A and B latches and control registers. */
#define CIAB_REG(offset) (*(volatile u8 *)(0xBFD000UL + (offset)))
#define CIA_TIMER_LO(t) CIAB_REG((t) ? 0x600 : 0x400)
#define CIA_TIMER_HI(t) CIAB_REG((t) ? 0x700 : 0x500)
#define CIA_CONTROL(t) CIAB_REG((t) ? 0xF00 : 0xE00)
#define CR_START 0x01
#define CR_LOAD 0x10 /* strobe: copy the latch into the counter now */
/* Control bits that belong to others: serial mode and TOD (CRA), alarm (CRB). */
#define CR_KEEP(t) ((t) ? 0x80 : 0xC0)
#define NO_TIMER (-1)

/* exec's Interrupt node, as AddICRVector takes it. */
struct Interrupt {
    void *succ, *pred;
    u8 type, pri;
    const char *name;
    const void *data; /* A1 in the server */
    void (*code)(void);
};
#define NT_INTERRUPT 2

/* The host's option block: a count, then name, flag byte and value buffer. */
struct OptionBlock {
    u32 count;
    const char *name;
    u8 *flag;
    char *value;
};

static PtState song;
static int variant;
static void *ciab;
static int timer = NO_TIMER;
static struct Interrupt server;
static u8 type_given;
static char type_value[256]; /* the longest option string the host keeps */

static const u8 *module_of(const void *base) { return (const u8 *)db_long(base, DB_MODULE); }
static u32 length_of(const void *base) { return db_long(base, DB_MODULELEN); }

int pt_player_check(const void *base) {
    return pt_check(module_of(base), length_of(base)) != PT_FORMAT_NONE ? 0 : -1;
}

int pt_player_init(const void *base) {
    static struct OptionBlock options = {1, "type", &type_given, type_value};
    if (pt_check(module_of(base), length_of(base)) == PT_FORMAT_NONE) return -1;
    type_given = 0;
    pt_read_options(&options);
    variant = type_given ? pt_variant_from_option(type_value) : PT_AUTO;
    return (int)pt_deli_call(base, FN_AUDIOALLOC);
}

int pt_player_end(const void *base) { return (int)pt_deli_call(base, FN_AUDIOFREE); }

static void song_end(void *base) { pt_deli_call(base, FN_SONGEND); }

int pt_player_init_sound(const void *base) {
    if (pt_init(&song, module_of(base), length_of(base), variant) != PT_OK) return -1;
    song.song_end = song_end;
    song.song_end_ctx = (void *)base;
    /* ProTracker starts with the LED filter off; E0x switches it. */
    pt_hw_filter(0);
    return 0;
}

int pt_player_end_sound(const void *base) {
    (void)base;
    pt_stop(&song);
    return 0;
}

/* Latch and load at once: a new tempo counts from the tick that set it. */
static void load_timer(u16 value) {
    CIA_TIMER_LO(timer) = (u8)value;
    CIA_TIMER_HI(timer) = (u8)(value >> 8);
    CIA_CONTROL(timer) = (u8)((CIA_CONTROL(timer) & CR_KEEP(timer)) | CR_LOAD | CR_START);
}

int pt_player_start(const void *base) {
    int t;
    if (timer != NO_TIMER) return 0;
    ciab = pt_open_resource("ciab.resource");
    if (!ciab) return -1;
    server.type = NT_INTERRUPT;
    server.name = "orvel ProTracker";
    server.data = base;
    server.code = pt_player_server;
    for (t = 0; t < 2 && timer == NO_TIMER; t++)
        if (pt_add_icr(ciab, t, &server) == 0) timer = t;
    if (timer == NO_TIMER) return -1;
    pt_tick(&song);
    load_timer(pt_cia_timer(&song));
    return 0;
}

int pt_player_stop(const void *base) {
    (void)base;
    if (timer == NO_TIMER) return 0;
    CIA_CONTROL(timer) = (u8)(CIA_CONTROL(timer) & ~CR_START);
    pt_rem_icr(ciab, timer, &server);
    timer = NO_TIMER;
    return 0;
}

void pt_player_tick(const void *base) {
    u16 before = pt_cia_timer(&song);
    (void)base;
    pt_tick(&song);
    if (pt_cia_timer(&song) != before) load_timer(pt_cia_timer(&song));
}
