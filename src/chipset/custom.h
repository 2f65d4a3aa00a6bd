// Custom-chip registers at $DFF000-$DFF1FF, reduced to what music players
// touch: DMACON, INTENA, INTREQ, ADKCON, the beam counter and Paula's
// four audio channels.
#pragma once

#include <cstdint>

struct Machine;

// Register-write trace for the `trace` command (process-wide).
extern uint8_t custom_trace;

// Register access from the bus; the register is address & $1FF. A byte write
// arrives as a word with the byte in both halves.
void custom_write_word(Machine& m, uint32_t address, uint16_t value);
uint16_t custom_read_word(Machine& m, uint32_t address);
// Re-latches location and length of a channel whose DMA is on: a playing
// channel takes the block over at its next wrap, one that ran out restarts.
void channel_queue(Machine& m, int channel);
// After mixing: raises the AUDx requests in INTREQ for queued blocks the
// mixer has taken over and for channels that have just fallen silent.
void custom_check_wraps(Machine& m);
// Reset of the register file, the four channels and the mixer.
void custom_paula_init(Machine& m);
