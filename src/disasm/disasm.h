// 68000/68020 disassembler for diagnostics and traces. Reads memory only
// through the bus and never changes machine state.
#pragma once

#include <cstdint>

struct Machine;

// Size suffixes by the two-bit size field, and condition names by the
// four-bit condition field.
extern const char* const da_size_sfx[3];
extern const char* const da_cc[16];

// Decode the instruction at address into text (at least 96 bytes);
// returns its length in bytes.
uint32_t disasm_one(Machine& m, uint32_t address, char* text);
// One line: the mnemonic alone, or padded to seven columns and followed by
// one or two operands (either may be null).
void da_emit(char* text, const char* mnemonic, const char* operand1, const char* operand2);
// One effective address (mode and register fields as in the opcode; size
// 0/1/2 = byte/word/long sets the width of an immediate) into text (at least
// 64 bytes); consumes its extension words by advancing address.
void da_ea(Machine& m, uint32_t& address, int mode, int reg, int size, char* text);
// An indexed operand from the brief or full extension word at address;
// base_text is "a0".."a7" or "pc".
void da_index(Machine& m, uint32_t& address, const char* base_text, char* text);
void disasm_print(Machine& m, uint32_t address, uint32_t count);
void trace_print_step(Machine& m);
void dump_state(const Machine& m, const char* label);

// Opcode words that more than one decoding pattern claims; 0 when the
// decoding table is sound.
uint32_t da_table_overlaps();
