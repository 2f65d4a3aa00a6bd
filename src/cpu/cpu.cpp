// 68000 core: reset, exception processing.
#include "cpu/cpu.h"

OpHandler op_table[65536];

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

static void push32(Machine& m, uint32_t v) {
    m.a[7] -= 4;
    write32(m, m.a[7], v);
}

// The frame is 8 bytes: vector-offset word at +0, SR at +2, return PC at +4.
uint32_t exception(Machine& m, int vector) {
    uint16_t old_sr = m.sr;
    m.sr = uint16_t((old_sr & 0x171F) | SR_S);
    if (!(old_sr & SR_S)) {
        m.usp = m.a[7];
        m.a[7] = m.ssp;
    }
    push32(m, m.pc);
    push16(m, old_sr);
    push16(m, uint16_t((vector * 4) & 0x0FFF));
    m.pc = read32(m, m.vbr + uint32_t(vector) * 4);
    m.fault = 0;
    return m.pc;
}

void op_illegal(Machine& m, uint16_t) { exception(m, 4); }

void op_table_fill() {
    for (OpHandler& h : op_table) h = op_illegal;
}
