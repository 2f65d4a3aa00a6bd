// 68000/68020 disassembler for diagnostics and traces. Reads memory only
// through the bus and never changes machine state.
#pragma once

#include <cstdint>

struct Machine;

// Decode the instruction at address into text (at least 96 bytes);
// returns its length in bytes.
uint32_t disasm_one(Machine& m, uint32_t address, char* text);
void da_emit(char* text, const char* mnemonic, const char* operand1, const char* operand2);
void da_ea(Machine& m, uint32_t& address, int mode, int reg, int size, char* text);
void da_index(Machine& m, uint32_t& address, const char* base_text, char* text);
void disasm_print(Machine& m, uint32_t address, uint32_t count);
void trace_print_step(Machine& m);
void dump_state(const Machine& m, const char* label);
