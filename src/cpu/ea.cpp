// Effective addresses: the 68000 modes plus the 68020 index scaling and
// full-format extension words, and the ADDX/SUBX operand pairs.
#include "cpu/ops.h"

namespace {

// The index of a brief or full extension word: D or A register (bits
// 15-12), its low word sign-extended or the whole long (bit 11), shifted by
// the scale (bits 10-9).
uint32_t index_value(Machine& m, uint16_t ext) {
    uint32_t x = reg_da(m, ext >> 12);
    if (!(ext & 0x0800)) x = sext<W>(x);
    return x << ((ext >> 9) & 3);
}

uint32_t indexed(Machine& m, uint32_t base) {
    uint16_t ext = fetch16(m);
    if (ext & 0x0100) return ea_full(m, base, ext);
    return base + sext<B>(ext) + index_value(m, ext);
}

// A displacement of the full format: size 2 is a word, 3 a long, else none.
uint32_t displacement(Machine& m, unsigned size) {
    if (size == 2) return sext<W>(fetch16(m));
    if (size == 3) return fetch32(m);
    return 0;
}

template <Size S>
uint32_t address(Machine& m, unsigned mode, unsigned reg) {
    switch (mode) {
    case Ai: return ea_address<S, Ai>(m, reg);
    case Ainc: return ea_address<S, Ainc>(m, reg);
    case Adec: return ea_address<S, Adec>(m, reg);
    case Ad16: return ea_address<S, Ad16>(m, reg);
    case Aidx: return ea_address<S, Aidx>(m, reg);
    case AbsW: return ea_address<S, AbsW>(m, reg);
    case AbsL: return ea_address<S, AbsL>(m, reg);
    case PcD16: return ea_address<S, PcD16>(m, reg);
    default: return ea_address<S, PcIdx>(m, reg);
    }
}

constexpr unsigned MODES_MEMORY = MODES_ALL & ~(1u << Dn | 1u << An | 1u << Imm);

}  // namespace

uint32_t ea_an_idx(Machine& m, int reg) { return indexed(m, m.a[reg & 7]); }

// The base is the extension word's own address.
uint32_t ea_pc_idx(Machine& m) { return indexed(m, m.pc); }

uint32_t ea_full(Machine& m, uint32_t base, uint16_t ext) {
    if (ext & 0x0080) base = 0;                                 // BS: base suppressed
    uint32_t bd = displacement(m, (ext >> 4) & 3);              // BD SIZE
    uint32_t index = (ext & 0x0040) ? 0 : index_value(m, ext);  // IS: index suppressed
    unsigned iis = ext & 7;
    if (iis == 0) return base + bd + index;
    uint32_t od = displacement(m, iis & 3);
    if (!(iis & 4)) return read32(m, base + bd + index) + od;  // pre-indexed
    return read32(m, base + bd) + index + od;                  // post-indexed
}

uint32_t ea_address_of(Machine& m, uint16_t opcode, Size size, unsigned allowed) {
    unsigned mode = mode_of(opcode);
    if (mode >= MODE_COUNT || !(allowed & MODES_MEMORY & (1u << mode))) {
        exception(m, VEC_ILLEGAL);
        return 0;
    }
    unsigned reg = opcode & 7;
    if (size == B) return address<B>(m, mode, reg);
    if (size == W) return address<W>(m, mode, reg);
    return address<L>(m, mode, reg);
}

uint32_t ea_addr_control(Machine& m, uint16_t opcode) {
    return ea_address_of(m, opcode, L, MODES_CONTROL);
}

uint32_t ea_addr_data_byte(Machine& m, uint16_t opcode) {
    return ea_address_of(m, opcode, B, MODES_MEMORY);
}

uint16_t ea_load_w(Machine& m, uint16_t opcode) {
    switch (mode_of(opcode)) {
    case Dn: return uint16_t(m.d[opcode & 7]);
    case An: return uint16_t(m.a[opcode & 7]);
    case Imm: return fetch16(m);
    default:
        if (mode_of(opcode) >= MODE_COUNT) {
            exception(m, VEC_ILLEGAL);
            return 0;
        }
        return read16(m, ea_address_of(m, opcode, W, MODES_MEMORY));
    }
}

namespace {

uint32_t read_size(Machine& m, uint32_t a, int size) {
    return size == 0 ? read8(m, a) : size == 1 ? read16(m, a) : read32(m, a);
}

// -(Ay) and -(Ax): a byte through A7 keeps the stack pointer word-aligned.
uint32_t predecrement(Machine& m, unsigned reg, int size) {
    uint32_t bytes = size == 0 ? (reg == 7 ? 2 : 1) : size == 1 ? 2 : 4;
    return m.a[reg] -= bytes;
}

constexpr uint32_t REGISTER_DESTINATION = 0xFFFFFFFF;

}  // namespace

void addx_subx_operands(Machine& m, uint16_t opcode, int size, uint32_t& dst_value,
                        uint32_t& src_value, uint32_t& dst_address) {
    unsigned ry = opcode & 7, rx = (opcode >> 9) & 7;
    if (!(opcode & 0x0008)) {
        uint32_t msk = size == 0 ? 0xFF : size == 1 ? 0xFFFF : 0xFFFFFFFF;
        src_value = m.d[ry] & msk;
        dst_value = m.d[rx] & msk;
        dst_address = REGISTER_DESTINATION;
        return;
    }
    src_value = read_size(m, predecrement(m, ry, size), size);
    dst_address = predecrement(m, rx, size);
    dst_value = read_size(m, dst_address, size);
}

// The opcode's memory-form bit decides, not the address: -(Ax) may well
// reach $FFFFFFFF, the mark of a register destination.
void addx_subx_store(Machine& m, uint16_t opcode, int size, uint32_t dst_address,
                     uint32_t value) {
    if (opcode & 0x0008) {
        if (size == 0) write8(m, dst_address, uint8_t(value));
        else if (size == 1) write16(m, dst_address, uint16_t(value));
        else write32(m, dst_address, value);
        return;
    }
    unsigned rx = (opcode >> 9) & 7;
    if (size == 0) set_dn<B>(m, rx, value);
    else if (size == 1) set_dn<W>(m, rx, value);
    else m.d[rx] = value;
}
