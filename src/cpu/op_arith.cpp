// Single-operand arithmetic (NEG, NEGX, NOT, CLR, TST), the register-pair
// forms CMPM, ADDX, SUBX and the decimal ABCD/SBCD, the 16-bit multiplies
// and divides, and CHK.
#include "cpu/ops.h"

// ---- single operand: NEG, NEGX, NOT, CLR, TST ----

enum UnaryOp { NEG, NEGX, NOT, CLR, TST };

// TST only reads; the others read, modify and write, CLR too: the 68000
// reads its destination before clearing it, which a read-sensitive chip
// register notices.
template <UnaryOp O, Size S, Mode M>
void op_unary(Machine& m, uint16_t op) {
    if constexpr (O == CLR) {
        modify<S, M>(m, op & 7, [](uint32_t) { return 0u; });
        m.sr = uint16_t((m.sr & ~CCR_NZVC) | SR_Z);
    } else if constexpr (O == TST) {
        logic_flags<S>(m, load<S, M>(m, op & 7));
    } else {
        modify<S, M>(m, op & 7, [&](uint32_t d) -> uint32_t {
            if constexpr (O == NEG) return alu<SUB, S>(m, 0, d);
            else if constexpr (O == NOT) return alu<EOR, S>(m, d, mask<S>);
            else {
                uint32_t r = (0 - d - ((m.sr & SR_X) ? 1 : 0)) & mask<S>;
                extend_flags<S>(m, sub_ccr<S>(0, d, r), r);
                return r;
            }
        });
    }
}

namespace {

template <UnaryOp O>
void bind_unary(const char* picture, const char* name) {
    for_sizes(AllSizes{}, [&]<Size S>() {
        for_modes(DataAlterable{}, [&]<Mode M>() {
            op_bind_sized<S, M>(picture, op_unary<O, S, M>, op_handler_name(name, S, M));
        });
    });
}

}  // namespace

void ops_register_unary_families() {
    bind_unary<NEG>("0100 0100 ssMM MRRR", "op_neg");
    bind_unary<NEGX>("0100 0000 ssMM MRRR", "op_negx");
    bind_unary<NOT>("0100 0110 ssMM MRRR", "op_not");
    bind_unary<CLR>("0100 0010 ssMM MRRR", "op_clr");
    bind_unary<TST>("0100 1010 ssMM MRRR", "op_tst");
}

// ---- register pairs: CMPM, ADDX, SUBX, ABCD, SBCD ----

namespace {

template <Size S>
void cmpm(Machine& m, uint16_t op) {
    uint32_t s = read_sized<S>(m, ea_address<S, Ainc>(m, op & 7));
    uint32_t d = read_sized<S>(m, ea_address<S, Ainc>(m, (op >> 9) & 7));
    alu<CMP, S>(m, d, s);
}

constexpr int size_index(Size S) { return S == B ? 0 : S == W ? 1 : 2; }

// ADDX and SUBX with the X flag as carry (borrow) in.
template <Size S, bool Subtract>
void extended(Machine& m, uint16_t op) {
    uint32_t d, s, address;
    addx_subx_operands(m, op, size_index(S), d, s, address);
    uint32_t x = (m.sr & SR_X) ? 1 : 0;
    uint32_t r;
    if constexpr (Subtract) {
        r = (d - s - x) & mask<S>;
        extend_flags<S>(m, sub_ccr<S>(d, s, r), r);
    } else {
        r = (d + s + x) & mask<S>;
        extend_flags<S>(m, add_ccr<S>(d, s, r), r);
    }
    addx_subx_store(m, op, size_index(S), address, r);
}

template <bool Subtract>
void extended_sized(Machine& m, uint16_t op) {
    switch ((op >> 6) & 3) {
    case 0: extended<B, Subtract>(m, op); break;
    case 1: extended<W, Subtract>(m, op); break;
    default: extended<L, Subtract>(m, op); break;
    }
}

// Decimal add and subtract of two packed BCD bytes, as the 68000 computes
// them: the binary result, then a correction of 6 per digit that overflowed
// (half carry or a digit above 9) and of $60 when the whole exceeds 99.
// Inputs that are not BCD follow the same steps.
uint32_t bcd_add(Machine& m, uint32_t d, uint32_t s) {
    uint32_t x = (m.sr & SR_X) ? 1 : 0;
    uint32_t binary = d + s + x;
    uint32_t correction = 0;
    if (((d ^ s ^ binary) & 0x10) || (binary & 0x0F) > 9) correction = 0x06;
    bool carry = binary > 0x99;
    if (carry) correction |= 0x60;
    return (binary + correction) | (carry ? 0x100 : 0);
}

uint32_t bcd_sub(Machine& m, uint32_t d, uint32_t s) {
    uint32_t x = (m.sr & SR_X) ? 1 : 0;
    uint32_t binary = d - s - x;
    uint32_t correction = 0;
    if ((d ^ s ^ binary) & 0x10) correction = 0x06;
    bool borrow = binary & 0x100;
    if (borrow) correction |= 0x60;
    uint32_t r = binary - correction;
    return (r & 0xFF) | (borrow || (r & 0x100) ? 0x100 : 0);
}

// The decimal carry goes to X and C, N is the result's top bit, V is kept
// and Z is cleared whatever the result.
template <uint32_t (*Decimal)(Machine&, uint32_t, uint32_t)>
void decimal(Machine& m, uint16_t op) {
    uint32_t d, s, address;
    addx_subx_operands(m, op, 0, d, s, address);
    uint32_t r = Decimal(m, d, s);
    m.sr = uint16_t((m.sr & ~(SR_X | SR_N | SR_Z | SR_C)) | (r & 0x80 ? SR_N : 0) |
                    (r & 0x100 ? SR_X | SR_C : 0));
    addx_subx_store(m, op, 0, address, r & 0xFF);
}

}  // namespace

void op_cmpm(Machine& m, uint16_t op) {
    switch ((op >> 6) & 3) {
    case 0: cmpm<B>(m, op); break;
    case 1: cmpm<W>(m, op); break;
    default: cmpm<L>(m, op); break;
    }
}

void op_addx(Machine& m, uint16_t op) { extended_sized<false>(m, op); }
void op_subx(Machine& m, uint16_t op) { extended_sized<true>(m, op); }
void op_abcd(Machine& m, uint16_t op) { decimal<bcd_add>(m, op); }
void op_sbcd(Machine& m, uint16_t op) { decimal<bcd_sub>(m, op); }

void ops_register_cmpm() {
    for (unsigned s = 0; s < 3; s++) op_bind("1011 xxx1 ss00 1yyy", {{'s', s}}, op_cmpm, "op_cmpm");
}

void ops_register_extended() {
    for (unsigned s = 0; s < 3; s++) {
        op_bind("1101 xxx1 ss00 myyy", {{'s', s}}, op_addx, "op_addx");
        op_bind("1001 xxx1 ss00 myyy", {{'s', s}}, op_subx, "op_subx");
    }
    op_bind("1100 xxx1 0000 myyy", {}, op_abcd, "op_abcd");
    op_bind("1000 xxx1 0000 myyy", {}, op_sbcd, "op_sbcd");
}

// ---- multiply, divide, bounds check (16-bit operand forms) ----

void op_mulu_w(Machine& m, uint16_t op) {
    uint32_t s = ea_load_w(m, op);
    uint32_t& d = m.d[(op >> 9) & 7];
    d = (d & 0xFFFF) * s;
    logic_flags<L>(m, d);
}

void op_muls_w(Machine& m, uint16_t op) {
    int32_t s = int16_t(ea_load_w(m, op));
    uint32_t& d = m.d[(op >> 9) & 7];
    d = uint32_t(int32_t(int16_t(d)) * s);
    logic_flags<L>(m, d);
}

namespace {

// A quotient that does not fit 16 bits sets V alone; the register and the
// other flags stay as they were.
void divide_result(Machine& m, uint32_t& d, int64_t quotient, int64_t remainder, bool fits) {
    if (!fits) {
        m.sr |= SR_V;
        return;
    }
    d = uint32_t(uint16_t(remainder)) << 16 | uint16_t(quotient);
    logic_flags<W>(m, uint32_t(quotient));
}

}  // namespace

void op_divu_w(Machine& m, uint16_t op) {
    uint32_t s = ea_load_w(m, op);
    if (s == 0) {
        exception(m, VEC_ZERO_DIVIDE);
        return;
    }
    uint32_t& d = m.d[(op >> 9) & 7];
    divide_result(m, d, d / s, d % s, d / s <= 0xFFFF);
}

// Computed in 64 bits: $80000000 / -1 has no 32-bit quotient and simply
// overflows.
void op_divs_w(Machine& m, uint16_t op) {
    int64_t s = int16_t(ea_load_w(m, op));
    if (s == 0) {
        exception(m, VEC_ZERO_DIVIDE);
        return;
    }
    uint32_t& d = m.d[(op >> 9) & 7];
    int64_t dividend = int32_t(d);
    int64_t q = dividend / s;
    divide_result(m, d, q, dividend % s, q >= -32768 && q <= 32767);
}

// Out of bounds, N follows the sign of the register (set below the lower
// bound, clear above the upper one) and Z, V, C stay; in bounds nothing
// changes, where the 68000 leaves N undefined.
void op_chk_w(Machine& m, uint16_t op) {
    int16_t bound = int16_t(ea_load_w(m, op));
    int16_t v = int16_t(m.d[(op >> 9) & 7]);
    if (v >= 0 && v <= bound) return;
    m.sr = uint16_t(v < 0 ? m.sr | SR_N : m.sr & ~SR_N);
    exception(m, VEC_CHK);
}

void ops_register_arith_rest() {
    op_bind_modes("1100 xxx0 11MM MRRR", {}, MODES_DATA, op_mulu_w, "op_mulu_w");
    op_bind_modes("1100 xxx1 11MM MRRR", {}, MODES_DATA, op_muls_w, "op_muls_w");
    op_bind_modes("1000 xxx0 11MM MRRR", {}, MODES_DATA, op_divu_w, "op_divu_w");
    op_bind_modes("1000 xxx1 11MM MRRR", {}, MODES_DATA, op_divs_w, "op_divs_w");
    op_bind_modes("0100 xxx1 10MM MRRR", {}, MODES_DATA, op_chk_w, "op_chk_w");
}
