/* orvel's own replay routine for 4-channel ProTracker-family modules:
 * 31-instrument files tagged M.K., M!K!, M&K!, N.T., FLT4, EXO4, 4CHN,
 * the 1-3 channel TakeTracker/FastTracker variants (TDZ1-3, 1CHN-3CHN), and
 * 15-instrument Soundtracker files.
 *
 * Freestanding C: no library, no floating point, no 32-bit multiply or
 * divide in the per-tick path. The caller owns the state record and the
 * module bytes (which must stay in place while playing; on the Amiga they
 * are in chip RAM, where Paula reads the samples). Call pt_tick once per
 * tick: at 50 Hz for vertical-blank timing, or at every underflow of a CIA
 * timer loaded with pt_cia_timer().
 *
 * Tracker variants (pt_variant_from_option) and what differs:
 *   ProTracker      everything below.
 *   NoiseTracker    Dxx always breaks to row 0; finetune is ignored; E
 *                   commands other than E0x (filter) are ignored; the restart
 *                   byte is honoured when the order list ends.
 *   Soundtracker    (15-instrument files; "st24" 31-instrument files too) as
 *                   NoiseTracker, plus: Fxx sets the speed from its low
 *                   nibble only (no tempo); a 15-instrument file's byte 471
 *                   other than 0 or 120 sets the CIA timer to (240 - n) x 122;
 *                   "st24" files give loop starts in bytes, not words.
 *
 * Effects: all ProTracker commands, with these deliberate departures:
 *   - EFx (invert loop) is accepted and does nothing: it would rewrite the
 *     sample data of the module in memory.
 *   - 9xx applies its offset to the note it triggers only; ProTracker also
 *     adds it to the channel's start pointer, so that a later note without
 *     an instrument would start further in.
 *   - EDx triggers the delayed note at its own period (ProTracker leaves the
 *     old period in AUDxPER until the next row).
 *   - A tremolo's volume is put back at the next row that has no tremolo.
 *   - E6x is not re-run on the ticks that repeat a row for EEx, so a loop
 *     on a delayed row behaves like the other rows of the loop.
 *   - F00 is ignored; F01-F1F set the speed, F20-FFF the tempo (BPM).
 *   - A tone portamento on a channel that has not played yet starts its
 *     note instead of sliding up from nothing.
 * Periods follow ProTracker's: the finetune-0 note periods of the tracker,
 * the other finetunes computed from them (within one unit of the tracker's
 * tables); portamento stops at 113 and 856.
 *
 * Song end: the hook is called at the start of the tick that would play a
 * row already played since the last call (a jump or break backwards, or the
 * end of the order list), as a tracker's duration scan counts it. A row
 * played again inside a pattern loop is not a repeat as long as the loop
 * counters differ from its earlier visits; an endless loop (two E6x rows of
 * one channel sharing a loop start) comes back to the same counters. More
 * than PT_LOOP_VISITS different rows inside loops also count as the end.
 * Playback then goes on; the visited rows are forgotten. */
#ifndef PTREPLAY_H
#define PTREPLAY_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PT_FORMAT_NONE = 0,
    PT_FORMAT_15 = 15, /* 15-instrument Soundtracker layout */
    PT_FORMAT_31 = 31  /* 31-instrument layout with a tag at 1080 */
};

enum { PT_PROTRACKER = 0, PT_NOISETRACKER, PT_SOUNDTRACKER, PT_SOUNDTRACKER_BYTELOOP, PT_AUTO };

enum { PT_OK = 0, PT_ERR_FORMAT = 1 };

#define PT_CHANNELS 4
#define PT_MAX_SAMPLES 31
#define PT_POSITIONS 128
#define PT_ROWS 64
#define PT_NOTES 36     /* C-1 .. B-3 */
#define PT_FINETUNES 16 /* 0..7, then -8..-1 */
#define PT_LOOP_VISITS 2048 /* rows played inside pattern loops, before the song counts as ended */

typedef struct PtSample {
    const int8_t *start; /* null when the sample is empty */
    const int8_t *loop;
    uint16_t length;      /* words played from start: up to the loop end if it loops */
    uint16_t loop_length; /* words; 1 = one-shot (Paula repeats two silent bytes) */
    uint8_t finetune;     /* 0..15 */
    uint8_t volume;       /* 0..64 */
} PtSample;

typedef struct PtChannel {
    const int8_t *start;
    const int8_t *loop;
    uint16_t length;
    uint16_t loop_length;
    uint16_t note;   /* period written in the current row, 0 = none */
    uint16_t period; /* the channel's period, before vibrato and arpeggio */
    uint16_t wanted; /* tone portamento target, 0 = reached */
    uint8_t cmd, param;
    uint8_t finetune, volume;
    uint8_t porta_speed, porta_up;
    uint8_t gliss;       /* E3x */
    uint8_t waves;       /* E4x in the low nibble, E7x in the high one */
    uint8_t vib_cmd, vib_pos;
    uint8_t trem_cmd, trem_pos;
    uint8_t loop_row, loop_count; /* E6x */
    uint8_t offset;               /* 9xx memory */
    uint8_t requeue;              /* loop registers to be written after DMA starts */
    uint8_t index;                /* Paula channel */
} PtChannel;

typedef struct PtState {
    const uint8_t *module;
    uint32_t length;
    const uint8_t *orders;
    const uint8_t *pattern[PT_POSITIONS]; /* pattern data for each order position */
    uint16_t row_bytes;
    uint8_t format, variant, channels, sample_count;
    uint8_t song_length, restart;

    uint8_t speed, counter, arp_tick;
    uint8_t pos, row;
    uint8_t break_row;    /* PBreakPos */
    uint8_t jump;         /* PosJumpFlag: next position at the end of the row */
    uint8_t loop_jump;    /* PBreakFlag: E6x jumps inside the pattern */
    uint8_t delay;        /* PattDelTime: EEx seen on this row */
    uint8_t delay_left;   /* PattDelTime2: repeats still to come */
    uint8_t repeating;    /* the coming row start repeats the row for EEx */
    uint16_t bpm;
    uint16_t cia_timer;
    uint16_t dma_on; /* channels started on this tick */

    void (*song_end)(void *ctx);
    void *song_end_ctx;
    uint32_t song_ends;

    PtSample samples[PT_MAX_SAMPLES];
    PtChannel ch[PT_CHANNELS];
    uint8_t visited[PT_POSITIONS][PT_ROWS / 8];
    uint32_t loop_visits[PT_LOOP_VISITS]; /* counters << 16 | position << 6 | row; 0 = free */
    uint16_t periods[PT_FINETUNES][PT_NOTES];
} PtState;

/* The tracker's note periods at finetune 0 (C-1..B-3), and the half sine
 * of vibrato and tremolo. */
extern const uint16_t pt_note_periods[PT_NOTES];
extern const uint8_t pt_vibrato_sine[32];

/* PT_FORMAT_31, PT_FORMAT_15 or PT_FORMAT_NONE. Never reads beyond length. */
int pt_check(const uint8_t *module, uint32_t length);

/* Channels per row of a module pt_check accepts (1..4). */
int pt_channels(const uint8_t *module, uint32_t length);

/* "type:pt30", "type:nt10", "type:st20", ... or the value alone ("pt30", as
 * the option call hands it over) -> PT_PROTRACKER etc.; null or unknown ->
 * PT_AUTO (Soundtracker for 15-instrument files, else ProTracker). */
int pt_variant_from_option(const char *option);

/* Parses the module, silences the four channels and prepares row 0 for the
 * first tick. PT_OK, or PT_ERR_FORMAT for a module pt_check refuses. */
int pt_init(PtState *s, const uint8_t *module, uint32_t length, int variant);

void pt_tick(PtState *s);

/* Switches the four channels' DMA off and their volume to 0. */
void pt_stop(PtState *s);

/* Tempo in beats per minute (a tick lasts 2.5 / BPM seconds), and the CIA
 * timer value that gives it at the 709379 Hz E clock: 1773447 / BPM. */
uint16_t pt_bpm(const PtState *s);
uint16_t pt_cia_timer(const PtState *s);

#ifdef __cplusplus
}
#endif

#endif
