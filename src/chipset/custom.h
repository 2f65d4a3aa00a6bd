// Custom-chip registers at $DFF000-$DFF1FF, reduced to what music players
// touch: DMACON, INTENA, INTREQ, ADKCON, the beam counter and Paula's
// four audio channels.
#pragma once

#include <cstdint>

struct Machine;

// Register-write trace for the `trace` command (process-wide).
extern uint8_t custom_trace;

void custom_write_word(Machine& m, uint32_t address, uint16_t value);
uint16_t custom_read_word(Machine& m, uint32_t address);
void channel_queue(Machine& m, int channel);
void custom_check_wraps(Machine& m);
void custom_paula_init(Machine& m);
