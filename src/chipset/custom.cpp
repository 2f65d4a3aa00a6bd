// Custom-chip registers at $DFF000-$DFF1FF, reduced to what a music player
// touches: DMA control, interrupt enable/request, ADKCON, a beam counter that
// merely moves, and Paula's four audio channels. Copper, blitter, video, disk
// and serial registers read 0 and ignore writes.
#include "chipset/custom.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "machine.h"

uint8_t custom_trace = 0;

namespace {

constexpr uint16_t SETCLR = 0x8000;     // set/clear registers: 1 = set the bits, 0 = clear them
constexpr uint16_t DMAF_MASTER = 0x0200;  // DMAEN: no DMA channel runs without it
constexpr uint16_t INTF_AUD0 = 0x0080;  // AUD0-AUD3 requests are bits 7-10 of INTREQ/INTENA
// Players that start DMA and then wait for the audio requests (the moment
// Paula has latched the block) would wait forever: emulated code runs between
// audio frames with no time passing. While DMA is on they read as set.
constexpr uint16_t INTREQR_AUDIO_WHILE_DMA = 0x0780;

constexpr uint32_t AUD_BLOCK_BYTES_MAX = 131072;  // AUDxLEN = 0 means 65536 words
constexpr uint16_t AUD_PERIOD_MIN = 113;          // shortest period the DMA slots allow
constexpr uint32_t AUD_VOLUME_MAX = 64;           // bit 6 set = full volume, bits 0-5 ignored
constexpr double COLOUR_CLOCK = PAULA_CLOCK_PAL;

// The fake beam: 313 lines of 227 colour clocks, a PAL frame.
constexpr uint32_t BEAM_LINES = 313;
constexpr uint32_t BEAM_CLOCKS = 227;

void set_clear(uint16_t& reg, uint16_t value) {
    if (value & SETCLR) reg = uint16_t(reg | (value & ~SETCLR));
    else reg = uint16_t(reg & ~value);
}

bool dma_enabled(uint16_t dmacon, int c) {
    return (dmacon & DMAF_MASTER) && (dmacon & (1u << c));
}

uint32_t block_bytes(const Machine& m, int c) {
    return m.aud_len[c] ? 2u * m.aud_len[c] : AUD_BLOCK_BYTES_MAX;
}

const uint8_t* block_start(const Machine& m, int c) {
    return m.chip_ram + (m.aud_lc[c] & 0xFFFFFF);
}

uint64_t period_16_16(uint16_t per) {
    if (per == 0) return 0;
    return uint64_t(std::max(per, AUD_PERIOD_MIN)) << 16;
}

// The block is fetched at once; the first byte sounds from the first tick.
void begin_block(PaulaChannel& ch, const uint8_t* block, uint32_t bytes, uint32_t pos) {
    ch.ptr = block;
    ch.len = bytes;
    ch.pos = pos;
    ch.reload_pending = 0;
    ch.next_ptr = nullptr;
    ch.phase = 0;
    ch.active = 1;
    ch.sample = int8_t(block[pos]);
}

void channel_start(Machine& m, int c) {
    PaulaChannel& ch = m.paula.ch[c];
    uint32_t bytes = block_bytes(m, c);
    begin_block(ch, block_start(m, c), bytes, ch.backwards ? bytes - 1 : 0);
    ch.loop_start = 0;
    ch.loop_len = bytes;
    m.aud_queued[c] = 0;
    m.aud_was_active[c] = 1;
    m.aud_dma_on[c] = 1;
    ch.period = period_16_16(m.aud_per[c]);
    ch.volume = uint16_t(std::min<uint32_t>(m.aud_vol[c], AUD_VOLUME_MAX));
    // Frames one pass through the block lasts: the playback engine raises
    // the channel's interrupt when it runs out.
    double per = m.aud_per[c] ? m.aud_per[c] : 1;
    double t = per * bytes / COLOUR_CLOCK * m.custom_frame_rate;
    m.aud_irq_countdown[c] = t > 0.0 ? t : 1.0;
}

void channel_stop(Machine& m, int c) {
    m.paula.ch[c].active = 0;
    m.aud_dma_on[c] = m.aud_was_active[c] = m.aud_queued[c] = 0;
    m.aud_irq_countdown[c] = 0;
}

void write_dmacon(Machine& m, uint16_t value) {
    uint16_t old = m.dmacon;
    set_clear(m.dmacon, value);
    if (custom_trace && m.dmacon != old)
        std::fprintf(stderr, "[trace] pc=%08x DMACON %04x -> %04x\n", m.pc, old, m.dmacon);
    for (int c = 0; c < 4; c++) {
        bool was_on = dma_enabled(old, c), is_on = dma_enabled(m.dmacon, c);
        if (!was_on && is_on) channel_start(m, c);
        else if (was_on && !is_on) channel_stop(m, c);
    }
}

void write_lch(Machine& m, int c, uint16_t value) {
    m.aud_lc[c] = (m.aud_lc[c] & 0x0000FFFF) | uint32_t(value) << 16;
}

// LCL and LEN land in the latches; a running channel takes them over at its
// next block start, as the hardware reloads its pointers only then.
void write_lcl(Machine& m, int c, uint16_t value) {
    uint32_t old = m.aud_lc[c];
    m.aud_lc[c] = (m.aud_lc[c] & 0xFFFF0000) | value;
    if (custom_trace && m.aud_lc[c] != old)
        std::fprintf(stderr, "[trace] pc=%08x AUD%uLC = %08x\n", m.pc, unsigned(c), m.aud_lc[c]);
    if (dma_enabled(m.dmacon, c)) channel_queue(m, c);
}

void write_len(Machine& m, int c, uint16_t value) {
    if (custom_trace && m.aud_len[c] != value)
        std::fprintf(stderr, "[trace] pc=%08x AUD%uLEN = %u\n", m.pc, unsigned(c), unsigned(value));
    m.aud_len[c] = value;
    if (dma_enabled(m.dmacon, c)) channel_queue(m, c);
}

void write_per(Machine& m, int c, uint16_t value) {
    if (custom_trace && m.aud_per[c] != value)
        std::fprintf(stderr, "[trace] pc=%08x AUD%uPER = %u\n", m.pc, unsigned(c), unsigned(value));
    m.aud_per[c] = value;
    m.paula.ch[c].period = period_16_16(value);
}

void write_vol(Machine& m, int c, uint16_t value) {
    uint8_t v = value & 0x7F;
    if (custom_trace && m.aud_vol[c] != v)
        std::fprintf(stderr, "[trace] pc=%08x AUD%uVOL = %u\n", m.pc, unsigned(c), unsigned(v));
    m.aud_vol[c] = v;
    m.paula.ch[c].volume = uint16_t(std::min<uint32_t>(v, AUD_VOLUME_MAX));
}

}  // namespace

void custom_write_word(Machine& m, uint32_t address, uint16_t value) {
    switch (address & 0x1FF) {
    case 0x096: write_dmacon(m, value); break;       // DMACON
    case 0x09A: set_clear(m.intena, value); break;   // INTENA
    case 0x09C: set_clear(m.intreq, value); break;   // INTREQ
    case 0x09E: set_clear(m.adkcon, value); break;   // ADKCON
    case 0x0A0: write_lch(m, 0, value); break;       // AUD0LCH
    case 0x0A2: write_lcl(m, 0, value); break;       // AUD0LCL
    case 0x0A4: write_len(m, 0, value); break;       // AUD0LEN
    case 0x0A6: write_per(m, 0, value); break;       // AUD0PER
    case 0x0A8: write_vol(m, 0, value); break;       // AUD0VOL
    case 0x0B0: write_lch(m, 1, value); break;       // AUD1LCH
    case 0x0B2: write_lcl(m, 1, value); break;       // AUD1LCL
    case 0x0B4: write_len(m, 1, value); break;       // AUD1LEN
    case 0x0B6: write_per(m, 1, value); break;       // AUD1PER
    case 0x0B8: write_vol(m, 1, value); break;       // AUD1VOL
    case 0x0C0: write_lch(m, 2, value); break;       // AUD2LCH
    case 0x0C2: write_lcl(m, 2, value); break;       // AUD2LCL
    case 0x0C4: write_len(m, 2, value); break;       // AUD2LEN
    case 0x0C6: write_per(m, 2, value); break;       // AUD2PER
    case 0x0C8: write_vol(m, 2, value); break;       // AUD2VOL
    case 0x0D0: write_lch(m, 3, value); break;       // AUD3LCH
    case 0x0D2: write_lcl(m, 3, value); break;       // AUD3LCL
    case 0x0D4: write_len(m, 3, value); break;       // AUD3LEN
    case 0x0D6: write_per(m, 3, value); break;       // AUD3PER
    case 0x0D8: write_vol(m, 3, value); break;       // AUD3VOL
    default: break;  // AUDxDAT, odd addresses and the chips not emulated
    }
}

uint16_t custom_read_word(Machine& m, uint32_t address) {
    switch (address & 0x1FF) {
    case 0x002: return m.dmacon;                     // DMACONR
    case 0x004: return uint16_t((m.beam_v >> 8) & 1);  // VPOSR: only V8
    case 0x006: {  // VHPOSR: the beam moves on with every read, so wait loops end
        uint16_t v = uint16_t(m.beam_v << 8 | (m.beam_h & 0xFF));
        m.beam_v = (m.beam_v + 1) % BEAM_LINES;
        m.beam_h = (m.beam_h + 1) % BEAM_CLOCKS;
        return v;
    }
    case 0x010: return m.adkcon;  // ADKCONR
    case 0x01C: return m.intena;  // INTENAR
    case 0x01E:                   // INTREQR
        return uint16_t(m.intreq | ((m.dmacon & DMAF_MASTER) ? INTREQR_AUDIO_WHILE_DMA : 0));
    default: return 0;
    }
}

void channel_queue(Machine& m, int c) {
    if (c < 0 || c > 3) return;
    PaulaChannel& ch = m.paula.ch[c];
    uint32_t bytes = block_bytes(m, c);
    const uint8_t* block = block_start(m, c);
    if (ch.active) {
        ch.next_ptr = block;
        ch.next_pos = 0;
        ch.next_len = bytes;
        ch.reload_pending = 1;
    } else {
        begin_block(ch, block, bytes, 0);  // ran dry: the new block starts at once
    }
    ch.loop_start = 0;
    ch.loop_len = bytes;
    m.aud_queued[c] = 1;
}

void custom_check_wraps(Machine& m) {
    uint16_t raised = 0;
    for (int c = 0; c < 4; c++) {
        const PaulaChannel& ch = m.paula.ch[c];
        uint16_t bit = uint16_t(INTF_AUD0 << c);
        // The mixer has taken the queued block over: on the hardware the
        // request comes when the DMA engine reloads its pointers.
        if (m.aud_queued[c] && !ch.reload_pending) {
            m.aud_queued[c] = 0;
            raised |= bit;
        }
        if (ch.active) {
            m.aud_was_active[c] = 1;
        } else if (m.aud_was_active[c]) {  // ran off the end of a block without loop
            m.aud_was_active[c] = 0;
            raised |= bit;
        }
    }
    m.intreq |= raised;
}

void custom_paula_init(Machine& m) {
    m.paula = PaulaState{};
    m.paula.mix_rate = OUTPUT_RATE;
    m.paula.paula_clock = PAULA_CLOCK_PAL;
    m.paula.frames_per_vblank = OUTPUT_RATE / 50;  // PAL vertical blank
    m.paula.a1200_filter = m.model == 1;
    paula_recalc(m.paula);
    m.paula.led_on = 1;

    m.custom_frame_rate = OUTPUT_RATE;
    m.dmacon = m.intreq = m.intena = m.adkcon = 0;
    m.beam_v = m.beam_h = 0;
    std::memset(m.aud_lc, 0, sizeof m.aud_lc);
    std::memset(m.aud_len, 0, sizeof m.aud_len);
    std::memset(m.aud_per, 0, sizeof m.aud_per);
    std::memset(m.aud_vol, 0, sizeof m.aud_vol);
    std::memset(m.aud_dma_on, 0, sizeof m.aud_dma_on);
    std::memset(m.aud_was_active, 0, sizeof m.aud_was_active);
    std::memset(m.aud_queued, 0, sizeof m.aud_queued);
    for (double& t : m.aud_irq_countdown) t = 0.0;
}
