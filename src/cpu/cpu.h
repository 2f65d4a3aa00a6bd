// The 68000 core (with the few 68010/68020 additions players use): reset,
// single step, exception processing, condition codes, flag helpers and the
// effective-address helpers shared by the instruction handlers.
#pragma once

#include <cstdint>

#include "cpu/bus.h"
#include "machine.h"

using OpHandler = void (*)(Machine& m, uint16_t opcode);

// One handler per first opcode word, filled once before any emulation.
extern OpHandler op_table[65536];

// Fill op_table completely (every slot gets a handler).
void op_table_fill();

// What the last op_table_fill found: slots left at op_illegal, slots that a
// registration took over from another family (none are intended), and the
// number of distinct handlers entered.
struct OpTableStats {
    unsigned illegal_slots;
    unsigned overwritten_slots;
    unsigned handlers;
};
OpTableStats op_table_stats();

// Name of the handler op_table holds for an opcode, e.g. "op_move_w_dn_an".
const char* op_name(uint16_t opcode);

void cpu_reset(Machine& m);

inline void step(Machine& m) {
    uint16_t op = fetch16(m);
    op_table[op](m, op);
}

uint32_t exception(Machine& m, int vector);
int test_cc(const Machine& m, unsigned cc);

// Write SR as the privileged instructions do (mask $F71F, swap stacks on an
// S change).
void cpu_set_sr(Machine& m, uint16_t value);

// Status register bits.
constexpr uint16_t SR_C = 0x0001, SR_V = 0x0002, SR_Z = 0x0004, SR_N = 0x0008, SR_X = 0x0010;
constexpr uint16_t SR_S = 0x2000;

void set_add_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result);
void set_add_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result);
void set_sub_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result);
void set_sub_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result);
void set_cmp_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result);
void set_cmp_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result);

// Immediate operands; a byte takes the low half of its extension word.
inline uint8_t fetch_imm_b(Machine& m) { return uint8_t(fetch16(m)); }
inline uint16_t fetch_imm_w(Machine& m) { return fetch16(m); }
inline uint32_t fetch_imm_l(Machine& m) { return fetch32(m); }

uint32_t ea_an_idx(Machine& m, int reg);
uint32_t ea_pc_idx(Machine& m);
uint32_t ea_full(Machine& m, uint32_t base, uint16_t extension);
uint32_t ea_addr_control(Machine& m, uint16_t opcode);
uint32_t ea_addr_data_byte(Machine& m, uint16_t opcode);
uint16_t ea_load_w(Machine& m, uint16_t opcode);

void addx_subx_operands(Machine& m, uint16_t opcode, int size, uint32_t& dst_value,
                        uint32_t& src_value, uint32_t& dst_address);
void addx_subx_store(Machine& m, uint16_t opcode, int size, uint32_t dst_address,
                     uint32_t value);

// Handlers installed by name (the rest are template instances).
void op_illegal(Machine& m, uint16_t opcode);
void op_line_f(Machine& m, uint16_t opcode);
// The whole $Axxx line: host calls (served by the player host).
void op_line_a(Machine& m, uint16_t opcode);
