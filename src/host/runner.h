// Calls player routines like subroutines: registers set up, a return address
// pointing at a sentinel, single steps until the routine returns, with guards
// against runaway code (code regions, bus faults, an instruction budget).
#pragma once

#include <cstdint>

struct Machine;

constexpr uint32_t RUNNER_SENTINEL = 0x00EFFFF0;
constexpr uint32_t RUNNER_STACK_TOP = 0x00EEFFFC;
constexpr uint32_t RUNNER_BUDGET = 50000000;
constexpr uint32_t RUN_FAILED = 0xFFFFFFFF;        // fault or budget exhausted
constexpr uint32_t RUN_OUT_OF_RANGE = 0xFFFFFFFE;  // PC left the code regions

uint32_t deli_call(Machine& m, uint32_t routine);
uint32_t deli_run_handler(Machine& m, uint32_t node);
// Runs the interrupt-server nodes that cia_advance queued, in queue order,
// and empties the queue.
void cia_run_pending(Machine& m);

// Process-wide trace settings (set by trace-pc).
extern uint32_t trace_break_pc;
extern bool trace_break_hit;
extern bool trace_log;
extern uint32_t trace_lo, trace_hi;
extern uint64_t trace_log_max;
extern uint64_t trace_logged;
