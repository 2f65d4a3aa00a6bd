// Data movement: MOVE/MOVEA, MOVEQ, MOVEM, the status-register and USP
// moves, EXG, SWAP, EXT, LEA and PEA.
#include <bit>
#include <utility>

#include "cpu/ops.h"

// ---- MOVE, MOVEA ----

// MOVEA (destination An) sign-extends a word to the whole register and
// leaves the flags alone.
template <Size S, Mode SRC, Mode DST>
void op_move(Machine& m, uint16_t op) {
    uint32_t v = load<S, SRC>(m, op & 7);
    unsigned rx = (op >> 9) & 7;
    if constexpr (DST == An) {
        m.a[rx] = sext<S>(v);
    } else {
        store<S, DST>(m, rx, v);
        logic_flags<S>(m, v);
    }
}

void op_moveq(Machine& m, uint16_t op) {
    uint32_t v = sext<B>(op);
    m.d[(op >> 9) & 7] = v;
    logic_flags<L>(m, v);
}

namespace {

// MOVE's size field is its own: 01 byte, 11 word, 10 long.
template <Size S>
constexpr unsigned move_size = S == B ? 1 : S == W ? 3 : 2;

template <Size S, class Sources, class Dests>
void bind_move(Sources sources, Dests dests) {
    for_modes(sources, [&]<Mode SRC>() {
        for_modes(dests, [&]<Mode DST>() {
            EaFields s = ea_fields(SRC), d = ea_fields(DST, 'N', 'Q');
            op_bind("00ss QQQN NNMM MRRR", {{'s', move_size<S>}, s.mode, s.reg, d.mode, d.reg},
                 op_move<S, SRC, DST>, op_handler_name("op_move", S, SRC, DST));
        });
    });
}

}  // namespace

void ops_register_move_families() {
    // MOVE.B has no address-register source and no MOVEA.
    bind_move<B>(DataModes{}, DataAlterable{});
    bind_move<W>(AllModes{}, MoveDest{});
    bind_move<L>(AllModes{}, MoveDest{});
    op_bind("0111 xxx0 dddd dddd", {}, op_moveq, "op_moveq");
}

// ---- MOVEM ----

// Registers in list order: bit 0 is D0, bit 15 is A7. For -(An) the list is
// reversed and the registers are stored from A7 down, so they land in
// memory in the same order; the 68000 stores An itself with its value
// from before the instruction.
template <Size S>
void op_movem_to_mem(Machine& m, uint16_t op) {
    unsigned list = fetch16(m);
    if (mode_of(op) == Adec) {
        unsigned r = op & 7;
        uint32_t a = m.a[r];
        for (; list; list &= list - 1) {
            a -= S;
            write_sized<S>(m, a, reg_da(m, 15 - unsigned(std::countr_zero(list))));
        }
        m.a[r] = a;
        return;
    }
    uint32_t a = ea_address_of(m, op, S, MODES_CONTROL_ALT);
    for (; list; list &= list - 1, a += S) write_sized<S>(m, a, reg_da(m, unsigned(std::countr_zero(list))));
}

// Words are sign-extended into whole registers, data registers included.
// With (An)+ the final address wins over a value loaded into An.
template <Size S>
void op_movem_from_mem(Machine& m, uint16_t op) {
    unsigned list = fetch16(m);
    bool postincrement = mode_of(op) == Ainc;
    unsigned r = op & 7;
    uint32_t a = postincrement ? m.a[r] : ea_address_of(m, op, S, MODES_CONTROL);
    for (; list; list &= list - 1, a += S)
        reg_da(m, unsigned(std::countr_zero(list))) = sext<S>(read_sized<S>(m, a));
    if (postincrement) m.a[r] = a;
}

// ---- status register and USP ----

void op_move_to_sr(Machine& m, uint16_t op) {
    if (cpu_require_supervisor(m)) cpu_set_sr(m, ea_load_w(m, op));
}

// The whole low byte goes into SR, bits 7-5 included.
void op_move_to_ccr(Machine& m, uint16_t op) {
    m.sr = uint16_t((m.sr & 0xFF00) | (ea_load_w(m, op) & 0xFF));
}

// Privileged as on the 68010, so that a supervisor can virtualise SR.
void op_move_from_sr(Machine& m, uint16_t op) {
    if (cpu_require_supervisor(m)) store_decoded<W>(m, op, m.sr);
}

void op_move_from_ccr(Machine& m, uint16_t op) { store_decoded<W>(m, op, m.sr & 0xFF); }

void op_move_an_to_usp(Machine& m, uint16_t op) {
    if (cpu_require_supervisor(m)) m.usp = m.a[op & 7];
}

void op_move_usp_to_an(Machine& m, uint16_t op) {
    if (cpu_require_supervisor(m)) m.a[op & 7] = m.usp;
}

// ---- register-only ----

void op_exg_dn_dn(Machine& m, uint16_t op) { std::swap(m.d[(op >> 9) & 7], m.d[op & 7]); }
void op_exg_an_an(Machine& m, uint16_t op) { std::swap(m.a[(op >> 9) & 7], m.a[op & 7]); }
void op_exg_dn_an(Machine& m, uint16_t op) { std::swap(m.d[(op >> 9) & 7], m.a[op & 7]); }

void op_swap(Machine& m, uint16_t op) {
    uint32_t& d = m.d[op & 7];
    d = d << 16 | d >> 16;
    logic_flags<L>(m, d);
}

void op_ext_w(Machine& m, uint16_t op) {
    unsigned r = op & 7;
    set_dn<W>(m, r, sext<B>(m.d[r]));
    logic_flags<W>(m, m.d[r]);
}

void op_ext_l(Machine& m, uint16_t op) {
    uint32_t& d = m.d[op & 7];
    d = sext<W>(d);
    logic_flags<L>(m, d);
}

void op_extb_l(Machine& m, uint16_t op) {
    uint32_t& d = m.d[op & 7];
    d = sext<B>(d);
    logic_flags<L>(m, d);
}

// ---- addresses ----

void op_lea(Machine& m, uint16_t op) {
    uint32_t a = ea_addr_control(m, op);
    m.a[(op >> 9) & 7] = a;
}

void op_pea(Machine& m, uint16_t op) { cpu_push32(m, ea_addr_control(m, op)); }

void ops_register_move_rest() {
    //                    Dn An (An) (An)+ -(An) d16 idx .W .L d16PC idxPC #
    // MOVEM to memory            x          x    x   x   x  x
    // MOVEM from memory          x    x          x   x   x  x   x     x
    const unsigned to_mem = MODES_CONTROL_ALT | 1u << Adec;
    const unsigned from_mem = MODES_CONTROL | 1u << Ainc;
    op_bind_modes("0100 1000 10MM MRRR", {}, to_mem, op_movem_to_mem<W>, "op_movem_to_mem_w");
    op_bind_modes("0100 1000 11MM MRRR", {}, to_mem, op_movem_to_mem<L>, "op_movem_to_mem_l");
    op_bind_modes("0100 1100 10MM MRRR", {}, from_mem, op_movem_from_mem<W>, "op_movem_from_mem_w");
    op_bind_modes("0100 1100 11MM MRRR", {}, from_mem, op_movem_from_mem<L>, "op_movem_from_mem_l");

    op_bind_modes("0100 0110 11MM MRRR", {}, MODES_DATA, op_move_to_sr, "op_move_to_sr");
    op_bind_modes("0100 0100 11MM MRRR", {}, MODES_DATA, op_move_to_ccr, "op_move_to_ccr");
    op_bind_modes("0100 0000 11MM MRRR", {}, MODES_DATA_ALT, op_move_from_sr, "op_move_from_sr");
    op_bind_modes("0100 0010 11MM MRRR", {}, MODES_DATA_ALT, op_move_from_ccr, "op_move_from_ccr");
    op_bind("0100 1110 0110 0rrr", {}, op_move_an_to_usp, "op_move_an_to_usp");
    op_bind("0100 1110 0110 1rrr", {}, op_move_usp_to_an, "op_move_usp_to_an");

    op_bind("1100 xxx1 0100 0yyy", {}, op_exg_dn_dn, "op_exg_dn_dn");
    op_bind("1100 xxx1 0100 1yyy", {}, op_exg_an_an, "op_exg_an_an");
    op_bind("1100 xxx1 1000 1yyy", {}, op_exg_dn_an, "op_exg_dn_an");
    op_bind("0100 1000 0100 0rrr", {}, op_swap, "op_swap");
    op_bind("0100 1000 1000 0rrr", {}, op_ext_w, "op_ext_w");
    op_bind("0100 1000 1100 0rrr", {}, op_ext_l, "op_ext_l");
    op_bind("0100 1001 1100 0rrr", {}, op_extb_l, "op_extb_l");

    op_bind_modes("0100 xxx1 11MM MRRR", {}, MODES_CONTROL, op_lea, "op_lea");
    op_bind_modes("0100 1000 01MM MRRR", {}, MODES_CONTROL, op_pea, "op_pea");
}
