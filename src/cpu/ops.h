// Inside the CPU core: operand sizes and addressing modes as template
// parameters, the flag primitives, operand fetch and store, and the
// registration call through which each family enters op_table.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "cpu/cpu.h"

// Operand size in bytes.
enum Size : unsigned { B = 1, W = 2, L = 4 };

// Addressing modes in the order of their opcode encoding: modes 0-6 take a
// register, mode 7 spends its register field on the five "special" modes,
// so mode 7 / register n is Mode(7 + n).
enum Mode : unsigned { Dn, An, Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL, PcD16, PcIdx, Imm };
constexpr unsigned MODE_COUNT = 12;

template <Mode... Ms>
struct ModeList {};

// The 68000's addressing categories.
using AllModes = ModeList<Dn, An, Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL, PcD16, PcIdx, Imm>;
using DataModes = ModeList<Dn, Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL, PcD16, PcIdx, Imm>;
using MemAlterable = ModeList<Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL>;
using DataAlterable = ModeList<Dn, Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL>;
using MoveDest = ModeList<Dn, An, Ai, Ainc, Adec, Ad16, Aidx, AbsW, AbsL>;

// The same categories as bit sets over Mode, for handlers that decode their
// effective address at run time.
template <Mode... Ms>
constexpr unsigned mode_set(ModeList<Ms...>) {
    return ((1u << Ms) | ... | 0u);
}
constexpr unsigned MODES_ALL = mode_set(AllModes{});
constexpr unsigned MODES_DATA = mode_set(DataModes{});
constexpr unsigned MODES_MEM_ALT = mode_set(MemAlterable{});
constexpr unsigned MODES_DATA_ALT = mode_set(DataAlterable{});
constexpr unsigned MODES_CONTROL =
    mode_set(ModeList<Ai, Ad16, Aidx, AbsW, AbsL, PcD16, PcIdx>{});
constexpr unsigned MODES_CONTROL_ALT = mode_set(ModeList<Ai, Ad16, Aidx, AbsW, AbsL>{});

// The Mode an opcode's low six bits select; 12-14 are the unassigned
// mode 7 registers 5-7.
inline unsigned mode_of(uint16_t opcode) {
    unsigned field = (opcode >> 3) & 7;
    return field < 7 ? field : 7 + (opcode & 7);
}

// ---- sizes ----

template <Size S>
constexpr uint32_t mask = S == B ? 0xFFu : S == W ? 0xFFFFu : 0xFFFFFFFFu;
template <Size S>
constexpr uint32_t msb = S == B ? 0x80u : S == W ? 0x8000u : 0x80000000u;

template <Size S>
constexpr uint32_t sext(uint32_t v) {
    if constexpr (S == B) return uint32_t(int32_t(int8_t(v)));
    else if constexpr (S == W) return uint32_t(int32_t(int16_t(v)));
    else return v;
}

// (An)+ and -(An) move by the operand size, except that a byte through A7
// moves it by 2: the stack pointer stays word-aligned.
template <Size S>
constexpr uint32_t step_of(unsigned reg) {
    return S == B && reg == 7 ? 2u : uint32_t(S);
}

// D0-D7 then A0-A7, as an index extension word or a MOVEM mask numbers them.
inline uint32_t& reg_da(Machine& m, unsigned n) { return n & 8 ? m.a[n & 7] : m.d[n & 7]; }

template <Size S>
inline void set_dn(Machine& m, unsigned reg, uint32_t v) {
    m.d[reg] = (m.d[reg] & ~mask<S>) | (v & mask<S>);
}

// ---- flag primitives: pure functions of the operands, written into sr ----

constexpr uint16_t CCR_NZVC = SR_N | SR_Z | SR_V | SR_C;
constexpr uint16_t CCR_ALL = CCR_NZVC | SR_X;
constexpr uint16_t SR_WRITABLE = 0xF71F;  // T1 T0 S M, I2-I0, X N Z V C

template <Size S>
constexpr uint16_t nz_bits(uint32_t r) {
    return uint16_t((r & msb<S> ? SR_N : 0) | ((r & mask<S>) == 0 ? SR_Z : 0));
}

// Carry and overflow out of the top bit, from the operands and the result
// truncated to the size.
template <Size S>
constexpr bool add_carry(uint32_t d, uint32_t s, uint32_t r) {
    return ((s & d) | (~r & (s | d))) & msb<S>;
}
template <Size S>
constexpr bool add_overflow(uint32_t d, uint32_t s, uint32_t r) {
    return (s ^ r) & (d ^ r) & msb<S>;
}
template <Size S>
constexpr bool sub_borrow(uint32_t d, uint32_t s, uint32_t r) {
    return ((s & r) | (~d & (s | r))) & msb<S>;
}
template <Size S>
constexpr bool sub_overflow(uint32_t d, uint32_t s, uint32_t r) {
    return (s ^ d) & (r ^ d) & msb<S>;
}

// The condition codes of an addition or subtraction d ± s = r.
template <Size S>
constexpr uint16_t add_ccr(uint32_t d, uint32_t s, uint32_t r) {
    return uint16_t(nz_bits<S>(r) | (add_overflow<S>(d, s, r) ? SR_V : 0) |
                    (add_carry<S>(d, s, r) ? SR_X | SR_C : 0));
}
template <Size S>
constexpr uint16_t sub_ccr(uint32_t d, uint32_t s, uint32_t r) {
    return uint16_t(nz_bits<S>(r) | (sub_overflow<S>(d, s, r) ? SR_V : 0) |
                    (sub_borrow<S>(d, s, r) ? SR_X | SR_C : 0));
}

// Replace the condition codes in `which` by those of `bits`.
inline void set_ccr(Machine& m, uint16_t bits, uint16_t which = CCR_ALL) {
    m.sr = uint16_t((m.sr & ~which) | (bits & which));
}

template <Size S>
inline void add_flags(Machine& m, uint32_t d, uint32_t s, uint32_t r) {
    set_ccr(m, add_ccr<S>(d, s, r));
}
template <Size S>
inline void sub_flags(Machine& m, uint32_t d, uint32_t s, uint32_t r) {
    set_ccr(m, sub_ccr<S>(d, s, r));
}
// As a subtraction, but X is kept.
template <Size S>
inline void cmp_flags(Machine& m, uint32_t d, uint32_t s, uint32_t r) {
    set_ccr(m, sub_ccr<S>(d, s, r), CCR_NZVC);
}

// N and Z from the result, V and C cleared, X kept: moves and logic.
template <Size S>
inline void logic_flags(Machine& m, uint32_t r) {
    set_ccr(m, nz_bits<S>(r), CCR_NZVC);
}

// ADDX, SUBX and NEGX chain multi-precision arithmetic: Z can only be
// cleared, so a zero result leaves the Z of the earlier parts standing.
template <Size S>
inline void extend_flags(Machine& m, uint16_t ccr, uint32_t r) {
    if (!(r & mask<S>)) ccr = uint16_t((ccr & ~SR_Z) | (m.sr & SR_Z));
    set_ccr(m, ccr);
}

// Condition truth, one 16-bit row per NZVC combination: bit cc is set when
// condition cc holds.
constexpr uint16_t condition_row(unsigned nzvc) {
    bool c = nzvc & 1, v = nzvc & 2, z = nzvc & 4, n = nzvc & 8;
    bool t[16] = {true, false, !c && !z, c || z, !c, c, !z, z,
                  !v,   v,     !n,       n,      n == v, n != v, !z && n == v, z || n != v};
    uint16_t row = 0;
    for (unsigned cc = 0; cc < 16; cc++) row = uint16_t(row | (t[cc] ? 1u << cc : 0));
    return row;
}
struct ConditionTable {
    uint16_t row[16];
    constexpr ConditionTable() : row() {
        for (unsigned i = 0; i < 16; i++) row[i] = condition_row(i);
    }
};
inline constexpr ConditionTable CONDITIONS{};

inline bool condition(const Machine& m, unsigned cc) {
    return (CONDITIONS.row[m.sr & 0xF] >> (cc & 15)) & 1;
}

// ---- operand access ----

template <Size S>
inline uint32_t read_sized(Machine& m, uint32_t address) {
    if constexpr (S == B) return read8(m, address);
    else if constexpr (S == W) return read16(m, address);
    else return read32(m, address);
}

template <Size S>
inline void write_sized(Machine& m, uint32_t address, uint32_t v) {
    if constexpr (S == B) write8(m, address, uint8_t(v));
    else if constexpr (S == W) write16(m, address, uint16_t(v));
    else write32(m, address, v);
}

template <Size S>
inline uint32_t fetch_imm(Machine& m) {
    if constexpr (S == B) return fetch_imm_b(m);
    else if constexpr (S == W) return fetch_imm_w(m);
    else return fetch_imm_l(m);
}

inline void cpu_push32(Machine& m, uint32_t v) {
    m.a[7] -= 4;
    write32(m, m.a[7], v);
}
inline uint32_t cpu_pop32(Machine& m) {
    uint32_t v = read32(m, m.a[7]);
    m.a[7] += 4;
    return v;
}

// Address of a memory operand, with the (An)+ / -(An) side effects and the
// extension words consumed.
template <Size S, Mode M>
inline uint32_t ea_address(Machine& m, unsigned reg) {
    if constexpr (M == Ai) return m.a[reg];
    else if constexpr (M == Ainc) {
        uint32_t a = m.a[reg];
        m.a[reg] = a + step_of<S>(reg);
        return a;
    } else if constexpr (M == Adec) return m.a[reg] -= step_of<S>(reg);
    else if constexpr (M == Ad16) return m.a[reg] + sext<W>(fetch16(m));
    else if constexpr (M == Aidx) return ea_an_idx(m, int(reg));
    else if constexpr (M == AbsW) return sext<W>(fetch16(m));
    else if constexpr (M == AbsL) return fetch32(m);
    else if constexpr (M == PcD16) {
        uint32_t base = m.pc;  // the extension word's own address
        return base + sext<W>(fetch16(m));
    } else if constexpr (M == PcIdx) return ea_pc_idx(m);
    else static_assert(M == Ai, "mode has no address");
}

// The value of a source operand, truncated to the size.
template <Size S, Mode M>
inline uint32_t load(Machine& m, unsigned reg) {
    if constexpr (M == Dn) return m.d[reg] & mask<S>;
    else if constexpr (M == An) return m.a[reg] & mask<S>;
    else if constexpr (M == Imm) return fetch_imm<S>(m);
    else return read_sized<S>(m, ea_address<S, M>(m, reg));
}

// Write a destination operand; a data register keeps its bits above the size.
template <Size S, Mode M>
inline void store(Machine& m, unsigned reg, uint32_t v) {
    if constexpr (M == Dn) set_dn<S>(m, reg, v);
    else write_sized<S>(m, ea_address<S, M>(m, reg), v);
}

// Read-modify-write of a destination operand: the address is formed once.
// With Write false only the read happens (CMP, TST).
template <Size S, Mode M, bool Write = true, class F>
inline void modify(Machine& m, unsigned reg, F f) {
    if constexpr (M == Dn) {
        uint32_t r = f(m.d[reg] & mask<S>);
        if constexpr (Write) set_dn<S>(m, reg, r);
    } else {
        uint32_t a = ea_address<S, M>(m, reg);
        uint32_t r = f(read_sized<S>(m, a));
        if constexpr (Write) write_sized<S>(m, a, r);
    }
}

// Address of a memory operand whose mode is decoded at run time (handlers
// that are not specialised by mode). A mode outside `allowed` raises the
// illegal-instruction exception and gives address 0.
uint32_t ea_address_of(Machine& m, uint16_t opcode, Size size, unsigned allowed);

// Store to a data-alterable destination whose mode is decoded at run time
// (Scc, MOVE from SR/CCR). As on the 68000, memory is read before it is
// written, which a read-sensitive chip register notices.
template <Size S>
inline void store_decoded(Machine& m, uint16_t opcode, uint32_t v) {
    if (mode_of(opcode) == Dn) {
        set_dn<S>(m, opcode & 7, v);
        return;
    }
    uint32_t a = ea_address_of(m, opcode, S, MODES_DATA_ALT);
    read_sized<S>(m, a);
    write_sized<S>(m, a, v);
}

// ---- two-operand arithmetic and logic ----

enum AluOp { ADD, SUB, CMP, AND, OR, EOR };

// AND, OR, EOR as plain bit operations.
template <AluOp O>
constexpr uint32_t logic_bits(uint32_t d, uint32_t s) {
    return O == AND ? d & s : O == OR ? d | s : d ^ s;
}

// Combine the destination d and source s at size S, set the flags, and
// return the result (which CMP drops).
template <AluOp O, Size S>
inline uint32_t alu(Machine& m, uint32_t d, uint32_t s) {
    if constexpr (O == ADD) {
        uint32_t r = (d + s) & mask<S>;
        add_flags<S>(m, d, s, r);
        return r;
    } else if constexpr (O == SUB || O == CMP) {
        uint32_t r = (d - s) & mask<S>;
        if constexpr (O == SUB) sub_flags<S>(m, d, s, r);
        else cmp_flags<S>(m, d, s, r);
        return r;
    } else {
        uint32_t r = logic_bits<O>(d, s);
        logic_flags<S>(m, r);
        return r;
    }
}

// The privileged instructions run only in supervisor mode; in user mode
// they take the privilege-violation exception instead.
bool cpu_require_supervisor(Machine& m);

constexpr int VEC_ILLEGAL = 4, VEC_ZERO_DIVIDE = 5, VEC_CHK = 6, VEC_TRAPV = 7,
              VEC_PRIVILEGE = 8, VEC_LINE_F = 11, VEC_FORMAT = 14, VEC_TRAP_0 = 32;

// ---- registration ----

// One field of a registration picture: the letter's bits take `value`;
// a field left out of the list (or given ANY) ranges over all its values.
struct Field {
    char letter;
    unsigned value;
};
constexpr unsigned ANY = ~0u;

// Enter `handler` for every opcode that matches `picture`: sixteen bit
// characters (spaces ignored), '0' and '1' fixed, letters are fields whose
// last character is their least significant bit.
void op_bind(const char* picture, std::initializer_list<Field> fields, OpHandler handler,
             const std::string& name);

// The mode and register fields of an effective address, for the letters
// that a picture uses for them.
struct EaFields {
    Field mode, reg;
};
constexpr EaFields ea_fields(Mode m, char mode_letter = 'M', char reg_letter = 'R') {
    return m < 7 ? EaFields{{mode_letter, m}, {reg_letter, ANY}}
                 : EaFields{{mode_letter, 7}, {reg_letter, m - 7u}};
}

// The standard two-bit size field (00 byte, 01 word, 10 long).
template <Size S>
constexpr unsigned size_code = S == B ? 0 : S == W ? 1 : 2;

// Bind with the size field 's' and the mode fields 'M' and 'R' set.
template <Size S, Mode M>
void op_bind_sized(const char* picture, OpHandler handler, const std::string& name) {
    EaFields e = ea_fields(M);
    op_bind(picture, {{'s', size_code<S>}, e.mode, e.reg}, handler, name);
}

// Bind once per mode in `modes`, with the mode fields 'M' and 'R'.
void op_bind_modes(const char* picture, std::initializer_list<Field> fields, unsigned modes,
                   OpHandler handler, const std::string& name);

// Handler names: op_<operation>_<size>_<source>_<destination>.
const char* op_mode_token(Mode m);
constexpr const char* op_size_token(Size s) { return s == B ? "b" : s == W ? "w" : "l"; }
std::string op_handler_name(const char* operation, Size s);
std::string op_handler_name(const char* operation, Size s, Mode m);
std::string op_handler_name(const char* operation, Size s, Mode src, Mode dst);

// Call f.template operator()<X>() for each mode or size of a list: the
// registrations walk the families' mode grids with this.
template <Mode... Ms, class F>
void for_modes(ModeList<Ms...>, F&& f) {
    (f.template operator()<Ms>(), ...);
}
template <Size... Ss>
struct SizeList {};
using AllSizes = SizeList<B, W, L>;
using WordLong = SizeList<W, L>;
template <Size... Ss, class F>
void for_sizes(SizeList<Ss...>, F&& f) {
    (f.template operator()<Ss>(), ...);
}

// Registration, called by op_table_fill in table order: the returns, then
// the mode-specialised families (ops_register), then the register loops.
void ops_register_returns();
void ops_register();
void ops_register_move_families();
void ops_register_alu_families();
void ops_register_unary_families();
void ops_register_bcc();
void ops_register_cmpm();
void ops_register_extended();
void ops_register_move_rest();
void ops_register_arith_rest();
void ops_register_bits_rest();
void ops_register_control_rest();
