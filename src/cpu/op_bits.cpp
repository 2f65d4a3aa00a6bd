// Bits: BTST, BCHG, BCLR, BSET, TAS, and the shifts and rotates.
#include "cpu/ops.h"

enum BitOp { BTST, BCHG, BCLR, BSET };

// The bit number comes from Dn (dynamic) or an immediate word (static). On a
// data register the operation is on the long and the bit number is taken
// modulo 32; in memory it is on a byte, modulo 8. Z is the bit's old value
// inverted.
template <BitOp O, bool Dynamic>
void op_bit(Machine& m, uint16_t op) {
    uint32_t bit = Dynamic ? m.d[(op >> 9) & 7] : fetch16(m);
    auto apply = [&](uint32_t v, uint32_t b) {
        uint32_t bm = 1u << b;
        m.sr = uint16_t((v & bm) ? m.sr & ~SR_Z : m.sr | SR_Z);
        if constexpr (O == BCHG) v ^= bm;
        else if constexpr (O == BCLR) v &= ~bm;
        else if constexpr (O == BSET) v |= bm;
        return v;
    };
    unsigned mode = mode_of(op);
    if (mode == Dn) {
        uint32_t& d = m.d[op & 7];
        d = apply(d, bit & 31);
    } else if (O == BTST && mode == Imm) {
        apply(fetch16(m) & 0xFF, bit & 7);
    } else {
        uint32_t a = ea_addr_data_byte(m, op);
        uint32_t v = apply(read8(m, a), bit & 7);
        if constexpr (O != BTST) write8(m, a, uint8_t(v));
    }
}

// Test and set: flags from the old byte, then bit 7 set. The bus has no
// indivisible cycle here: it is an ordinary read and write.
void op_tas(Machine& m, uint16_t op) {
    if (mode_of(op) == Dn) {
        uint32_t& d = m.d[op & 7];
        logic_flags<B>(m, d);
        d |= 0x80;
        return;
    }
    uint32_t a = ea_addr_data_byte(m, op);
    uint8_t v = read8(m, a);
    logic_flags<B>(m, v);
    write8(m, a, uint8_t(v | 0x80));
}

// ---- shifts and rotates ----

enum ShiftKind { AS, LS, ROX, RO };

namespace {

// One bit at a time, as the hardware's shifter: the last bit out goes to C
// (and X, except for ROL/ROR); a count of 0 clears C, or copies X into it
// for ROXL/ROXR. ASL sets V when the top bit changes at any step.
template <Size S>
uint32_t shift(Machine& m, unsigned kind, bool left, unsigned count, uint32_t v) {
    v &= mask<S>;
    bool x = m.sr & SR_X;
    bool c = kind == ROX && x;
    bool overflow = false;
    for (unsigned i = 0; i < count; i++) {
        bool out;
        if (left) {
            out = v & msb<S>;
            bool in = kind == ROX ? x : kind == RO && out;
            uint32_t next = ((v << 1) | in) & mask<S>;
            overflow |= ((next ^ v) & msb<S>) != 0;
            v = next;
        } else {
            out = v & 1;
            bool in = kind == AS ? (v & msb<S>) != 0 : kind == ROX ? x : kind == RO && out;
            v = (v >> 1) | (in ? msb<S> : 0);
        }
        c = out;
        if (kind != RO) x = out;
    }
    bool v_flag = kind == AS && left && overflow;
    m.sr = uint16_t((m.sr & ~CCR_ALL) | nz_bits<S>(v) | (v_flag ? SR_V : 0) |
                    (c ? SR_C : 0) | (x ? SR_X : 0));
    return v;
}

}  // namespace

// Register form: the count is an immediate 1-8 (0 meaning 8) or Dn modulo 64.
void op_shift_dn(Machine& m, uint16_t op) {
    unsigned count = (op >> 9) & 7;
    if (op & 0x20) count = m.d[count] & 63;
    else if (count == 0) count = 8;
    unsigned kind = (op >> 3) & 3, r = op & 7;
    bool left = op & 0x100;
    switch ((op >> 6) & 3) {
    case 0: set_dn<B>(m, r, shift<B>(m, kind, left, count, m.d[r])); break;
    case 1: set_dn<W>(m, r, shift<W>(m, kind, left, count, m.d[r])); break;
    default: m.d[r] = shift<L>(m, kind, left, count, m.d[r]); break;
    }
}

// Memory form: a word, shifted by one.
void op_shift_mem(Machine& m, uint16_t op) {
    uint32_t a = ea_address_of(m, op, W, MODES_MEM_ALT);
    write16(m, a, uint16_t(shift<W>(m, (op >> 9) & 3, op & 0x100, 1, read16(m, a))));
}

void ops_register_bits_rest() {
    const unsigned btst_static = MODES_DATA & ~(1u << Imm);
    op_bind_modes("0000 1000 00MM MRRR", {}, btst_static, op_bit<BTST, false>, "op_btst_stat");
    op_bind_modes("0000 1000 01MM MRRR", {}, MODES_DATA_ALT, op_bit<BCHG, false>, "op_bchg_stat");
    op_bind_modes("0000 1000 10MM MRRR", {}, MODES_DATA_ALT, op_bit<BCLR, false>, "op_bclr_stat");
    op_bind_modes("0000 1000 11MM MRRR", {}, MODES_DATA_ALT, op_bit<BSET, false>, "op_bset_stat");
    op_bind_modes("0000 xxx1 00MM MRRR", {}, MODES_DATA, op_bit<BTST, true>, "op_btst_dyn");
    op_bind_modes("0000 xxx1 01MM MRRR", {}, MODES_DATA_ALT, op_bit<BCHG, true>, "op_bchg_dyn");
    op_bind_modes("0000 xxx1 10MM MRRR", {}, MODES_DATA_ALT, op_bit<BCLR, true>, "op_bclr_dyn");
    op_bind_modes("0000 xxx1 11MM MRRR", {}, MODES_DATA_ALT, op_bit<BSET, true>, "op_bset_dyn");
    op_bind_modes("0100 1010 11MM MRRR", {}, MODES_DATA_ALT, op_tas, "op_tas");

    for (unsigned s = 0; s < 3; s++) op_bind("1110 cccd ssit trrr", {{'s', s}}, op_shift_dn, "op_shift_dn");
    op_bind_modes("1110 0ttd 11MM MRRR", {}, MODES_MEM_ALT, op_shift_mem, "op_shift_mem");
}
