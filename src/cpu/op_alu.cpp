// The two-operand ALU families: ADD, SUB, CMP, AND, OR, EOR with a data
// register, their immediate forms (to CCR and SR too), the address-register
// forms ADDA, SUBA, CMPA, and ADDQ/SUBQ.
#include "cpu/ops.h"

// <ea>,Dn
template <AluOp O, Size S, Mode SRC>
void op_alu_to_dn(Machine& m, uint16_t op) {
    uint32_t s = load<S, SRC>(m, op & 7);
    unsigned rx = (op >> 9) & 7;
    uint32_t r = alu<O, S>(m, m.d[rx] & mask<S>, s);
    if constexpr (O != CMP) set_dn<S>(m, rx, r);
}

// Dn,<ea>
template <AluOp O, Size S, Mode DST>
void op_alu_from_dn(Machine& m, uint16_t op) {
    uint32_t s = m.d[(op >> 9) & 7] & mask<S>;
    modify<S, DST>(m, op & 7, [&](uint32_t d) { return alu<O, S>(m, d, s); });
}

// #imm,<ea>: the immediate comes before the destination's extension words.
template <AluOp O, Size S, Mode DST>
void op_alu_imm(Machine& m, uint16_t op) {
    uint32_t s = fetch_imm<S>(m);
    modify<S, DST, O != CMP>(m, op & 7, [&](uint32_t d) { return alu<O, S>(m, d, s); });
}

// The CCR forms change the five condition codes only.
template <AluOp O>
void op_alu_to_ccr(Machine& m, uint16_t) {
    uint32_t v = logic_bits<O>(m.sr, fetch16(m));
    m.sr = uint16_t((m.sr & ~CCR_ALL) | (v & CCR_ALL));
}

// Privileged; the check comes before the immediate word is fetched.
template <AluOp O>
void op_alu_to_sr(Machine& m, uint16_t) {
    if (cpu_require_supervisor(m)) cpu_set_sr(m, uint16_t(logic_bits<O>(m.sr, fetch16(m))));
}

// ADDA, SUBA, CMPA: the source sign-extended, the whole register, and no
// flags except CMPA's.
template <AluOp O, Size S, Mode SRC>
void op_alu_to_an(Machine& m, uint16_t op) {
    uint32_t s = sext<S>(load<S, SRC>(m, op & 7));
    uint32_t& a = m.a[(op >> 9) & 7];
    if constexpr (O == ADD) a += s;
    else if constexpr (O == SUB) a -= s;
    else alu<CMP, L>(m, a, s);
}

// ADDQ/SUBQ: data 1-8 in the opcode (0 stands for 8). To an address register
// they act on all 32 bits and keep the flags.
template <AluOp O, Size S, Mode DST>
void op_quick(Machine& m, uint16_t op) {
    uint32_t s = ((op >> 9) - 1u) % 8u + 1u;
    if constexpr (DST == An) m.a[op & 7] = O == ADD ? m.a[op & 7] + s : m.a[op & 7] - s;
    else modify<S, DST>(m, op & 7, [&](uint32_t d) { return alu<O, S>(m, d, s); });
}

namespace {

// Byte forms never take An as a source.
template <AluOp O, class Sources>
void bind_to_dn(const char* picture, const char* name) {
    for_sizes(AllSizes{}, [&]<Size S>() {
        auto each = [&]<Mode SRC>() {
            op_bind_sized<S, SRC>(picture, op_alu_to_dn<O, S, SRC>, op_handler_name(name, S, SRC, Dn));
        };
        if constexpr (S == B) for_modes(DataModes{}, each);
        else for_modes(Sources{}, each);
    });
}

template <AluOp O, class Dests>
void bind_from_dn(const char* picture, const char* name) {
    for_sizes(AllSizes{}, [&]<Size S>() {
        for_modes(Dests{}, [&]<Mode DST>() {
            op_bind_sized<S, DST>(picture, op_alu_from_dn<O, S, DST>, op_handler_name(name, S, Dn, DST));
        });
    });
}

template <AluOp O>
void bind_imm(const char* picture, const char* name) {
    for_sizes(AllSizes{}, [&]<Size S>() {
        for_modes(DataAlterable{}, [&]<Mode DST>() {
            op_bind_sized<S, DST>(picture, op_alu_imm<O, S, DST>, op_handler_name(name, S, DST));
        });
    });
    if constexpr (O == AND || O == OR || O == EOR) {
        // The size field 00 with #imm as the destination is the CCR form,
        // 01 the SR form.
        std::string n(name);
        op_bind(picture, {{'s', 0}, {'M', 7}, {'R', 4}}, op_alu_to_ccr<O>, n + "_to_ccr");
        op_bind(picture, {{'s', 1}, {'M', 7}, {'R', 4}}, op_alu_to_sr<O>, n + "_to_sr");
    }
}

// The A-forms' size bit: 0 word, 1 long.
template <AluOp O>
void bind_to_an(const char* picture, const char* name) {
    for_sizes(WordLong{}, [&]<Size S>() {
        for_modes(AllModes{}, [&]<Mode SRC>() {
            EaFields e = ea_fields(SRC);
            op_bind(picture, {{'a', S == L}, e.mode, e.reg}, op_alu_to_an<O, S, SRC>,
                 op_handler_name(name, S, SRC, An));
        });
    });
}

template <AluOp O>
void bind_quick(const char* picture, const char* name) {
    for_sizes(AllSizes{}, [&]<Size S>() {
        for_modes(DataAlterable{}, [&]<Mode DST>() {
            op_bind_sized<S, DST>(picture, op_quick<O, S, DST>, op_handler_name(name, S, DST));
        });
        if constexpr (S != B) op_bind_sized<S, An>(picture, op_quick<O, S, An>, op_handler_name(name, S, An));
    });
}

}  // namespace

void ops_register_alu_families() {
    bind_to_dn<ADD, AllModes>("1101 xxx0 ssMM MRRR", "op_add");
    bind_from_dn<ADD, MemAlterable>("1101 xxx1 ssMM MRRR", "op_add");
    bind_to_dn<SUB, AllModes>("1001 xxx0 ssMM MRRR", "op_sub");
    bind_from_dn<SUB, MemAlterable>("1001 xxx1 ssMM MRRR", "op_sub");
    bind_to_dn<CMP, AllModes>("1011 xxx0 ssMM MRRR", "op_cmp");
    bind_to_dn<AND, DataModes>("1100 xxx0 ssMM MRRR", "op_and");
    bind_from_dn<AND, MemAlterable>("1100 xxx1 ssMM MRRR", "op_and");
    bind_to_dn<OR, DataModes>("1000 xxx0 ssMM MRRR", "op_or");
    bind_from_dn<OR, MemAlterable>("1000 xxx1 ssMM MRRR", "op_or");
    bind_from_dn<EOR, DataAlterable>("1011 xxx1 ssMM MRRR", "op_eor");

    bind_imm<ADD>("0000 0110 ssMM MRRR", "op_addi");
    bind_imm<SUB>("0000 0100 ssMM MRRR", "op_subi");
    bind_imm<CMP>("0000 1100 ssMM MRRR", "op_cmpi");
    bind_imm<AND>("0000 0010 ssMM MRRR", "op_andi");
    bind_imm<OR>("0000 0000 ssMM MRRR", "op_ori");
    bind_imm<EOR>("0000 1010 ssMM MRRR", "op_eori");

    bind_to_an<ADD>("1101 xxxa 11MM MRRR", "op_adda");
    bind_to_an<SUB>("1001 xxxa 11MM MRRR", "op_suba");
    bind_to_an<CMP>("1011 xxxa 11MM MRRR", "op_cmpa");

    bind_quick<ADD>("0101 ddd0 ssMM MRRR", "op_addq");
    bind_quick<SUB>("0101 ddd1 ssMM MRRR", "op_subq");
}
