// The built-in CPU smoke tests: exceptions and RTE, effective addresses,
// moves and a return, a loop and the bit instructions. Each phase prints
// PASS, or the first failed check's FAIL line, after which nothing more runs.
#include "cli/selftest.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "cpu/cpu.h"
#include "disasm/disasm.h"
#include "machine.h"

namespace {

void put16(Machine& m, uint32_t address, uint16_t v) {
    m.chip_ram[address] = uint8_t(v >> 8);
    m.chip_ram[address + 1] = uint8_t(v);
}

void put32(Machine& m, uint32_t address, uint32_t v) {
    put16(m, address, uint16_t(v >> 16));
    put16(m, address + 2, uint16_t(v));
}

void put_words(Machine& m, uint32_t address, std::initializer_list<uint16_t> words) {
    for (uint16_t w : words) {
        put16(m, address, w);
        address += 2;
    }
}

void clear_ram(Machine& m) { std::memset(m.chip_ram, 0, CHIP_RAM_SIZE); }

bool fail(const char* line) {
    std::printf("%s\n", line);
    return false;
}

bool phase1(Machine& m) {
    put32(m, 0x000000, 0x00001000);  // reset stack pointer
    put32(m, 0x000004, 0x00000400);  // reset program counter
    put32(m, 0x000010, 0x00000500);  // vector 4, illegal instruction
    put_words(m, 0x400, {0x4AFC, 0x4E71, 0x4E71});  // ILLEGAL, NOP, NOP
    put16(m, 0x500, 0x4E73);                        // RTE

    cpu_reset(m);
    dump_state(m, "reset    ");
    step(m);
    dump_state(m, "after ill");
    if (m.pc != 0x500) {
        std::printf("FAIL: expected PC=0x500 after illegal, got %08x\n", m.pc);
        return false;
    }
    step(m);
    dump_state(m, "after rte");
    if (m.pc != 0x402) {
        std::printf("FAIL: expected PC=0x402 after rte, got %08x\n", m.pc);
        return false;
    }
    if (m.sr != 0x2700) {
        std::printf("FAIL: expected SR=%04x after rte, got %04x\n", 0x2700, m.sr);
        return false;
    }
    step(m);
    dump_state(m, "after nop");
    if (m.pc != 0x404) {
        std::printf("FAIL: expected PC=0x404 after nop, got %08x\n", m.pc);
        return false;
    }
    return true;
}

// The low six bits of an opcode select the mode; LEA carries them here.
constexpr uint16_t LEA_A5_D16 = 0x41ED, LEA_ABS_W = 0x41F8, LEA_ABS_L = 0x41F9,
                   LEA_PC_D16 = 0x41FA;

bool phase2(Machine& m) {
    clear_ram(m);
    m.a[7] = 0x4000;

    m.a[5] = 0x1000;
    m.pc = 0x400;
    put16(m, 0x400, 0x000A);
    uint32_t a = ea_addr_control(m, LEA_A5_D16);
    if (a != 0x100A || m.pc != 0x402) return fail("FAIL ea_an_d16");
    m.pc = 0x420;
    put16(m, 0x420, 0xFFFE);
    if (ea_addr_control(m, LEA_A5_D16) != 0x0FFE) return fail("FAIL ea_an_d16 negative");

    // Brief format: D2.L, scale 1, displacement 5.
    m.a[6] = 0x10000;
    m.d[2] = 0xFF;
    m.pc = 0x500;
    put16(m, 0x500, 0x2805);
    a = ea_an_idx(m, 6);
    if (a != 0x10104) {
        std::printf("FAIL ea_an_idx brief: %08x\n", a);
        return false;
    }
    // Brief format: D3.W sign-extended, displacement -1.
    m.a[1] = 0x20000;
    m.d[3] = 0xFFFF8000;
    m.pc = 0x510;
    put16(m, 0x510, 0x30FF);
    a = ea_an_idx(m, 1);
    if (a != 0x17FFF) {
        std::printf("FAIL ea_an_idx sign-extend word: %08x exp %08x\n", a, 0x17FFFu);
        return false;
    }
    // Full format: D1.L, long base displacement, no memory indirection.
    m.a[2] = 0x30000;
    m.d[1] = 16;
    m.pc = 0x520;
    put16(m, 0x520, 0x1930);
    put32(m, 0x522, 0x00345678);
    a = ea_an_idx(m, 2);
    if (a != 0x375688) {
        std::printf("FAIL ea_an_idx full BD long+idx: %08x exp %08x\n", a, 0x375688u);
        return false;
    }
    // Full format, memory indirect, index suppressed, long outer displacement.
    m.a[0] = 0;
    m.pc = 0x600;
    put_words(m, 0x600, {0x8173, 0x0000, 0x1000, 0x0000, 0x0005});
    put32(m, 0x1000, 0x00040000);
    a = ea_an_idx(m, 0);
    if (a != 0x40005) {
        std::printf("FAIL ea_an_idx memory indirect pre-idx long OD: %08x exp %08x\n", a, 0x40005u);
        return false;
    }
    m.pc = 0x680;
    put_words(m, 0x680, {0x8177, 0x0000, 0x2000, 0x0000, 0x0007});
    put32(m, 0x2000, 0x00050000);
    a = ea_an_idx(m, 0);
    if (a != 0x50007) {
        std::printf("FAIL ea_an_idx memory indirect post-idx long OD: %08x exp %08x\n", a,
                    0x50007u);
        return false;
    }

    // PC-relative: the base is the extension word's own address.
    m.pc = 0x700;
    put16(m, 0x700, 0x0010);
    a = ea_addr_control(m, LEA_PC_D16);
    if (a != 0x710) {
        std::printf("FAIL ea_pc_d16: %08x\n", a);
        return false;
    }
    m.pc = 0x720;
    put16(m, 0x720, 0x2805);
    a = ea_pc_idx(m);
    if (a != 0x824) {
        std::printf("FAIL ea_pc_idx brief: %08x\n", a);
        return false;
    }

    m.pc = 0x800;
    put16(m, 0x800, 0xFFFE);
    a = ea_addr_control(m, LEA_ABS_W);
    if (a != 0xFFFFFFFE) {
        std::printf("FAIL ea_abs_w sign-extend: %08x\n", a);
        return false;
    }
    m.pc = 0x810;
    put32(m, 0x810, 0x00ABCDEF);
    a = ea_addr_control(m, LEA_ABS_L);
    if (a != 0xABCDEF || m.pc != 0x814) {
        std::printf("FAIL ea_abs_l: %08x\n", a);
        return false;
    }

    put_words(m, 0x900, {0x12CD, 0x3456});
    m.pc = 0x900;
    if (fetch_imm_b(m) != 0xCD || m.pc != 0x902) return fail("FAIL fetch_imm_b");
    m.pc = 0x900;
    if (fetch_imm_w(m) != 0x12CD || m.pc != 0x902) return fail("FAIL fetch_imm_w");
    m.pc = 0x900;
    if (fetch_imm_l(m) != 0x12CD3456 || m.pc != 0x904) return fail("FAIL fetch_imm_l");
    return true;
}

bool phase3(Machine& m) {
    clear_ram(m);
    put_words(m, 0x400, {
                            0x7005,          // MOVEQ #5,D0
                            0x72FF,          // MOVEQ #-1,D1
                            0x2400,          // MOVE.L D0,D2
                            0x163C, 0x0042,  // MOVE.B #$42,D3
                            0x3080,          // MOVE.W D0,(A0)
                            0x24D9,          // MOVE.L (A1)+,(A2)+
                            0x4E75,          // RTS
                        });
    m.pc = 0x400;
    m.sr = 0x2700;
    m.a[7] = 0x20000;
    put32(m, 0x20000, 0x600);
    m.a[0] = 0x10000;
    m.a[1] = 0x11000;
    m.a[2] = 0x12000;
    put32(m, 0x11000, 0xDEADBEEF);
    m.d[3] = 0xAABBCC00;

    step(m);
    if (m.d[0] != 5) {
        std::printf("FAIL moveq #5,d0: d0=%08x sr=%04x\n", m.d[0], m.sr);
        return false;
    }
    step(m);
    if (m.d[1] != 0xFFFFFFFF || (m.sr & 0x1F) != SR_N) {
        std::printf("FAIL moveq #-1,d1: d1=%08x sr=%04x\n", m.d[1], m.sr);
        return false;
    }
    step(m);
    if (m.d[2] != 5) {
        std::printf("FAIL move.l d0,d2: d2=%08x sr=%04x\n", m.d[2], m.sr);
        return false;
    }
    step(m);
    if (m.d[3] != 0xAABBCC42) {
        std::printf("FAIL move.b #$42,d3: d3=%08x sr=%04x\n", m.d[3], m.sr);
        return false;
    }
    step(m);
    uint16_t w = chip_peek16(m, 0x10000);
    if (w != uint16_t(m.d[0])) {
        std::printf("FAIL move.w d0,(a0): mem=%04x\n", w);
        return false;
    }
    step(m);
    uint32_t l = chip_peek32(m, 0x12000);
    if (l != 0xDEADBEEF) {
        std::printf("FAIL move.l (a1)+,(a2)+: mem=%08x\n", l);
        return false;
    }
    if (m.a[1] != 0x11004 || m.a[2] != 0x12004) {
        std::printf("FAIL post-increment: a1=%08x a2=%08x\n", m.a[1], m.a[2]);
        return false;
    }
    step(m);
    if (m.pc != 0x600) {
        std::printf("FAIL rts: pc=%08x\n", m.pc);
        return false;
    }
    return true;
}

// Run the single instruction at `address`.
void run_at(Machine& m, uint32_t address) {
    m.pc = address;
    step(m);
}

bool phase4(Machine& m) {
    clear_ram(m);
    put_words(m, 0x400, {
                            0x7000,          // MOVEQ #0,D0
                            0x720E,          // MOVEQ #14,D1
                            0x5280,          // loop: ADDQ.L #1,D0
                            0x51C9, 0xFFFC,  // DBF D1,loop
                            0x4EF8, 0x0600,  // JMP $600.W
                        });
    m.pc = 0x400;
    m.sr = 0x2700;
    m.a[7] = 0x20000;
    for (int i = 0; i < 1000 && m.pc != 0x600; i++) step(m);
    if (m.pc != 0x600) {
        std::printf("FAIL phase4: did not reach 0x600, pc=%08x d0=%08x\n", m.pc, m.d[0]);
        return false;
    }
    if (m.d[0] != 15) {
        std::printf("FAIL phase4: d0=%08x expected 15\n", m.d[0]);
        return false;
    }

    put_words(m, 0x500, {0x0800, 0x0003});  // BTST #3,D0
    put_words(m, 0x510, {0x0800, 0x0002});  // BTST #2,D0
    put_words(m, 0x520, {0x08C0, 0x0005});  // BSET #5,D0
    m.d[0] = 0x12345678;
    run_at(m, 0x500);
    if (m.sr & SR_Z) return fail("FAIL btst static bit 3 of 0x12345678: Z set");
    run_at(m, 0x510);
    if (!(m.sr & SR_Z)) return fail("FAIL btst static bit 2 of 0x12345678: Z not set");
    m.d[0] = 0;
    run_at(m, 0x520);
    if (m.d[0] != 0x20) {
        std::printf("FAIL bset static bit 5: d0=%08x\n", m.d[0]);
        return false;
    }
    if (!(m.sr & SR_Z)) return fail("FAIL bset static bit 5: Z should be set (was 0 before set)");
    return true;
}

}  // namespace

int selftest_smoke(Machine& m) {
    bool (*const phases[])(Machine&) = {phase1, phase2, phase3, phase4};
    for (int i = 0; i < 4; i++) {
        if (!phases[i](m)) return 1;
        std::printf("phase%d smoke test PASS\n", i + 1);
    }
    return 0;
}
