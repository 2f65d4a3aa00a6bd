/* Quartet's replay: the four channels loop short waveforms (sine, triangle,
   saw, square) for the whole song. The melody is the module's text after
   the "4VOX" tag, one byte per voice and row, six ticks to a row; every tick
   moves each period (a vibrato) and each volume (a decay), so all four
   channels change 50 times a second. Channel 2 goes through DeliTracker's
   PokePer, the others straight to Paula. */
#include "deliplayer.h"

void poke_per(const void* base, u32 channel, u32 period);

enum { SPEED = 6, WAVE_BYTES = 32 };

/* Two octaves from C (ProTracker periods). */
static const u16 periods[24] = {856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453,
                                428, 404, 381, 360, 340, 320, 302, 285, 269, 254, 240, 226};
static const signed char sine[WAVE_BYTES] = {
    0,  20,  38,  56,  71,  83,  92,  98,  100,  98,  92,  83,  71,  56,  38,  20,
    0, -20, -38, -56, -71, -83, -92, -98, -100, -98, -92, -83, -71, -56, -38, -20};
static const signed char vibrato[8] = {0, 3, 5, 3, 0, -3, -5, -3};

static signed char waves[4][WAVE_BYTES];
static const u8* score;
static u32 score_len, row, tick;
static u16 note_period[4];

int quartet_check(const void* base) {
    const u8* m = (const u8*)db_long(base, DB_MODULE);
    u32 len = db_long(base, DB_MODULELEN);
    return len > 4 && m[0] == '4' && m[1] == 'V' && m[2] == 'O' && m[3] == 'X' ? 0 : -1;
}

void quartet_init(const void* base) {
    u32 c, i;
    score = (const u8*)db_long(base, DB_MODULE) + 4;
    score_len = db_long(base, DB_MODULELEN) - 4;
    row = tick = 0;
    for (i = 0; i < WAVE_BYTES; i++) {
        waves[0][i] = sine[i];
        waves[1][i] = (signed char)(i < 16 ? -96 + 12 * (int)i : 288 - 12 * (int)i);
        waves[2][i] = (signed char)(-96 + 6 * (int)i);
        waves[3][i] = i < 16 ? 64 : -64;
    }
    /* The channels start when the DMA master switch goes on (AllocAudio). */
    DMACON_REG = 0x000F;
    for (c = 0; c < 4; c++) {
        u32 a = (u32)waves[c];
        AUD_REG(c, AUD_LCH) = (u16)(a >> 16);
        AUD_REG(c, AUD_LCL) = (u16)a;
        AUD_REG(c, AUD_LEN) = WAVE_BYTES / 2;
        AUD_REG(c, AUD_PER) = 428;
        AUD_REG(c, AUD_VOL) = 0;
    }
    DMACON_REG = 0x800F;
}

void quartet_tick(const void* base) {
    u32 c;
    if (tick == 0) {
        for (c = 0; c < 4; c++) {
            u16 p = periods[score[(row + 5 * c) % score_len] % 24];
            note_period[c] = c == 0 ? p * 2 : c == 3 ? p / 2 : p;
        }
        row++;
    }
    for (c = 0; c < 4; c++) {
        u32 period = (u32)(note_period[c] + vibrato[(tick + 2 * c) & 7]);
        if (c == 2) poke_per(base, c, period);
        else AUD_REG(c, AUD_PER) = (u16)period;
        AUD_REG(c, AUD_VOL) = (u16)(64 - 4 * tick - (c ? 8 : 0));
    }
    if (++tick == SPEED) tick = 0;
}
