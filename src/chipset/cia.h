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
// Whole frames until the earliest running timer underflows; -1 = no limit.
int64_t cia_frames_to_next_event(const Machine& m);
// Count the running timers down by n frames and queue the handlers of those
// that underflowed (into cia_pending). Running them is the caller's job.
void cia_advance(Machine& m, uint32_t frames);
