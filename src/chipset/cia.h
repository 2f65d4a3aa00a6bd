// The two 8520 CIAs: timers counted in audio frames, ports, ICR, time of day.
#pragma once

#include <cstdint>

struct Machine;

struct CiaTimer {
    uint16_t latch;
    uint8_t control;   // CRA/CRB as written, LOAD strobe removed
    uint8_t running;
    uint8_t one_shot;
    double period;     // frames per underflow
    double remaining;  // frames until the next underflow
};

struct Cia {
    CiaTimer timer[2];  // A, B
    uint8_t icr_mask;
    uint8_t icr_data;
    uint8_t pra, prb, ddra, ddrb;
    uint32_t tod;
    uint32_t handler[2];  // emulated routine per timer underflow, 0 = none
};

constexpr double CIA_ECLOCK_PAL = 709379.0;  // E clock = colour clock / 5

void cia_init(Machine& m);
void cia_write(Machine& m, uint32_t address, uint8_t value);
// Register read, decoded for the bus (port bytes, timers in E-clock ticks,
// TOD with advance on register 8, ICR read-and-clear).
uint8_t cia_read(Machine& m, uint32_t address);
// Whole frames until the earliest running timer underflows (at least 1, a
// fraction rounded up); -1 = no timer runs, no limit.
int64_t cia_frames_to_next_event(const Machine& m);
// Count the running timers down by `frames` (>= 1) and raise their
// underflows in icr_data. For each underflow of a timer whose ICR mask bit is
// set and which has a handler, the handler address is appended to
// cia_pending (emptied first; at most 8, further ones are dropped), once per
// period elapsed for continuous timers; a one-shot timer stops at its first.
//
// This only queues: running the handlers takes the routine runner, so the
// playback engine runs cia_pending[0..cia_pending_count) in order through
// deli_run_handler right after this call.
void cia_advance(Machine& m, uint32_t frames);
