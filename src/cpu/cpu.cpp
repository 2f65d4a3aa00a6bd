// 68000 core: reset, exception processing, condition codes, status register
// writes and the flag helpers.
#include "cpu/cpu.h"

#include "cpu/ops.h"

void cpu_reset(Machine& m) {
    m.ssp = m.a[7] = read32(m, 0);
    m.pc = read32(m, 4);
    m.usp = 0;
    m.vbr = 0;
    m.sr = 0x2700;
    m.stopped = 0;
    m.fault = 0;
}

static void push16(Machine& m, uint16_t v) {
    m.a[7] -= 2;
    write16(m, m.a[7], v);
}

// The frame is 8 bytes: vector-offset word at +0, SR at +2, return PC at +4.
uint32_t exception(Machine& m, int vector) {
    uint16_t old_sr = m.sr;
    m.sr = uint16_t((old_sr & 0x171F) | SR_S);
    if (!(old_sr & SR_S)) {
        m.usp = m.a[7];
        m.a[7] = m.ssp;
    }
    cpu_push32(m, m.pc);
    push16(m, old_sr);
    push16(m, uint16_t((vector * 4) & 0x0FFF));
    m.pc = read32(m, m.vbr + uint32_t(vector) * 4);
    m.fault = 0;
    return m.pc;
}

int test_cc(const Machine& m, unsigned cc) { return cc < 16 && condition(m, cc); }

// A7 is always the active stack pointer; the other one waits in usp or ssp.
void cpu_set_sr(Machine& m, uint16_t value) {
    value &= SR_WRITABLE;
    if ((value ^ m.sr) & SR_S) {
        if (value & SR_S) {
            m.usp = m.a[7];
            m.a[7] = m.ssp;
        } else {
            m.ssp = m.a[7];
            m.a[7] = m.usp;
        }
    }
    m.sr = value;
}

bool cpu_require_supervisor(Machine& m) {
    if (m.sr & SR_S) return true;
    exception(m, VEC_PRIVILEGE);
    return false;
}

// The helpers take the unmasked sum; only the bits up to the carry count.
void set_add_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    add_flags<B>(m, dst, src, result);
}
void set_add_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    add_flags<W>(m, dst, src, result);
}
void set_sub_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    sub_flags<B>(m, dst, src, result);
}
void set_sub_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    sub_flags<W>(m, dst, src, result);
}
void set_cmp_flags_b(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    cmp_flags<B>(m, dst, src, result);
}
void set_cmp_flags_w(Machine& m, uint32_t dst, uint32_t src, uint32_t result) {
    cmp_flags<W>(m, dst, src, result);
}

void op_illegal(Machine& m, uint16_t) { exception(m, VEC_ILLEGAL); }
void op_line_f(Machine& m, uint16_t) { exception(m, VEC_LINE_F); }
