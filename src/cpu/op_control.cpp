// Program control: branches, jumps, returns, traps, LINK/UNLK, Scc, STOP,
// RESET and NOP.
#include "cpu/ops.h"

void op_nop(Machine&, uint16_t) {}

void op_rts(Machine& m, uint16_t) { m.pc = cpu_pop32(m); }

// RTR restores the whole low byte of SR, as MOVE to CCR does.
void op_rtr(Machine& m, uint16_t) {
    uint16_t ccr = read16(m, m.a[7]);
    m.a[7] += 2;
    m.sr = uint16_t((m.sr & 0xFF00) | (ccr & 0xFF));
    m.pc = cpu_pop32(m);
}

// 68010: return and deallocate parameters.
void op_rtd(Machine& m, uint16_t) {
    uint32_t displacement = sext<W>(fetch16(m));
    m.pc = cpu_pop32(m);
    m.a[7] += displacement;
}

// The frame that exception processing builds: vector-offset word at +0,
// SR at +2, return address at +4. A format other than 0 is a frame this CPU
// never made; it is left on the stack and reported as a format error.
void op_rte(Machine& m, uint16_t) {
    if (!(m.sr & SR_S)) {
        m.pc -= 2;  // the privilege violation points at the RTE itself
        exception(m, VEC_PRIVILEGE);
        return;
    }
    uint32_t sp = m.a[7];
    uint16_t format = read16(m, sp);
    uint16_t sr = read16(m, sp + 2);
    uint32_t pc = read32(m, sp + 4);
    if (format & 0xF000) {
        exception(m, VEC_FORMAT);
        return;
    }
    m.a[7] = sp + 8;
    m.pc = pc;
    cpu_set_sr(m, sr);
}

void ops_register_returns() {
    op_bind("0100 1110 0111 0001", {}, op_nop, "op_nop");
    op_bind("0100 1110 0111 0011", {}, op_rte, "op_rte");
    op_bind("0100 1110 0111 0100", {}, op_rtd, "op_rtd");
    op_bind("0100 1110 0111 0101", {}, op_rts, "op_rts");
    op_bind("0100 1110 0111 0111", {}, op_rtr, "op_rtr");
}

// An 8-bit displacement of $00 announces a 16-bit one, $FF (68020) a 32-bit
// one; either way the base is the address after the opcode word.
void op_bcc(Machine& m, uint16_t op) {
    uint32_t base = m.pc;
    uint32_t displacement = sext<B>(op);
    if ((op & 0xFF) == 0x00) displacement = sext<W>(fetch16(m));
    else if ((op & 0xFF) == 0xFF) displacement = fetch32(m);
    unsigned cc = (op >> 8) & 15;
    if (cc == 1) {  // BSR
        cpu_push32(m, m.pc);
        m.pc = base + displacement;
    } else if (condition(m, cc)) {
        m.pc = base + displacement;
    }
}

void ops_register_bcc() { op_bind("0110 cccc dddd dddd", {}, op_bcc, "op_bcc"); }

// Loop until the condition holds or the low word of Dn runs out at -1.
void op_dbcc(Machine& m, uint16_t op) {
    uint32_t base = m.pc;
    uint32_t displacement = sext<W>(fetch16(m));
    if (condition(m, (op >> 8) & 15)) return;
    uint32_t& d = m.d[op & 7];
    uint16_t count = uint16_t(d - 1);
    d = (d & 0xFFFF0000) | count;
    if (count != 0xFFFF) m.pc = base + displacement;
}

void op_scc(Machine& m, uint16_t op) {
    store_decoded<B>(m, op, condition(m, (op >> 8) & 15) ? 0xFF : 0x00);
}

void op_jmp(Machine& m, uint16_t op) { m.pc = ea_addr_control(m, op); }

void op_jsr(Machine& m, uint16_t op) {
    uint32_t target = ea_addr_control(m, op);
    cpu_push32(m, m.pc);
    m.pc = target;
}

// LINK A7 stores the stack pointer's value from before the push.
static void link(Machine& m, unsigned reg, uint32_t displacement) {
    uint32_t frame = m.a[reg];
    m.a[7] -= 4;
    write32(m, m.a[7], frame);
    m.a[reg] = m.a[7];
    m.a[7] += displacement;
}

void op_link_w(Machine& m, uint16_t op) { link(m, op & 7, sext<W>(fetch16(m))); }
void op_link_l(Machine& m, uint16_t op) { link(m, op & 7, fetch32(m)); }

void op_unlk(Machine& m, uint16_t op) {
    unsigned r = op & 7;
    m.a[7] = m.a[r];
    m.a[r] = cpu_pop32(m);
}

void op_trap(Machine& m, uint16_t op) { exception(m, VEC_TRAP_0 + (op & 15)); }

void op_trapv(Machine& m, uint16_t) {
    if (m.sr & SR_V) exception(m, VEC_TRAPV);
}

// Privileged; the immediate is fetched only once the check has passed, so a
// violation stacks the address after the opcode word.
void op_stop(Machine& m, uint16_t) {
    if (!cpu_require_supervisor(m)) return;
    cpu_set_sr(m, fetch16(m));
    m.stopped = 1;
}

// Asserts the reset line for the peripherals; nothing here listens to it.
void op_reset(Machine& m, uint16_t) { cpu_require_supervisor(m); }

void ops_register_control_rest() {
    op_bind_modes("0101 cccc 11MM MRRR", {}, MODES_DATA_ALT, op_scc, "op_scc");
    op_bind("0101 cccc 1100 1rrr", {}, op_dbcc, "op_dbcc");
    op_bind_modes("0100 1110 11MM MRRR", {}, MODES_CONTROL, op_jmp, "op_jmp");
    op_bind_modes("0100 1110 10MM MRRR", {}, MODES_CONTROL, op_jsr, "op_jsr");
    op_bind("0100 1110 0101 0rrr", {}, op_link_w, "op_link_w");
    op_bind("0100 1000 0000 1rrr", {}, op_link_l, "op_link_l");
    op_bind("0100 1110 0101 1rrr", {}, op_unlk, "op_unlk");
    op_bind("0100 1110 0100 vvvv", {}, op_trap, "op_trap");
    op_bind("0100 1110 0111 0110", {}, op_trapv, "op_trapv");
    op_bind("0100 1110 0111 0010", {}, op_stop, "op_stop");
    op_bind("0100 1110 0111 0000", {}, op_reset, "op_reset");
}
