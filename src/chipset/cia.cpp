// The two 8520 CIAs. CIA-A answers at $BFExxx (odd bytes on the real bus),
// CIA-B at $BFDxxx; address bits 8-11 pick one of sixteen registers and the
// low byte is not decoded. Timers count in audio frames: a latch is turned
// into a period in output frames when it is written, and the render loop
// counts the frames it has mixed down from it.
#include "chipset/cia.h"

#include <cmath>

#include "machine.h"

namespace {

Cia& cia_for(Machine& m, uint32_t address) {
    return m.cia[((address & 0xF000) == 0xE000) ? 0 : 1];
}

double timer_period(const Machine& m, const CiaTimer& t) {
    // +1: the hardware counter spends one E-clock tick in state zero.
    double p = (double(t.latch) + 1.0) * m.cia_frame_rate / CIA_ECLOCK_PAL;
    return p < 1.0 ? 1.0 : p;
}

// Remaining frames back in E-clock ticks, as a program reading TxLO/TxHI sees them.
uint32_t timer_ticks(const Machine& m, const CiaTimer& t) {
    double ticks = CIA_ECLOCK_PAL * t.remaining / m.cia_frame_rate;
    return ticks > 0.0 ? uint32_t(ticks) : 0;
}

void write_latch_high(Machine& m, CiaTimer& t, uint8_t value) {
    t.latch = uint16_t((t.latch & 0x00FF) | value << 8);
    t.period = timer_period(m, t);
    if (!t.running) {
        t.remaining = t.period;
        if (t.one_shot) t.running = 1;  // one-shot timers start on a high-byte write
    }
}

void write_control(Machine& m, CiaTimer& t, uint8_t value) {
    t.control = value & ~0x10;  // LOAD is a strobe, never stored
    uint8_t was_running = t.running;
    t.running = value & 0x01;
    t.one_shot = (value >> 3) & 1;
    t.period = timer_period(m, t);
    if ((value & 0x10) || (!was_running && t.running)) t.remaining = t.period;
}

}  // namespace

void cia_init(Machine& m) {
    m.cia_frame_rate = int32_t(OUTPUT_RATE);
    m.cia_pending_count = 0;
    for (Cia& c : m.cia) {
        c = Cia{};
        for (CiaTimer& t : c.timer) t.period = t.remaining = 1.0;
        c.pra = c.prb = 0xFF;
    }
}

void cia_write(Machine& m, uint32_t address, uint8_t value) {
    Cia& c = cia_for(m, address);
    switch ((address >> 8) & 0xF) {
    case 0x0:  // PRA
        c.pra = value;
        // CIA-A port A bit 1 drives the power LED and, with it, the audio
        // low-pass filter; the line is active low.
        if (&c == &m.cia[0] && m.led_filter == 0) m.paula.led_on = (value & 0x02) ? 0 : 1;
        break;
    case 0x1: c.prb = value; break;    // PRB
    case 0x2: c.ddra = value; break;   // DDRA
    case 0x3: c.ddrb = value; break;   // DDRB
    case 0x4: c.timer[0].latch = uint16_t((c.timer[0].latch & 0xFF00) | value); break;  // TALO
    case 0x5: write_latch_high(m, c.timer[0], value); break;                              // TAHI
    case 0x6: c.timer[1].latch = uint16_t((c.timer[1].latch & 0xFF00) | value); break;  // TBLO
    case 0x7: write_latch_high(m, c.timer[1], value); break;                              // TBHI
    case 0xD:  // ICR: bit 7 says set or clear
        if (value & 0x80) c.icr_mask |= value & 0x1F;
        else c.icr_mask &= ~(value & 0x1F);
        break;
    case 0xE: write_control(m, c.timer[0], value); break;  // CRA
    case 0xF: write_control(m, c.timer[1], value); break;  // CRB
    default: break;  // TOD and SDR writes are ignored
    }
}

uint8_t cia_read(Machine& m, uint32_t address) {
    Cia& c = cia_for(m, address);
    switch ((address >> 8) & 0xF) {
    case 0x0: return c.pra;   // PRA
    case 0x1: return c.prb;   // PRB
    case 0x2: return c.ddra;  // DDRA
    case 0x3: return c.ddrb;  // DDRB
    case 0x4: return uint8_t(timer_ticks(m, c.timer[0]));       // TALO
    case 0x5: return uint8_t(timer_ticks(m, c.timer[0]) >> 8);  // TAHI
    case 0x6: return uint8_t(timer_ticks(m, c.timer[1]));       // TBLO
    case 0x7: return uint8_t(timer_ticks(m, c.timer[1]) >> 8);  // TBHI
    case 0x8: {  // TOD low: every read moves the counter on
        uint8_t v = uint8_t(c.tod);
        c.tod = (c.tod + 1) & 0xFFFFFF;
        return v;
    }
    case 0x9: return uint8_t(c.tod >> 8);   // TOD mid
    case 0xA: return uint8_t(c.tod >> 16);  // TOD high
    case 0xD: {  // ICR: pending bits, bit 7 if any is enabled; reading clears
        uint8_t v = c.icr_data;
        if (c.icr_data & c.icr_mask) v |= 0x80;
        c.icr_data = 0;
        return v;
    }
    case 0xE: return c.timer[0].control;  // CRA
    case 0xF: return c.timer[1].control;  // CRB
    default: return 0;                    // $B, $C: SDR and unused
    }
}

int64_t cia_frames_to_next_event(const Machine& m) {
    bool any = false;
    double next = 0.0;
    for (const Cia& c : m.cia)
        for (const CiaTimer& t : c.timer) {
            if (!t.running) continue;
            if (!any || next < 0.0 || t.remaining < next) next = t.remaining;
            any = true;
        }
    if (!any || next < 0.0) return -1;
    if (next <= 1.0) return 1;
    return int64_t(next + 0.999999);  // the underflow falls inside that frame
}

namespace {

constexpr uint32_t PENDING_MAX = sizeof(Machine::cia_pending) / sizeof(uint32_t);

// One underflow: the ICR bit is raised whatever the mask says; the handler
// runs only if the bit is enabled.
void underflow(Machine& m, Cia& c, int which) {
    uint8_t bit = uint8_t(1 << which);
    c.icr_data |= bit;
    if ((c.icr_mask & bit) && c.handler[which] && m.cia_pending_count < PENDING_MAX)
        m.cia_pending[m.cia_pending_count++] = c.handler[which];
}

bool would_queue(const Machine& m, const Cia& c, int which) {
    return (c.icr_mask & (1 << which)) && c.handler[which] && m.cia_pending_count < PENDING_MAX;
}

void advance_timer(Machine& m, Cia& c, int which, uint32_t frames) {
    CiaTimer& t = c.timer[which];
    if (!t.running) return;
    t.remaining -= frames;
    if (t.remaining > 0.0) return;
    underflow(m, c, which);
    if (t.one_shot) {
        t.control &= ~0x01;  // START drops by itself
        t.running = 0;
        t.remaining = t.period;
        return;
    }
    // Continuous: reload from the latch once per period elapsed. Once nothing
    // more can be queued, the rest of a very long step is skipped in one go.
    t.remaining += t.period;
    while (t.remaining <= 0.0 && would_queue(m, c, which)) {
        underflow(m, c, which);
        t.remaining += t.period;
    }
    if (t.remaining <= 0.0) {
        t.remaining += std::ceil(-t.remaining / t.period) * t.period;
        if (t.remaining <= 0.0) t.remaining += t.period;
    }
}

}  // namespace

void cia_advance(Machine& m, uint32_t frames) {
    m.cia_pending_count = 0;
    for (Cia& c : m.cia)
        for (int which = 0; which < 2; which++) advance_timer(m, c, which, frames);
}
