/* ProTracker-family replay. The flow of a tick follows the tracker's own
 * replay: a new row every `speed` ticks, where each channel reads its note
 * and runs the effects of the row's first tick; the other ticks run the
 * continuous effects; after the row, pattern delay, pattern loop, break and
 * jump decide where the next row comes from. Paula is programmed as the
 * hardware expects: a channel's DMA off, then its location, length, period
 * and volume, DMA on for every started channel at once, and only then the
 * loop location and length, which Paula takes over when the first pass of
 * the sample ends. */
#include "ptreplay.h"

#include "pt_hw.h"

#if !(defined(__mc68000__) || defined(__m68k__))
PtHwHooks pt_hw_hooks;
#endif

/* Module layout. */
#define TITLE_BYTES 20
#define SAMPLE_HEADER_BYTES 30
#define HEADER_31 1084 /* title, 31 sample headers, length, restart, orders, tag */
#define HEADER_15 600  /* the same without the tag and with 15 samples */
#define TAG_OFFSET 1080
/* Song length, restart byte, then the 128 orders, after n sample headers. */
#define SONG_INFO(n) (TITLE_BYTES + (n) * SAMPLE_HEADER_BYTES)
#define ROW_NOTE_BYTES 4
#define ST_MAX_PATTERNS 64

#define PERIOD_MIN 113 /* B-3 at finetune 0: portamento stops here */
#define PERIOD_MAX 856 /* C-1 at finetune 0 */
#define VOLUME_MAX 64

#define DEFAULT_SPEED 6
#define DEFAULT_BPM 125
#define CIA_TIMER_PER_BPM 1773447UL /* 709379 Hz E clock x 2.5 s: timer = this / BPM */
#define ST_TEMPO_DEFAULT 120        /* Soundtracker's tempo byte that means 50 Hz */
#define ST_TEMPO_LIMIT 240
#define ST_TEMPO_UNIT 122 /* CIA ticks per step of Soundtracker's tempo byte */

/* ProTracker's note periods for finetune 0, C-1 to B-3. They are not exactly
 * equal-tempered (e.g. E-1 is 678, not 679), so they are written out. */
const uint16_t pt_note_periods[PT_NOTES] = {
    856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453,
    428, 404, 381, 360, 339, 320, 302, 285, 269, 254, 240, 226,
    214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113,
};

/* Finetune steps are eighths of a semitone: round(32768 x 2^(-f/96)) for
 * f = 0..7, then -8..-1 (finetunes 8..15 tune downwards). */
static const uint16_t finetune_q15[PT_FINETUNES] = {
    32768, 32532, 32298, 32066, 31835, 31606, 31379, 31153,
    34716, 34467, 34219, 33973, 33728, 33486, 33245, 33005,
};

/* Half a sine period for vibrato and tremolo: floor(255 x sin(pi x i / 32)). */
const uint8_t pt_vibrato_sine[32] = {
    0,   24,  49,  74,  97,  120, 141, 161, 180, 197, 212, 224, 235, 244, 250, 253,
    255, 253, 250, 244, 235, 224, 212, 197, 180, 161, 141, 120, 97,  74,  49,  24,
};

/* ---- small helpers (init-time arithmetic without libgcc) ---- */

static uint16_t be16(const uint8_t *p) { return (uint16_t)((p[0] << 8) | p[1]); }

/* 16 x 16 -> 32 bits: one MULU on the 68000, where the compiler would
 * otherwise call a 32-bit multiply helper. */
static uint32_t mul16(uint16_t a, uint16_t b) {
#if defined(__mc68000__) || defined(__m68k__)
    uint32_t r = a;
    __asm__("mulu.w %1,%0" : "+d"(r) : "dmi"(b));
    return r;
#else
    return (uint32_t)a * b;
#endif
}

/* Shift-and-subtract division; used at start-up and on tempo changes only. */
static uint32_t udiv(uint32_t n, uint16_t d) {
    uint32_t q = 0, r = 0;
    int i;
    for (i = 31; i >= 0; i--) {
        r = (r << 1) | ((n >> i) & 1);
        if (r >= d) {
            r -= d;
            q |= (uint32_t)1 << i;
        }
    }
    return q;
}

/* Byte loops that the compiler must not turn into a memset call. */
static void clear(void *p, uint32_t n) {
    volatile uint8_t *b = (volatile uint8_t *)p;
    while (n--) *b++ = 0;
}

static int is_tag(const uint8_t *t, const char *s) {
    return t[0] == (uint8_t)s[0] && t[1] == (uint8_t)s[1] && t[2] == (uint8_t)s[2] &&
           t[3] == (uint8_t)s[3];
}

/* ---- format recognition ---- */

static int tag_channels(const uint8_t *t) {
    static const char four[][5] = {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "EXO4"};
    unsigned i;
    for (i = 0; i < sizeof four / sizeof four[0]; i++)
        if (is_tag(t, four[i])) return 4;
    if (t[0] >= '1' && t[0] <= '4' && t[1] == 'C' && t[2] == 'H' && t[3] == 'N') return t[0] - '0';
    if (t[0] == 'T' && t[1] == 'D' && t[2] == 'Z' && t[3] >= '1' && t[3] <= '3') return t[3] - '0';
    return 0;
}

static int highest_pattern(const uint8_t *orders, int n) {
    int i, p = 0;
    for (i = 0; i < n; i++)
        if (orders[i] > p) p = orders[i];
    return p;
}

/* Patterns stored in the file: ProTracker counts every entry of the order
 * list, but some files carry junk after the song length; then only the
 * played entries count, if the file is too short for the rest. */
static int stored_patterns(const uint8_t *orders, int song_length, uint32_t header,
                           uint16_t pattern_bytes, uint32_t length) {
    int n = highest_pattern(orders, PT_POSITIONS) + 1;
    if (header + mul16((uint16_t)n, pattern_bytes) <= length) return n;
    n = highest_pattern(orders, song_length) + 1;
    if (header + mul16((uint16_t)n, pattern_bytes) <= length) return n;
    return 0;
}

static int check_31(const uint8_t *m, uint32_t length) {
    int ch = tag_channels(m + TAG_OFFSET);
    int song_length = m[SONG_INFO(31)];
    if (!ch || song_length == 0 || song_length > PT_POSITIONS) return 0;
    return stored_patterns(m + SONG_INFO(31) + 2, song_length, HEADER_31,
                           (uint16_t)(PT_ROWS * ROW_NOTE_BYTES * ch), length) != 0;
}

static int is_control(uint8_t c) { return (c > 0 && c < 32) || c == 127; }

/* 15-instrument files have no tag: they must look like one throughout. */
static int check_15(const uint8_t *m, uint32_t length) {
    const uint8_t *orders = m + SONG_INFO(15) + 2;
    int song_length = m[SONG_INFO(15)];
    int i, patterns;
    uint32_t n, end;
    if (length < HEADER_15 + PT_ROWS * ROW_NOTE_BYTES * 4) return 0;
    if (song_length == 0 || song_length > PT_POSITIONS) return 0;
    if (highest_pattern(orders, PT_POSITIONS) >= ST_MAX_PATTERNS) return 0;
    for (i = 0; i < TITLE_BYTES; i++)
        if (is_control(m[i])) return 0;
    for (i = 0; i < 15; i++) {
        const uint8_t *h = m + TITLE_BYTES + i * SAMPLE_HEADER_BYTES;
        int k;
        for (k = 0; k < 22; k++)
            if (is_control(h[k])) return 0;
        /* Soundtracker stores the volume as a word: its high byte is 0. */
        if (h[24] != 0 || h[25] > VOLUME_MAX || be16(h + 22) > 32768) return 0;
    }
    patterns = highest_pattern(orders, PT_POSITIONS) + 1;
    end = HEADER_15 + mul16((uint16_t)patterns, PT_ROWS * ROW_NOTE_BYTES * 4);
    if (end > length) return 0;
    for (n = HEADER_15; n < end; n += ROW_NOTE_BYTES) {
        uint16_t period = (uint16_t)(((m[n] & 0x0F) << 8) | m[n + 1]);
        if ((m[n] & 0xF0) || (m[n + 2] >> 4) > 15) return 0;
        if (period && (period < 100 || period > 1712)) return 0;
    }
    return 1;
}

int pt_check(const uint8_t *module, uint32_t length) {
    if (!module) return PT_FORMAT_NONE;
    if (length >= HEADER_31 && check_31(module, length)) return PT_FORMAT_31;
    if (check_15(module, length)) return PT_FORMAT_15;
    return PT_FORMAT_NONE;
}

int pt_channels(const uint8_t *module, uint32_t length) {
    int f = pt_check(module, length);
    if (f == PT_FORMAT_31) return tag_channels(module + TAG_OFFSET);
    return f == PT_FORMAT_15 ? 4 : 0;
}

int pt_variant_from_option(const char *o) {
    static const struct {
        char name[5];
        uint8_t variant;
    } names[] = {
        {"pt30", PT_PROTRACKER},   {"flt4", PT_PROTRACKER},   {"comp", PT_PROTRACKER},
        {"nt10", PT_NOISETRACKER}, {"nt20", PT_NOISETRACKER}, {"m&k.", PT_NOISETRACKER},
        {"st20", PT_SOUNDTRACKER}, {"st24", PT_SOUNDTRACKER_BYTELOOP},
    };
    unsigned i;
    int k;
    if (!o) return PT_AUTO;
    if (o[0] == 't' && o[1] == 'y' && o[2] == 'p' && o[3] == 'e' && o[4] == ':') o += 5;
    for (i = 0; i < sizeof names / sizeof names[0]; i++) {
        for (k = 0; names[i].name[k] && o[k] == names[i].name[k]; k++) {
        }
        if (!names[i].name[k] && !o[k]) return names[i].variant;
    }
    return PT_AUTO;
}

/* ---- variant properties ---- */

static int is_pt(const PtState *s) { return s->variant == PT_PROTRACKER; }
static int is_st(const PtState *s) {
    return s->variant == PT_SOUNDTRACKER || s->variant == PT_SOUNDTRACKER_BYTELOOP;
}

/* ---- start-up ---- */

static void build_periods(PtState *s) {
    int f, n;
    for (f = 0; f < PT_FINETUNES; f++)
        for (n = 0; n < PT_NOTES; n++)
            s->periods[f][n] = (uint16_t)((mul16(pt_note_periods[n], finetune_q15[f]) + 16384) >> 15);
}

static void load_samples(PtState *s, const uint8_t *data) {
    const uint8_t *end = s->module + s->length;
    int i;
    for (i = 0; i < s->sample_count; i++) {
        const uint8_t *h = s->module + TITLE_BYTES + i * SAMPLE_HEADER_BYTES;
        PtSample *smp = &s->samples[i];
        uint16_t len = be16(h + 22);
        uint16_t rs = be16(h + 26);
        uint16_t rl = be16(h + 28);
        uint32_t avail = data < end ? (uint32_t)(end - data) : 0;
        if (s->variant == PT_SOUNDTRACKER_BYTELOOP) rs >>= 1;
        if (is_pt(s)) smp->finetune = h[24] & 0x0F;
        smp->volume = h[25] > VOLUME_MAX ? VOLUME_MAX : h[25];
        /* Files cut short keep what is there. */
        if (((uint32_t)len << 1) > avail) len = (uint16_t)(avail >> 1);
        /* Loops are kept inside the sample. */
        if (rl < 1) rl = 1;
        if (rs >= len) rs = 0, rl = 1;
        if ((uint32_t)rs + rl > len) rl = (uint16_t)(len - rs);
        if (len) {
            smp->start = (const int8_t *)data;
            smp->loop = smp->start + ((uint32_t)rs << 1);
            /* A loop that starts late ends the first pass at the loop end. */
            smp->length = rs ? (uint16_t)(rs + rl) : len;
            smp->loop_length = rl;
        }
        data += (uint32_t)be16(h + 22) << 1;
    }
}

static void silence(void) {
    int c;
    pt_hw_write(PT_DMACON, 0x000F);
    for (c = 0; c < PT_CHANNELS; c++) pt_hw_write((uint16_t)PT_AUD(c, PT_VOL), 0);
}

int pt_init(PtState *s, const uint8_t *module, uint32_t length, int variant) {
    int format = pt_check(module, length);
    uint32_t header, pattern_bytes;
    int i, patterns;
    if (format == PT_FORMAT_NONE) return PT_ERR_FORMAT;
    clear(s, sizeof *s);
    s->module = module;
    s->length = length;
    s->format = (uint8_t)format;
    if (variant == PT_AUTO || variant < 0 || variant > PT_AUTO)
        variant = format == PT_FORMAT_15 ? PT_SOUNDTRACKER : PT_PROTRACKER;
    s->variant = (uint8_t)variant;
    s->sample_count = format == PT_FORMAT_31 ? 31 : 15;
    s->channels = (uint8_t)(format == PT_FORMAT_31 ? tag_channels(module + TAG_OFFSET) : 4);
    header = format == PT_FORMAT_31 ? HEADER_31 : HEADER_15;
    i = SONG_INFO(s->sample_count);
    s->song_length = module[i];
    s->restart = module[i + 1];
    s->orders = module + i + 2;
    s->row_bytes = (uint16_t)(s->channels * ROW_NOTE_BYTES);
    pattern_bytes = (uint32_t)s->row_bytes * PT_ROWS;
    patterns = stored_patterns(s->orders, s->song_length, header, (uint16_t)pattern_bytes, length);
    for (i = 0; i < PT_POSITIONS; i++) {
        int p = s->orders[i] < patterns ? s->orders[i] : 0;
        s->pattern[i] = module + header + mul16((uint16_t)p, (uint16_t)pattern_bytes);
    }
    load_samples(s, module + header + mul16((uint16_t)patterns, (uint16_t)pattern_bytes));
    build_periods(s);

    s->speed = DEFAULT_SPEED;
    s->bpm = DEFAULT_BPM;
    s->cia_timer = (uint16_t)udiv(CIA_TIMER_PER_BPM, DEFAULT_BPM);
    if (format == PT_FORMAT_15 && is_st(s) && s->restart && s->restart != ST_TEMPO_DEFAULT &&
        s->restart < ST_TEMPO_LIMIT) {
        s->cia_timer = (uint16_t)mul16((uint16_t)(ST_TEMPO_LIMIT - s->restart), ST_TEMPO_UNIT);
        s->bpm = (uint16_t)udiv(CIA_TIMER_PER_BPM + s->cia_timer / 2, s->cia_timer);
    }
    for (i = 0; i < PT_CHANNELS; i++) s->ch[i].index = (uint8_t)i;
    silence();
    return PT_OK;
}

void pt_stop(PtState *s) {
    (void)s;
    silence();
}

uint16_t pt_bpm(const PtState *s) { return s->bpm; }
uint16_t pt_cia_timer(const PtState *s) { return s->cia_timer; }

/* ---- song-end bookkeeping ---- */

/* A row counts as played again only if every channel's pattern-loop counter
 * is as it was the first time: the passes of a loop differ in their
 * counters, an endless loop comes back to the same ones. Rows played with
 * all counters at zero are kept in a bitmap, the others in a small hash set
 * of position, row and counters. */
static uint16_t loop_state(const PtState *s) {
    uint16_t state = 0;
    int i;
    for (i = 0; i < s->channels; i++) state = (uint16_t)(state | (s->ch[i].loop_count << (4 * i)));
    return state;
}

/* 1 if the key was in the set already (or the set is full), else adds it. */
static int seen_in_loop(PtState *s, uint32_t key) {
    uint16_t h = (uint16_t)((key ^ (key >> 11) ^ (key >> 19)) & (PT_LOOP_VISITS - 1));
    uint16_t n;
    for (n = 0; n < PT_LOOP_VISITS; n++) {
        uint32_t *slot = &s->loop_visits[(h + n) & (PT_LOOP_VISITS - 1)];
        if (*slot == key) return 1;
        if (*slot == 0) {
            *slot = key;
            return 0;
        }
    }
    return 1;
}

static int seen(PtState *s) {
    uint16_t state = loop_state(s);
    if (state) {
        uint32_t key = ((uint32_t)state << 16) | (uint16_t)((s->pos << 6) | s->row);
        return seen_in_loop(s, key);
    } else {
        uint8_t bit = (uint8_t)(1 << (s->row & 7));
        uint8_t *v = &s->visited[s->pos][s->row >> 3];
        int was = (*v & bit) != 0;
        *v |= bit;
        return was;
    }
}

static void visit(PtState *s) {
    if (!seen(s)) return;
    clear(s->visited, sizeof s->visited);
    clear(s->loop_visits, sizeof s->loop_visits);
    s->song_ends++;
    seen(s);
    if (s->song_end) s->song_end(s->song_end_ctx);
}

/* ---- Paula ---- */

static void set_period(const PtChannel *c, uint16_t p) {
    pt_hw_write((uint16_t)PT_AUD(c->index, PT_PER), p);
}

static void set_volume(const PtChannel *c, uint8_t v) {
    pt_hw_write((uint16_t)PT_AUD(c->index, PT_VOL), v);
}

static void per_nop(const PtChannel *c) {
    if (c->period) set_period(c, c->period);
}

/* Stops the channel and loads its first pass; DMA comes back on at the end
 * of the tick, together with the other channels started in it. */
static void trigger(PtState *s, PtChannel *c) {
    const int8_t *start = c->start;
    uint16_t len = c->length;
    pt_hw_write(PT_DMACON, (uint16_t)(1 << c->index));
    if (!start) return; /* an empty sample silences the channel */
    if (c->cmd == 0x9) {
        uint16_t words;
        if (c->param) c->offset = c->param;
        words = (uint16_t)(c->offset << 7);
        if (words < len) {
            start += (uint32_t)words << 1;
            len = (uint16_t)(len - words);
        } else {
            len = 1;
        }
    }
    pt_hw_location(c->index, start);
    pt_hw_write((uint16_t)PT_AUD(c->index, PT_LEN), len);
    pt_hw_write((uint16_t)PT_AUD(c->index, PT_PER), c->period);
    set_volume(c, c->volume);
    s->dma_on |= (uint16_t)(1 << c->index);
    c->requeue = 1;
}

static void start_dma(PtState *s) {
    int i;
    if (s->dma_on) {
        pt_hw_dma_wait();
        pt_hw_write(PT_DMACON, (uint16_t)(PT_DMA_SET | PT_DMA_MASTER | s->dma_on));
        pt_hw_dma_wait();
        s->dma_on = 0;
    }
    for (i = 0; i < s->channels; i++) {
        PtChannel *c = &s->ch[i];
        if (!c->requeue) continue;
        c->requeue = 0;
        if (!c->loop) continue;
        pt_hw_location(c->index, c->loop);
        pt_hw_write((uint16_t)PT_AUD(c->index, PT_LEN), c->loop_length);
    }
}

/* ---- periods ---- */

/* Index of the first table entry at or below the period (the table falls). */
static int note_index(const uint16_t *table, uint16_t period) {
    int i = 0;
    while (i < PT_NOTES - 1 && period < table[i]) i++;
    return i;
}

static void slide_period(PtChannel *c, int delta) {
    int p = c->period + delta;
    if (!c->period) return; /* nothing has played on the channel yet */
    if (p < PERIOD_MIN) p = PERIOD_MIN;
    if (p > PERIOD_MAX) p = PERIOD_MAX;
    c->period = (uint16_t)p;
    set_period(c, c->period);
}

static void set_tone_porta(PtState *s, PtChannel *c) {
    const uint16_t *t = s->periods[c->finetune];
    int i = note_index(t, c->note);
    /* Negative finetunes aim one note higher, as the tracker does. */
    if ((c->finetune & 8) && i > 0) i--;
    c->wanted = t[i];
    c->porta_up = c->wanted < c->period;
    if (c->wanted == c->period) c->wanted = 0;
}

static void tone_porta(PtState *s, PtChannel *c) {
    uint16_t out;
    if (!c->wanted) return;
    if (c->porta_up) {
        int p = c->period - c->porta_speed;
        if (p <= c->wanted) p = c->wanted, c->wanted = 0;
        c->period = (uint16_t)p;
    } else {
        int p = c->period + c->porta_speed;
        if (p >= c->wanted) p = c->wanted, c->wanted = 0;
        c->period = (uint16_t)p;
    }
    out = c->period;
    if (c->gliss) {
        const uint16_t *t = s->periods[c->finetune];
        out = t[note_index(t, out)];
    }
    set_period(c, out);
}

static void arpeggio(PtState *s, PtChannel *c) {
    const uint16_t *t = s->periods[c->finetune];
    int phase = s->counter, i, step;
    while (phase >= 3) phase -= 3;
    if (phase == 0 || !c->period) {
        per_nop(c);
        return;
    }
    step = phase == 1 ? c->param >> 4 : c->param & 0x0F;
    i = note_index(t, c->period) + step;
    set_period(c, t[i < PT_NOTES ? i : PT_NOTES - 1]);
}

/* Waveform value 0..255 at a vibrato/tremolo position: sine, ramp down or
 * square (E4x/E7x 0, 1, 2-3). The ramp's direction comes from sign_pos. */
static uint16_t wave_value(uint8_t wave, uint8_t pos, uint8_t sign_pos) {
    uint8_t i = (uint8_t)((pos >> 2) & 0x1F);
    switch (wave & 3) {
    case 0: return pt_vibrato_sine[i];
    case 1: return (sign_pos & 0x80) ? (uint16_t)(255 - (i << 3)) : (uint16_t)(i << 3);
    default: return 255;
    }
}

static uint8_t merge_nibbles(uint8_t old, uint8_t param) {
    if (param & 0x0F) old = (uint8_t)((old & 0xF0) | (param & 0x0F));
    if (param & 0xF0) old = (uint8_t)((old & 0x0F) | (param & 0xF0));
    return old;
}

static void vibrato(PtChannel *c, int take_param) {
    uint16_t delta;
    if (take_param) c->vib_cmd = merge_nibbles(c->vib_cmd, c->param);
    delta = (uint16_t)(mul16(wave_value(c->waves, c->vib_pos, c->vib_pos), c->vib_cmd & 0x0F) >> 7);
    set_period(c, (uint16_t)((c->vib_pos & 0x80) ? c->period - delta : c->period + delta));
    c->vib_pos = (uint8_t)(c->vib_pos + ((c->vib_cmd >> 2) & 0x3C));
}

static void tremolo(PtChannel *c) {
    int v;
    uint16_t delta;
    c->trem_cmd = merge_nibbles(c->trem_cmd, c->param);
    /* The tracker takes the ramp's direction from the vibrato position. */
    delta = (uint16_t)(mul16(wave_value((uint8_t)(c->waves >> 4), c->trem_pos, c->vib_pos),
                             c->trem_cmd & 0x0F) >> 6);
    v = (c->trem_pos & 0x80) ? c->volume - delta : c->volume + delta;
    if (v < 0) v = 0;
    if (v > VOLUME_MAX) v = VOLUME_MAX;
    set_volume(c, (uint8_t)v);
    c->trem_pos = (uint8_t)(c->trem_pos + ((c->trem_cmd >> 2) & 0x3C));
}

/* ---- volume ---- */

static void change_volume(PtChannel *c, int delta) {
    int v = c->volume + delta;
    if (v < 0) v = 0;
    if (v > VOLUME_MAX) v = VOLUME_MAX;
    c->volume = (uint8_t)v;
    set_volume(c, c->volume);
}

static void volume_slide(PtChannel *c) {
    if (c->param >> 4)
        change_volume(c, c->param >> 4);
    else
        change_volume(c, -(c->param & 0x0F));
}

/* ---- flow ---- */

static void position_jump(PtState *s, uint8_t param) {
    s->pos = (uint8_t)(param - 1); /* the end of the row steps it on by one */
    s->break_row = 0;
    s->jump = 1;
}

static void pattern_break(PtState *s, uint8_t param) {
    /* The row is written in decimal; beyond the pattern it means row 0. */
    int row = (param >> 4) * 10 + (param & 0x0F);
    s->break_row = (uint8_t)(is_pt(s) && row < PT_ROWS ? row : 0);
    s->jump = 1;
}

static void pattern_loop(PtState *s, PtChannel *c, uint8_t x) {
    if (!x) {
        c->loop_row = s->row;
        return;
    }
    if (c->loop_count == 0)
        c->loop_count = x;
    else if (--c->loop_count == 0)
        return;
    s->break_row = c->loop_row;
    s->loop_jump = 1;
}

static void set_speed(PtState *s, uint8_t p) {
    if (is_st(s)) p &= 0x0F;
    if (p == 0) return;
    if (p < 32) {
        s->speed = p;
    } else {
        s->bpm = p;
        s->cia_timer = (uint16_t)udiv(CIA_TIMER_PER_BPM, p);
    }
}

static void retrig(PtState *s, PtChannel *c, uint8_t x) {
    uint8_t t = s->counter;
    if (!x || (t == 0 && c->note)) return;
    while (t >= x) t = (uint8_t)(t - x);
    if (t == 0) trigger(s, c);
}

/* Exy. Those marked "first tick" act once per row; repeat is set on the
 * ticks that repeat a row for EEx. */
static void extended(PtState *s, PtChannel *c, int repeat) {
    uint8_t x = c->param & 0x0F;
    switch (c->param >> 4) {
    case 0x0: pt_hw_filter(!(x & 1)); break;
    case 0x1: if (!s->counter) slide_period(c, -x); break; /* first tick */
    case 0x2: if (!s->counter) slide_period(c, x); break;  /* first tick */
    case 0x3: c->gliss = x; break;
    case 0x4: c->waves = (uint8_t)((c->waves & 0xF0) | x); break;
    case 0x5: c->finetune = x; break;
    case 0x6: if (!s->counter && !repeat) pattern_loop(s, c, x); break;
    case 0x7: c->waves = (uint8_t)((c->waves & 0x0F) | (x << 4)); break;
    case 0x9: retrig(s, c, x); break;
    case 0xA: if (!s->counter) change_volume(c, x); break;  /* first tick */
    case 0xB: if (!s->counter) change_volume(c, -x); break; /* first tick */
    case 0xC:
        if (s->counter == x) {
            c->volume = 0;
            set_volume(c, 0);
        }
        break;
    case 0xD: if (s->counter == x && c->note) trigger(s, c); break;
    case 0xE: if (!s->counter && !s->delay_left) s->delay = (uint8_t)(x + 1); break;
    default: break; /* E8x unused; EFx invert loop: not done */
    }
}

/* Effects of the ticks after the first (and of a repeated row's first). */
static void tick_effects(PtState *s, PtChannel *c, int repeat) {
    if (c->cmd == 0 && c->param == 0) {
        per_nop(c);
        return;
    }
    switch (c->cmd) {
    case 0x0: arpeggio(s, c); break;
    case 0x1: slide_period(c, -c->param); break;
    case 0x2: slide_period(c, c->param); break;
    case 0x3:
        if (c->param) c->porta_speed = c->param;
        tone_porta(s, c);
        break;
    case 0x4: vibrato(c, 1); break;
    case 0x5:
        tone_porta(s, c);
        volume_slide(c);
        break;
    case 0x6:
        vibrato(c, 0);
        volume_slide(c);
        break;
    case 0xE: extended(s, c, repeat); break;
    default:
        per_nop(c);
        if (c->cmd == 0x7) tremolo(c);
        if (c->cmd == 0xA) volume_slide(c);
        break;
    }
}

/* Effects of a row's first tick. */
static void row_effects(PtState *s, PtChannel *c) {
    switch (c->cmd) {
    case 0x9:
        if (c->param) c->offset = c->param;
        break;
    case 0xB: position_jump(s, c->param); break;
    case 0xD: pattern_break(s, c->param); break;
    case 0xE: extended(s, c, 0); break;
    case 0xF: set_speed(s, c->param); break;
    case 0xC:
        c->volume = c->param > VOLUME_MAX ? VOLUME_MAX : c->param;
        set_volume(c, c->volume);
        break;
    default: per_nop(c); break;
    }
}

static void load_sample(PtChannel *c, const PtSample *smp) {
    c->start = smp->start;
    c->loop = smp->loop;
    c->length = smp->length;
    c->loop_length = smp->loop_length;
    c->finetune = smp->finetune;
    c->volume = smp->volume;
    /* Without a new note the running sound moves on to this sample's loop
     * at its next wrap: the tracker's instrument swap. */
    c->requeue = c->loop != 0;
}

static void play_voice(PtState *s, PtChannel *c, const uint8_t *n) {
    uint16_t note = (uint16_t)(((n[0] & 0x0F) << 8) | n[1]);
    uint8_t smp = (uint8_t)((n[0] & 0xF0) | (n[2] >> 4));
    uint8_t cmd = n[2] & 0x0F, param = n[3];
    int triggered = 0;
    if (cmd == 0xE && (param >> 4) && !is_pt(s)) cmd = param = 0; /* only E0x before ProTracker */
    if (c->cmd == 0x7 && cmd != 0x7) set_volume(c, c->volume);
    c->note = note;
    c->cmd = cmd;
    c->param = param;
    if (smp && smp <= s->sample_count) load_sample(c, &s->samples[smp - 1]);
    if (note) {
        if (cmd == 0xE && (param >> 4) == 0x5) c->finetune = param & 0x0F;
        if ((cmd == 0x3 || cmd == 0x5) && c->period) {
            set_tone_porta(s, c);
        } else {
            c->period = s->periods[c->finetune][note_index(pt_note_periods, note)];
            if (!(c->waves & 0x04)) c->vib_pos = 0;
            if (!(c->waves & 0x40)) c->trem_pos = 0;
            if (!(cmd == 0xE && (param >> 4) == 0xD)) {
                trigger(s, c);
                triggered = 1;
            }
        }
    }
    if (smp && !triggered) set_volume(c, c->volume);
    row_effects(s, c);
}

static void new_row(PtState *s) {
    const uint8_t *n = s->pattern[s->pos] + (uint16_t)(s->row * s->row_bytes);
    int i;
    for (i = 0; i < s->channels; i++) play_voice(s, &s->ch[i], n + i * ROW_NOTE_BYTES);
}

static void next_position(PtState *s) {
    s->row = s->break_row;
    s->break_row = 0;
    s->jump = 0;
    s->pos = (uint8_t)((s->pos + 1) & (PT_POSITIONS - 1));
    if (s->pos >= s->song_length)
        s->pos = (uint8_t)(!is_pt(s) && s->restart < s->song_length ? s->restart : 0);
}

/* After a row's first tick: where the next row comes from. */
static void advance(PtState *s) {
    s->row++;
    s->repeating = 0;
    if (s->delay) {
        s->delay_left = s->delay;
        s->delay = 0;
    }
    if (s->delay_left && --s->delay_left) {
        s->row--;
        s->repeating = 1;
    }
    if (s->loop_jump) {
        s->loop_jump = 0;
        s->row = s->break_row;
        s->break_row = 0;
        s->repeating = 0;
    }
    if (s->row >= PT_ROWS) next_position(s), s->repeating = 0;
    if (s->jump) next_position(s), s->repeating = 0;
}

void pt_tick(PtState *s) {
    int i;
    if (s->counter == 0) {
        /* A row repeated for EEx, and the row after a jump taken during a
         * delay, read no notes: the channels go on with their effects. */
        if (!s->repeating && !s->delay_left) {
            visit(s);
            new_row(s);
        } else {
            for (i = 0; i < s->channels; i++) tick_effects(s, &s->ch[i], 1);
        }
        advance(s);
    } else {
        for (i = 0; i < s->channels; i++) tick_effects(s, &s->ch[i], 0);
    }
    start_dma(s);
    if (++s->counter >= s->speed) s->counter = 0;
}
