// What neither the 68000 vectors nor qemu can check: exception frames and
// privilege as this system defines them, the 68010/68020 additions, the
// effective-address helpers called directly, and the rules in which this
// CPU deliberately differs from a 68000.
#include <gtest/gtest.h>

#include <initializer_list>

#include "chipset/cia.h"
#include "cpu/cpu.h"
#include "test_machine.h"

namespace {

constexpr uint32_t CODE = 0x1000, HANDLERS = 0x00F00000, SUPER_STACK = 0x8000, USER_STACK = 0x6000;

struct Cpu : ::testing::Test {
    static void SetUpTestSuite() { op_table_fill(); }
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    // Every vector points at a handler address of its own.
    void SetUp() override {
        for (uint32_t v = 0; v < 256; v++) write32(m, v * 4, HANDLERS + v * 16);
        m.sr = 0x2700;
        m.a[7] = m.ssp = SUPER_STACK;
        m.usp = USER_STACK;
        m.pc = CODE;
    }
    void user_mode() {
        m.sr = 0x0000;
        m.ssp = SUPER_STACK;
        m.a[7] = USER_STACK;
    }
    void code(std::initializer_list<uint16_t> words, uint32_t at = CODE) {
        m.pc = at;
        for (uint16_t w : words) {
            write16(m, at, w);
            at += 2;
        }
    }
    // The vector whose handler the CPU is in, or -1.
    int vector_taken() const {
        return m.pc >= HANDLERS && m.pc < HANDLERS + 256 * 16 ? int((m.pc - HANDLERS) / 16) : -1;
    }
    // The frame at A7: vector-offset word, SR, return address.
    uint16_t frame_offset() { return read16(m, m.a[7]); }
    uint16_t frame_sr() { return read16(m, m.a[7] + 2); }
    uint32_t frame_pc() { return read32(m, m.a[7] + 4); }
};

}  // namespace

TEST_F(Cpu, ResetLoadsStackPointerAndProgramCounter) {
    write32(m, 0, 0x00001000);
    write32(m, 4, 0x00000400);
    m.vbr = 0x1234;
    m.stopped = 1;
    m.fault = 2;
    m.d[3] = 0xDEAD;
    cpu_reset(m);
    EXPECT_EQ(m.a[7], 0x1000u);
    EXPECT_EQ(m.ssp, 0x1000u);
    EXPECT_EQ(m.pc, 0x400u);
    EXPECT_EQ(m.sr, 0x2700);
    EXPECT_EQ(m.vbr, 0u);
    EXPECT_EQ(m.usp, 0u);
    EXPECT_EQ(m.stopped, 0);
    EXPECT_EQ(m.fault, 0);
    EXPECT_EQ(m.d[3], 0xDEADu);  // the other registers are left alone
}

TEST_F(Cpu, ExceptionFrameFromUserMode) {
    m.sr = 0x001F;  // user mode, all condition codes
    m.a[7] = 0x8000;
    m.ssp = 0x2000;
    m.pc = 0x4242;
    m.fault = 2;
    uint32_t pc = exception(m, 4);
    EXPECT_EQ(m.usp, 0x8000u);
    EXPECT_EQ(m.a[7], 0x1FF8u);
    EXPECT_EQ(read16(m, 0x1FF8), 0x0010);  // vector offset, format 0
    EXPECT_EQ(read16(m, 0x1FFA), 0x001F);  // the old SR
    EXPECT_EQ(read32(m, 0x1FFC), 0x4242u); // the return address
    EXPECT_EQ(m.sr, 0x201F);               // supervisor, condition codes kept
    EXPECT_EQ(pc, HANDLERS + 4 * 16);
    EXPECT_EQ(m.pc, pc);
    EXPECT_EQ(m.fault, 0);
}

TEST_F(Cpu, ExceptionKeepsMaskAndMButClearsTrace) {
    m.sr = 0xD71F;  // T1, T0, M, supervisor, mask 7, all codes
    exception(m, 32);
    EXPECT_EQ(m.sr, 0x371F);
    EXPECT_EQ(frame_sr(), 0xD71F);
    EXPECT_EQ(m.a[7], SUPER_STACK - 8);  // already supervisor: no stack switch
}

TEST_F(Cpu, VectorBaseRegister) {
    m.vbr = 0x100;
    write32(m, 0x110, 0xABCDE0);
    EXPECT_EQ(exception(m, 4), 0xABCDE0u);
}

// Instruction-raised exceptions: the vector, and the stacked address (the
// address after the opcode and any extension words fetched so far).
TEST_F(Cpu, InstructionExceptions) {
    const struct {
        const char* what;
        std::initializer_list<uint16_t> words;
        int vector;
        uint32_t stacked_pc;
        bool user;
    } cases[] = {
        {"ILLEGAL", {0x4AFC}, 4, CODE + 2, false},
        {"unassigned (MOVEC)", {0x4E7A, 0x0801}, 4, CODE + 2, false},
        {"line F", {0xF200, 0x1234}, 11, CODE + 2, false},
        {"TRAP #0", {0x4E40}, 32, CODE + 2, false},
        {"TRAP #15", {0x4E4F}, 47, CODE + 2, true},
        {"DIVU.W #0,D1", {0x82FC, 0x0000}, 5, CODE + 4, false},
        {"DIVS.W D2,D1 with D2 = 0", {0x83C2}, 5, CODE + 2, false},
        {"CHK.W #-1,D0 with D0 = 5", {0x41BC, 0xFFFF}, 6, CODE + 4, false},
        {"MOVE D0,SR in user mode", {0x46C0}, 8, CODE + 2, true},
        {"MOVE SR,D0 in user mode", {0x40C0}, 8, CODE + 2, true},
        {"ANDI #$700,SR in user mode", {0x027C, 0x0700}, 8, CODE + 2, true},
        {"ORI #$700,SR in user mode", {0x007C, 0x0700}, 8, CODE + 2, true},
        {"EORI #$700,SR in user mode", {0x0A7C, 0x0700}, 8, CODE + 2, true},
        {"STOP #$2000 in user mode", {0x4E72, 0x2000}, 8, CODE + 2, true},
        {"RESET in user mode", {0x4E70}, 8, CODE + 2, true},
        {"MOVE A0,USP in user mode", {0x4E60}, 8, CODE + 2, true},
        {"MOVE USP,A0 in user mode", {0x4E68}, 8, CODE + 2, true},
        // RTE points back at itself.
        {"RTE in user mode", {0x4E73}, 8, CODE, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        if (c.user) user_mode();
        m.d[0] = 5;
        m.d[1] = 0x12345678;
        m.d[2] = 0;
        code(c.words);
        uint16_t sr_before = m.sr;
        step(m);
        EXPECT_EQ(vector_taken(), c.vector);
        EXPECT_EQ(frame_offset(), c.vector * 4);
        EXPECT_EQ(frame_pc(), c.stacked_pc);
        EXPECT_EQ(m.a[7], SUPER_STACK - 8);
        if (c.vector != 6) {
            EXPECT_EQ(frame_sr(), sr_before);  // CHK sets N first
        }
        EXPECT_EQ(m.d[1], 0x12345678u);
        EXPECT_EQ(m.d[0], 5u);
    }
}

TEST_F(Cpu, RteRestoresFrameAndSwitchesStacks) {
    // A frame as exception processing builds it, returning to user mode.
    m.a[7] = 0x7FF8;
    write16(m, 0x7FF8, 0x0010);
    write16(m, 0x7FFA, 0x0015);
    write32(m, 0x7FFC, 0x3456);
    m.usp = 0x6000;
    code({0x4E73});
    step(m);
    EXPECT_EQ(m.pc, 0x3456u);
    EXPECT_EQ(m.sr, 0x0015);
    EXPECT_EQ(m.ssp, 0x8000u);  // the popped supervisor stack
    EXPECT_EQ(m.a[7], 0x6000u); // now the user stack
}

TEST_F(Cpu, RteWithAFormatOtherThanZeroIsAFormatError) {
    m.a[7] = 0x7FF8;
    write16(m, 0x7FF8, 0x1000);
    write16(m, 0x7FFA, 0x0015);
    write32(m, 0x7FFC, 0x3456);
    code({0x4E73});
    step(m);
    EXPECT_EQ(vector_taken(), 14);
    // The old frame is where it was; the new one sits below it.
    EXPECT_EQ(m.a[7], 0x7FF0u);
    EXPECT_EQ(read16(m, 0x7FF8), 0x1000);
    EXPECT_EQ(read16(m, 0x7FFA), 0x0015);
    EXPECT_EQ(read32(m, 0x7FFC), 0x3456u);
    EXPECT_EQ(frame_offset(), 14 * 4);
}

TEST_F(Cpu, ExceptionThenRteReturnsAfterTheTrap) {
    write16(m, HANDLERS + 33 * 16, 0x4E73);  // RTE in the TRAP #1 handler
    user_mode();
    m.sr = 0x0008;
    code({0x4E41, 0x4E71});
    step(m);
    step(m);
    EXPECT_EQ(m.pc, CODE + 2);
    EXPECT_EQ(m.sr, 0x0008);
    EXPECT_EQ(m.a[7], USER_STACK);
    EXPECT_EQ(m.ssp, SUPER_STACK);
}

TEST_F(Cpu, StopLoadsSrAndStops) {
    code({0x4E72, 0x2015});
    step(m);
    EXPECT_EQ(m.stopped, 1);
    EXPECT_EQ(m.sr, 0x2015);
    EXPECT_EQ(m.pc, CODE + 4);
    // Stopping into user mode switches stacks; stopped stays set.
    code({0x4E72, 0x0000}, CODE + 4);
    step(m);
    EXPECT_EQ(m.a[7], USER_STACK);
    EXPECT_EQ(m.ssp, SUPER_STACK);
    EXPECT_EQ(m.stopped, 1);
    exception(m, 32);
    EXPECT_EQ(m.stopped, 1);
}

// Writes of SR keep T1, T0, S, M, the mask and the codes ($F71F) and swap
// the stacks when S changes. MOVE to CCR stores the whole low byte; the
// CCR immediates change the five condition codes only.
TEST_F(Cpu, StatusRegisterWrites) {
    const struct {
        const char* what;
        std::initializer_list<uint16_t> words;
        uint16_t sr_before, sr_after;
    } cases[] = {
        {"MOVE #$FFFF,SR", {0x46FC, 0xFFFF}, 0x2700, 0xF71F},
        {"ANDI #$DFFF,SR", {0x027C, 0xDFFF}, 0x271F, 0x071F},
        {"ORI #$00E0,SR", {0x007C, 0x00E0}, 0x2700, 0x2700},
        {"EORI #$2000,SR", {0x0A7C, 0x2000}, 0x2704, 0x0704},
        {"MOVE #$FF,CCR", {0x44FC, 0x00FF}, 0x2700, 0x27FF},
        {"MOVE #$1234,CCR", {0x44FC, 0x1234}, 0x2000, 0x2034},
        {"ORI #$FF,CCR", {0x003C, 0x00FF}, 0x2700, 0x271F},
        {"ANDI #$F1,CCR", {0x023C, 0x00F1}, 0x271F, 0x2711},
        {"EORI #$FF,CCR", {0x0A3C, 0x00FF}, 0x2705, 0x271A},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.sr = c.sr_before;
        code(c.words);
        step(m);
        EXPECT_EQ(m.sr, c.sr_after);
        bool user = !(c.sr_after & SR_S);
        EXPECT_EQ(m.a[7], user ? USER_STACK : SUPER_STACK);
        EXPECT_EQ(user ? m.ssp : m.usp, user ? SUPER_STACK : USER_STACK);
    }
}

// RTR restores the whole low byte of SR, bits 7-5 too.
TEST_F(Cpu, ReturnAndRestoreCcr) {
    m.a[7] = 0x7000;
    write16(m, 0x7000, 0xAAEE);
    write32(m, 0x7002, 0x2222);
    code({0x4E77});  // RTR
    step(m);
    EXPECT_EQ(m.sr, 0x27EE);
    EXPECT_EQ(m.pc, 0x2222u);
    EXPECT_EQ(m.a[7], 0x7006u);
}

TEST_F(Cpu, MoveFromSrAndCcr) {
    m.sr = 0x2715;
    m.d[0] = 0xFFFFFFFF;
    code({0x40C0, 0x42C1});  // MOVE SR,D0; MOVE CCR,D1
    m.d[1] = 0xFFFFFFFF;
    step(m);
    step(m);
    EXPECT_EQ(m.d[0], 0xFFFF2715u);
    EXPECT_EQ(m.d[1], 0xFFFF0015u);
}

// ---- 68010/68020 additions ----

TEST_F(Cpu, BranchDisplacements) {
    const struct {
        const char* what;
        std::initializer_list<uint16_t> words;
        uint16_t sr;
        uint32_t pc, pushed;  // pushed 0: nothing pushed
    } cases[] = {
        {"BRA.S +4", {0x6004}, 0, CODE + 6, 0},
        {"BRA.S -2", {0x60FE}, 0, CODE, 0},
        {"BRA.W +$100", {0x6000, 0x0100}, 0, CODE + 2 + 0x100, 0},
        {"BRA.L +$12344", {0x60FF, 0x0001, 0x2344}, 0, CODE + 2 + 0x12344, 0},
        {"BRA.L -$1000", {0x60FF, 0xFFFF, 0xF000}, 0, CODE + 2 - 0x1000, 0},
        {"BSR.L", {0x61FF, 0x0000, 0x0100}, 0, CODE + 2 + 0x100, CODE + 6},
        {"BSR.W", {0x6100, 0x0010}, 0, CODE + 2 + 0x10, CODE + 4},
        {"BEQ.L not taken", {0x67FF, 0x0000, 0x0100}, 0, CODE + 6, 0},
        {"BEQ.L taken", {0x67FF, 0x0000, 0x0100}, SR_Z, CODE + 2 + 0x100, 0},
        {"BNE.W not taken", {0x6600, 0x0100}, SR_Z, CODE + 4, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.sr = uint16_t(0x2700 | c.sr);
        code(c.words);
        step(m);
        EXPECT_EQ(m.pc, c.pc);
        if (c.pushed) {
            EXPECT_EQ(m.a[7], SUPER_STACK - 4);
            EXPECT_EQ(read32(m, m.a[7]), c.pushed);
        } else {
            EXPECT_EQ(m.a[7], SUPER_STACK);
        }
    }
}

TEST_F(Cpu, ReturnAndDeallocate) {
    m.a[7] = 0x7000;
    write32(m, 0x7000, 0x5678);
    code({0x4E74, 0x0010});  // RTD #16
    step(m);
    EXPECT_EQ(m.pc, 0x5678u);
    EXPECT_EQ(m.a[7], 0x7014u);
}

TEST_F(Cpu, LinkAndUnlink) {
    m.a[6] = 0xAAAA;
    code({0x480E, 0xFFFE, 0x0000, 0x4E5E});  // LINK.L A6,#-$20000; UNLK A6
    step(m);
    EXPECT_EQ(read32(m, SUPER_STACK - 4), 0xAAAAu);
    EXPECT_EQ(m.a[6], SUPER_STACK - 4);
    EXPECT_EQ(m.a[7], SUPER_STACK - 4 - 0x20000);
    step(m);
    EXPECT_EQ(m.a[6], 0xAAAAu);
    EXPECT_EQ(m.a[7], SUPER_STACK);

    // LINK A7 pushes the stack pointer's value from before the push.
    SetUp();
    code({0x4E57, 0xFFF0});
    step(m);
    EXPECT_EQ(read32(m, SUPER_STACK - 4), SUPER_STACK);
    EXPECT_EQ(m.a[7], SUPER_STACK - 4 - 16);
}

TEST_F(Cpu, ExtendByteToLong) {
    m.d[2] = 0x123456F0;
    code({0x49C2});  // EXTB.L D2
    step(m);
    EXPECT_EQ(m.d[2], 0xFFFFFFF0u);
    EXPECT_EQ(m.sr & 0x1F, SR_N);
}

// Indexed operands: brief words with scale, full-format words with base and
// outer displacements, suppressed base and index, memory indirection.
TEST_F(Cpu, IndexedAddresses) {
    const struct {
        const char* what;
        std::initializer_list<uint16_t> ext;
        uint32_t address, pc_advance;
    } cases[] = {
        {"brief D1.L*2 + 4", {0x1A04}, 0x1000 + 6 + 4, 2},
        {"brief D1.W*8 - 1", {0x16FF}, 0x1000 + 24 - 1, 2},
        {"brief A2.L*1", {0xA800}, 0x1000 + 0x40000, 2},
        {"brief D3.W sign-extended", {0x3000}, 0x1000u - 0x8000u, 2},
        {"full, base and index suppressed, long bd", {0x01F0, 0x0012, 0x3456}, 0x123456, 6},
        {"full, word bd + D1.L*4", {0x1D20, 0xFFF0}, 0x1000 - 16 + 12, 4},
        {"full, no bd (size 1)", {0x1910}, 0x1000 + 3, 2},
        {"full, memory pre-indexed, word od", {0x1922, 0x0100, 0x0008}, 0x77770000 + 8, 6},
        {"full, memory post-indexed, null od", {0x1925, 0x0200}, 0x55550000 + 3, 4},
        {"full, memory indirect, reserved od size 1", {0x0161, 0x0200}, 0x55550000, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.a[0] = 0x1000;
        m.d[1] = 3;
        m.a[2] = 0x40000;
        m.d[3] = 0x12348000;
        write32(m, 0x1000 + 0x100 + 3, 0x77770000);  // pre-indexed pointer (A0 + bd + index)
        write32(m, 0x1000 + 0x200, 0x55550000);      // post-indexed pointer (A0 + bd)
        code(c.ext, 0x2000);
        EXPECT_EQ(ea_an_idx(m, 0), c.address);
        EXPECT_EQ(m.pc, 0x2000 + c.pc_advance);
    }
}

TEST_F(Cpu, PcRelativeIndexUsesTheExtensionWordAddress) {
    m.d[2] = 0xFF;
    code({0x2805}, 0x720);
    EXPECT_EQ(ea_pc_idx(m), 0x720u + 5 + 0xFF);
    // A full-format word: bd relative to the same address.
    code({0x0170, 0x0000, 0x0100}, 0x800);  // index suppressed, long bd
    EXPECT_EQ(ea_pc_idx(m), 0x900u);
    // Through an instruction: LEA (d8,PC,D2.L*4),A1.
    m.d[2] = 2;
    code({0x43FB, 0x2C06});
    step(m);
    EXPECT_EQ(m.a[1], CODE + 2 + 6 + 8);
}

TEST_F(Cpu, ScaledIndexInAnInstruction) {
    m.a[0] = 0x3000;
    m.d[1] = 2;
    write32(m, 0x3000 + 16, 0xCAFEF00D);
    code({0x2030, 0x1E00});  // MOVE.L (0,A0,D1.L*8),D0
    step(m);
    EXPECT_EQ(m.d[0], 0xCAFEF00Du);
}

// ---- the address helpers called directly ----

TEST_F(Cpu, ControlAddressRejectsOtherModes) {
    for (uint16_t op : {0x4ED0, 0x4ED8, 0x4EE0, 0x4EC0, 0x4EC8, 0x4EFC, 0x4EFD, 0x4EFF}) {
        SCOPED_TRACE(op);
        SetUp();
        m.a[0] = 0x5000;
        code({0x0000}, 0x3000);
        uint32_t a = ea_addr_control(m, op);
        bool valid = op == 0x4ED0;
        EXPECT_EQ(a, valid ? 0x5000u : 0u);
        EXPECT_EQ(vector_taken(), valid ? -1 : 4);
        EXPECT_EQ(m.a[0], 0x5000u);
    }
}

TEST_F(Cpu, DataByteAddressSideEffects) {
    const struct {
        uint16_t opcode;
        unsigned reg;
        uint32_t address, reg_after;
    } cases[] = {
        {0x0018, 0, 0x5000, 0x5001},  // (A0)+
        {0x001F, 7, 0x5000, 0x5002},  // (A7)+: the stack stays even
        {0x0020, 0, 0x4FFF, 0x4FFF},  // -(A0)
        {0x0027, 7, 0x4FFE, 0x4FFE},  // -(A7)
        {0x0010, 0, 0x5000, 0x5000},  // (A0)
    };
    for (const auto& c : cases) {
        SetUp();
        m.a[c.reg] = 0x5000;
        EXPECT_EQ(ea_addr_data_byte(m, c.opcode), c.address) << std::hex << c.opcode;
        EXPECT_EQ(m.a[c.reg], c.reg_after) << std::hex << c.opcode;
    }
    SetUp();
    EXPECT_EQ(ea_addr_data_byte(m, 0x0000), 0u);  // Dn
    EXPECT_EQ(vector_taken(), 4);
}

TEST_F(Cpu, LoadWordInEveryMode) {
    m.d[1] = 0x11112222;
    m.a[1] = 0x5000;
    write16(m, 0x5000, 0x3333);
    write16(m, 0x4FFE, 0x4444);
    write16(m, 0x5010, 0x5555);
    code({0x7777}, 0x2000);
    EXPECT_EQ(ea_load_w(m, 0x0001), 0x2222);  // D1
    EXPECT_EQ(ea_load_w(m, 0x0009), 0x5000);  // A1
    EXPECT_EQ(ea_load_w(m, 0x0011), 0x3333);  // (A1)
    EXPECT_EQ(ea_load_w(m, 0x003C), 0x7777);  // #imm
    EXPECT_EQ(m.pc, 0x2002u);
    EXPECT_EQ(ea_load_w(m, 0x0019), 0x3333);  // (A1)+
    EXPECT_EQ(m.a[1], 0x5002u);
    EXPECT_EQ(ea_load_w(m, 0x0021), 0x3333);  // -(A1)
    EXPECT_EQ(ea_load_w(m, 0x0021), 0x4444);
    code({0x0012}, 0x2000);
    EXPECT_EQ(ea_load_w(m, 0x0029), 0x5555);  // d16(A1)
    EXPECT_EQ(ea_load_w(m, 0x003D), 0);       // mode 7/5
    EXPECT_EQ(vector_taken(), 4);
}

TEST_F(Cpu, AddxSubxOperandsAndStore) {
    // A byte -(A7),-(A7) moves A7 by 2 twice.
    m.a[7] = 0x7000;
    write8(m, 0x6FFE, 0x12);
    write8(m, 0x6FFC, 0x34);
    uint32_t d, s, address;
    addx_subx_operands(m, 0xDF0F, 0, d, s, address);  // ADDX.B -(A7),-(A7)
    EXPECT_EQ(s, 0x12u);
    EXPECT_EQ(d, 0x34u);
    EXPECT_EQ(address, 0x6FFCu);
    EXPECT_EQ(m.a[7], 0x6FFCu);

    // Register form: masked operands, destination Dx keeps its upper bits.
    m.d[1] = 0xAAAA1234;
    m.d[2] = 0xBBBB5678;
    addx_subx_operands(m, 0xD342, 1, d, s, address);  // ADDX.W D2,D1
    EXPECT_EQ(d, 0x1234u);
    EXPECT_EQ(s, 0x5678u);
    addx_subx_store(m, 0xD342, 1, address, 0x9999);
    EXPECT_EQ(m.d[1], 0xAAAA9999u);

    // A memory destination at the very top of the address space is memory.
    m.a[0] = 0;
    m.a[1] = 2;
    addx_subx_operands(m, 0xD109, 0, d, s, address);  // ADDX.B -(A1),-(A0)
    EXPECT_EQ(address, 0xFFFFFFFFu);
    m.d[0] = 0x12345678;
    addx_subx_store(m, 0xD109, 0, address, 0x5A);
    EXPECT_EQ(m.chip_ram[0xFFFFFF], 0x5A);
    EXPECT_EQ(m.d[0], 0x12345678u);
}

// ---- single-instruction rules ----

struct Case {
    const char* what;
    std::initializer_list<uint16_t> words;
    uint32_t d0, d1;    // before
    uint16_t ccr;       // before
    uint32_t d0_after, d1_after;
    uint16_t ccr_after;
};

TEST_F(Cpu, RegisterRules) {
    const Case cases[] = {
        {"MOVE.B #$FF,D0", {0x103C, 0x00FF}, 0x12345678, 0, 0, 0x123456FF, 0, SR_N},
        {"MOVE.W keeps X", {0x3001}, 0, 0x8000, SR_X | SR_V | SR_C, 0x8000, 0x8000, SR_X | SR_N},
        {"DIVU.W #1,D1 overflows: V only, C kept", {0x82FC, 0x0001}, 0, 0x00010000, SR_C | SR_N,
         0, 0x00010000, SR_C | SR_N | SR_V},
        {"DIVS.W #-1 of $80000000 overflows", {0x83FC, 0xFFFF}, 0, 0x80000000, SR_Z,
         0, 0x80000000, SR_Z | SR_V},
        {"DIVS.W #7 of -100", {0x83FC, 0x0007}, 0, uint32_t(-100), 0, 0, 0xFFFEFFF2, SR_N},
        {"DIVS.W #-2 of 65536 is -32768", {0x83FC, 0xFFFE}, 0, 0x00010000, 0, 0, 0x00008000, SR_N},
        {"DIVS.W #-2 of 65538 overflows", {0x83FC, 0xFFFE}, 0, 0x00010002, 0, 0, 0x00010002, SR_V},
        {"DIVS.W #-2 of 65534", {0x83FC, 0xFFFE}, 0, 0x0000FFFE, 0, 0, 0x00008001, SR_N},
        {"ABCD 0+0 clears Z", {0xC300}, 0, 0, SR_Z | SR_V, 0, 0, SR_V},
        {"ABCD 99+1 carries", {0xC300}, 0x01, 0x99, 0, 0x01, 0x00, SR_X | SR_C},
        {"SBCD 0-1 borrows", {0x8300}, 0x01, 0x00, 0, 0x01, 0x99, SR_X | SR_C | SR_N},
        {"ADDX.B zero keeps Z", {0xD300}, 0x00, 0x00, SR_Z, 0, 0, SR_Z},
        {"ADDX.B zero can't set Z", {0xD300}, 0x00, 0x00, 0, 0, 0, 0},
        // Shifts: count 0 clears C (ROXL copies X), ASL sets V on any
        // change of the top bit.
        {"LSL.L D1,D0 count 0", {0xE3A8}, 0x80000000, 0, SR_C | SR_X, 0x80000000, 0, SR_X | SR_N},
        {"ROXL.L D1,D0 count 0", {0xE3B0}, 1, 0, SR_X, 1, 0, SR_X | SR_C},
        {"ROXL.L D1,D0 count 64", {0xE3B0}, 1, 64, 0, 1, 64, 0},
        {"ASL.B #2,D0 $40", {0xE500}, 0x40, 0, 0, 0x00, 0, SR_Z | SR_V | SR_X | SR_C},
        {"ASL.B #2,D0 $C0 (top bit changes at the second step)", {0xE500}, 0xC0, 0, 0, 0x00, 0,
         SR_Z | SR_V | SR_X | SR_C},
        {"ASL.B #1,D0 $C0", {0xE300}, 0xC0, 0, 0, 0x80, 0, SR_N | SR_X | SR_C},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.d[0] = c.d0;
        m.d[1] = c.d1;
        m.sr = uint16_t(0x2700 | c.ccr);
        code(c.words);
        step(m);
        EXPECT_EQ(m.pc, CODE + 2 * c.words.size());
        EXPECT_EQ(m.d[0], c.d0_after);
        EXPECT_EQ(m.d[1], c.d1_after);
        EXPECT_EQ(m.sr & 0x1F, c.ccr_after);
    }
}

TEST_F(Cpu, AddressRegisterRules) {
    const struct {
        const char* what;
        std::initializer_list<uint16_t> words;
        uint32_t a0, a0_after;
    } cases[] = {
        {"ADDQ.W #8,A0 acts on the long", {0x5048}, 0x0000FFFF, 0x00010007},
        {"SUBQ.W #1,A0 below zero", {0x5348}, 0, 0xFFFFFFFF},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.a[0] = c.a0;
        m.sr = 0x271F;
        code(c.words);
        step(m);
        EXPECT_EQ(m.a[0], c.a0_after);
        EXPECT_EQ(m.sr, 0x271F);  // address arithmetic leaves the flags
    }
}

// Conditions above 15 never hold (the branches' conditions are covered by
// the vectors).
TEST_F(Cpu, ConditionCodesOutOfRange) {
    EXPECT_EQ(test_cc(m, 16), 0);
    EXPECT_EQ(test_cc(m, 0xFFFFFFFF), 0);
    m.sr = 0x2700;
    EXPECT_EQ(test_cc(m, 0), 1);
    EXPECT_EQ(test_cc(m, 1), 0);
}

// CLR and Scc read their destination before writing it, as the 68000 does:
// reading a CIA's interrupt control register acknowledges what is pending.
TEST_F(Cpu, ClearAndSetReadBeforeWriting) {
    for (uint16_t opcode : {uint16_t(0x4239), uint16_t(0x50F9)}) {  // CLR.B abs.L, ST abs.L
        SCOPED_TRACE(opcode);
        SetUp();
        cia_init(m);
        m.cia[0].icr_data = 0x01;  // timer A underflowed
        code({opcode, 0x00BF, 0xED01});
        step(m);
        EXPECT_EQ(m.cia[0].icr_data, 0);
    }
}
