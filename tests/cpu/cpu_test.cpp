// What neither the 68000 vectors nor qemu check: this system's exception
// frames and privilege rules, the 68010/68020 additions, and the rules in
// which this CPU differs from a 68000 on purpose.
#include <gtest/gtest.h>

#include "chipset/cia.h"
#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
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
        m.vbr = 0;
        m.stopped = 0;
        m.pc = CODE;
    }
    void user_mode(uint16_t sr = 0) {
        m.sr = sr;
        m.a[7] = USER_STACK;
    }
    void code(const std::vector<uint16_t>& words, uint32_t at = CODE) {
        put_words(m, at, words);
        m.pc = at;
    }
    // The vector whose handler the CPU is in, or -1.
    int vector_taken() const {
        return m.pc >= HANDLERS && m.pc < HANDLERS + 256 * 16 ? int((m.pc - HANDLERS) / 16) : -1;
    }
};

}  // namespace

TEST_F(Cpu, ResetAndExceptionEntry) {
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
    EXPECT_EQ(m.vbr | m.usp | m.stopped | m.fault, 0u);
    EXPECT_EQ(m.d[3], 0xDEADu);  // the other registers are left alone

    // From user mode with T1, T0, M, mask 7 and all codes: the frame is the
    // vector-offset word, the old SR and the return address, in that order.
    SetUp();
    user_mode(0xD71F);
    m.pc = 0x4242;
    m.fault = 2;
    m.stopped = 1;
    m.vbr = 0x100;
    write32(m, 0x100 + 4 * 4, 0xABCDE0);
    EXPECT_EQ(exception(m, 4), 0xABCDE0u);
    EXPECT_EQ(m.pc, 0xABCDE0u);
    EXPECT_EQ(m.usp, USER_STACK);
    EXPECT_EQ(m.a[7], SUPER_STACK - 8);
    EXPECT_EQ(read16(m, SUPER_STACK - 8), 0x0010);
    EXPECT_EQ(read16(m, SUPER_STACK - 6), 0xD71F);
    EXPECT_EQ(read32(m, SUPER_STACK - 4), 0x4242u);
    EXPECT_EQ(m.sr, 0x371F);  // trace cleared, supervisor, M, mask and codes kept
    EXPECT_EQ(m.fault, 0);
    EXPECT_EQ(m.stopped, 1);
}

// The vector, the stacked SR and the stacked address: after the opcode and
// the extension words fetched so far, except for RTE in user mode.
TEST_F(Cpu, InstructionExceptions) {
    const struct {
        const char* what;
        std::vector<uint16_t> words;
        int vector;
        uint32_t stacked_pc;
        bool user;
    } cases[] = {
        {"ILLEGAL", {0x4AFC}, 4, CODE + 2, false},
        {"line F", {0xF200, 0x1234}, 11, CODE + 2, false},
        {"TRAP #15", {0x4E4F}, 47, CODE + 2, true},
        {"DIVU.W #0,D1", {0x82FC, 0x0000}, 5, CODE + 4, false},
        {"CHK.W #-1,D0 with D0 = 5", {0x41BC, 0xFFFF}, 6, CODE + 4, false},
        {"MOVE SR,D0 in user mode (as on the 68010)", {0x40C0}, 8, CODE + 2, true},
        {"STOP #$2000 in user mode", {0x4E72, 0x2000}, 8, CODE + 2, true},
        {"RTE in user mode", {0x4E73}, 8, CODE, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        if (c.user) user_mode();
        m.d[0] = 5;
        m.d[1] = 0x12345678;
        code(c.words);
        uint16_t sr_before = m.sr;
        step(m);
        EXPECT_EQ(vector_taken(), c.vector);
        EXPECT_EQ(m.a[7], SUPER_STACK - 8);
        EXPECT_EQ(read16(m, m.a[7]), c.vector * 4);
        EXPECT_EQ(read16(m, m.a[7] + 2), sr_before);
        EXPECT_EQ(read32(m, m.a[7] + 4), c.stacked_pc);
        EXPECT_EQ(m.d[1], 0x12345678u);
        EXPECT_EQ(m.d[0], 5u);
    }
}

TEST_F(Cpu, RteReturnsThroughTheFrameOrRejectsItsFormat) {
    write16(m, HANDLERS + 33 * 16, 0x4E73);  // RTE in the TRAP #1 handler
    user_mode(0x0008);
    code({0x4E41, 0x4E71});
    step(m);
    step(m);
    EXPECT_EQ(m.pc, CODE + 2);
    EXPECT_EQ(m.sr, 0x0008);
    EXPECT_EQ(m.a[7], USER_STACK);
    EXPECT_EQ(m.ssp, SUPER_STACK);

    // Format 1: the old frame stays, the format error's frame goes below it.
    SetUp();
    m.a[7] = SUPER_STACK - 8;
    put_words(m, m.a[7], {0x1000, 0x0015, 0x0000, 0x3456});
    code({0x4E73});
    step(m);
    EXPECT_EQ(vector_taken(), 14);
    EXPECT_EQ(m.a[7], SUPER_STACK - 16);
    EXPECT_EQ(read16(m, m.a[7]), 14 * 4);
    EXPECT_EQ(read32(m, SUPER_STACK - 8), 0x10000015u);
    EXPECT_EQ(read32(m, SUPER_STACK - 4), 0x3456u);
}

// One instruction from supervisor mode with a return frame on the stack
// ($AAEE, $00002222): SR writes (STOP too) keep T1, T0, S, M, the mask and
// the codes ($F71F) and swap the stacks when S changes; MOVE to CCR and RTR
// store the whole low byte; flags where this CPU defines what the 68000 leaves
// undefined; and the 68010/68020 instructions. A push is the return address.
TEST_F(Cpu, SingleInstructionRules) {
    constexpr uint32_t NEXT = 0, SSP = SUPER_STACK;  // NEXT: the address after the instruction
    const struct {
        const char* what;
        std::vector<uint16_t> words;
        uint16_t sr;
        uint32_t d0, d1;
        uint32_t pc;
        uint16_t sr_after;
        uint32_t d0_after, d1_after, a7;
    } cases[] = {
        {"MOVE #$FFFF,SR", {0x46FC, 0xFFFF}, 0x2700, 0, 0, NEXT, 0xF71F, 0, 0, SSP},
        {"EORI #$2000,SR", {0x0A7C, 0x2000}, 0x2704, 0, 0, NEXT, 0x0704, 0, 0, USER_STACK},
        {"STOP #$2015", {0x4E72, 0x2015}, 0x2700, 0, 0, NEXT, 0x2015, 0, 0, SSP},
        {"STOP #0 into user mode", {0x4E72, 0x0000}, 0x2700, 0, 0, NEXT, 0x0000, 0, 0, USER_STACK},
        {"MOVE #$1234,CCR", {0x44FC, 0x1234}, 0x2000, 0, 0, NEXT, 0x2034, 0, 0, SSP},
        {"RTR", {0x4E77}, 0x2700, 0, 0, 0x2222, 0x27EE, 0, 0, SSP + 6},
        {"MOVE CCR,D1", {0x42C1}, 0x2715, 0, 0xFFFFFFFF, NEXT, 0x2715, 0, 0xFFFF0015, SSP},
        {"EXTB.L D0", {0x49C0}, 0x2700, 0x123456F0, 0, NEXT, 0x2708, 0xFFFFFFF0, 0, SSP},
        {"DIVU.W #1 overflows: V only, C kept", {0x82FC, 0x0001}, 0x2709, 0, 0x00010000, NEXT,
         0x270B, 0, 0x00010000, SSP},
        {"DIVS.W #-1 of $80000000 overflows", {0x83FC, 0xFFFF}, 0x2704, 0, 0x80000000, NEXT,
         0x2706, 0, 0x80000000, SSP},
        {"DIVS.W #-2 of 65536 is -32768", {0x83FC, 0xFFFE}, 0x2700, 0, 0x00010000, NEXT, 0x2708,
         0, 0x00008000, SSP},
        {"DIVS.W #-2 of 65538 overflows", {0x83FC, 0xFFFE}, 0x2700, 0, 0x00010002, NEXT, 0x2702,
         0, 0x00010002, SSP},
        {"ABCD 0+0 clears Z, keeps V", {0xC300}, 0x2706, 0, 0, NEXT, 0x2702, 0, 0, SSP},
        {"BRA.L +$12344", {0x60FF, 0x0001, 0x2344}, 0x2700, 0, 0, CODE + 2 + 0x12344, 0x2700, 0,
         0, SSP},
        {"BRA.L -$1000", {0x60FF, 0xFFFF, 0xF000}, 0x2700, 0, 0, CODE + 2 - 0x1000, 0x2700, 0, 0,
         SSP},
        {"BSR.L", {0x61FF, 0x0000, 0x0100}, 0x2700, 0, 0, CODE + 2 + 0x100, 0x2700, 0, 0, SSP - 4},
        {"BEQ.L not taken", {0x67FF, 0x0000, 0x0100}, 0x2700, 0, 0, NEXT, 0x2700, 0, 0, SSP},
        {"BEQ.L taken", {0x67FF, 0x0000, 0x0100}, 0x2704, 0, 0, CODE + 2 + 0x100, 0x2704, 0, 0,
         SSP},
        {"RTD #16", {0x4E74, 0x0010}, 0x2700, 0, 0, 0xAAEE0000, 0x2700, 0, 0, SSP + 4 + 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        put_words(m, SUPER_STACK, {0xAAEE, 0x0000, 0x2222});
        m.sr = c.sr;
        m.d[0] = c.d0;
        m.d[1] = c.d1;
        code(c.words);
        step(m);
        uint32_t next = CODE + 2 * uint32_t(c.words.size());
        EXPECT_EQ(m.pc, c.pc == NEXT ? next : c.pc);
        EXPECT_EQ(m.sr, c.sr_after);
        EXPECT_EQ(m.d[0], c.d0_after);
        EXPECT_EQ(m.d[1], c.d1_after);
        EXPECT_EQ(m.a[7], c.a7);
        EXPECT_EQ(m.stopped, c.words[0] == 0x4E72);
        if (c.a7 == SSP - 4) {
            EXPECT_EQ(read32(m, m.a[7]), next);
        }
        if (!(m.sr & SR_S)) {
            EXPECT_EQ(m.ssp, SUPER_STACK);
        }
    }
}

// LINK.L takes a 32-bit displacement; UNLK undoes it.
TEST_F(Cpu, LinkLong) {
    m.a[6] = 0xAAAA;
    code({0x480E, 0xFFFE, 0x0000, 0x4E5E});  // LINK.L A6,#-$20000; UNLK A6
    step(m);
    EXPECT_EQ(read32(m, SUPER_STACK - 4), 0xAAAAu);
    EXPECT_EQ(m.a[6], SUPER_STACK - 4);
    EXPECT_EQ(m.a[7], SUPER_STACK - 4 - 0x20000);
    step(m);
    EXPECT_EQ(m.a[6], 0xAAAAu);
    EXPECT_EQ(m.a[7], SUPER_STACK);
}

// Indexed operands through LEA: brief words with scale, full-format words
// with base and outer displacements, suppressed base and index, memory
// indirection, and the PC-relative base (the extension word's address).
TEST_F(Cpu, IndexedAddresses) {
    constexpr uint32_t BASE = 0x3000, EXT = CODE + 2;
    const struct {
        const char* what;
        uint16_t opcode;  // LEA (d8,A0,Xn),A1 or LEA (d8,PC,Xn),A1
        std::vector<uint16_t> ext;
        uint32_t address;
    } cases[] = {
        {"brief D1.L*2 + 4", 0x43F0, {0x1A04}, BASE + 6 + 4},
        {"brief D1.W*8 - 1", 0x43F0, {0x16FF}, BASE + 24 - 1},
        {"brief A2.L*1", 0x43F0, {0xA800}, BASE + 0x40000},
        {"brief D3.W sign-extended", 0x43F0, {0x3000}, BASE - 0x8000},
        {"full, base and index suppressed, long bd", 0x43F0, {0x01F0, 0x0012, 0x3456}, 0x123456},
        {"full, word bd + D1.L*4", 0x43F0, {0x1D20, 0xFFF0}, BASE - 16 + 12},
        {"full, no bd (size 1)", 0x43F0, {0x1910}, BASE + 3},
        {"full, memory pre-indexed, word od", 0x43F0, {0x1922, 0x0100, 0x0008}, 0x77770008},
        {"full, memory post-indexed, null od", 0x43F0, {0x1925, 0x0200}, 0x55550003},
        {"full, memory indirect, reserved od size", 0x43F0, {0x0161, 0x0200}, 0x55550000},
        {"PC brief D2.L*4 + 6", 0x43FB, {0x2C06}, EXT + 6 + 8},
        {"PC full, index suppressed, long bd", 0x43FB, {0x0170, 0x0000, 0x0100}, EXT + 0x100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        m.a[0] = BASE;
        m.d[1] = 3;
        m.d[2] = 2;
        m.a[2] = 0x40000;
        m.d[3] = 0x12348000;
        write32(m, BASE + 0x100 + 3, 0x77770000);  // pre-indexed pointer (A0 + bd + index)
        write32(m, BASE + 0x200, 0x55550000);      // post-indexed pointer (A0 + bd)
        code({c.opcode});
        put_words(m, EXT, c.ext);
        step(m);
        EXPECT_EQ(m.a[1], c.address);
        EXPECT_EQ(m.pc, EXT + 2 * c.ext.size());
    }
}

// The address helpers, called directly by host code, raise vector 4 and
// yield 0 for a mode they do not take (no instruction reaches them so).
TEST_F(Cpu, AddressHelpersRejectModesTheyDoNotTake) {
    auto load_w = [](Machine& m, uint16_t op) -> uint32_t { return ea_load_w(m, op); };
    // Control: (A0)+, D0, #imm; data byte: D0, A0; load word: mode 7/5.
    const std::pair<uint32_t (*)(Machine&, uint16_t), uint16_t> cases[] = {
        {ea_addr_control, 0x4ED8},   {ea_addr_control, 0x4EC0}, {ea_addr_control, 0x4EFC},
        {ea_addr_data_byte, 0x0000}, {ea_addr_data_byte, 0x0008}, {load_w, 0x003D}};
    for (const auto& [helper, opcode] : cases) {
        SCOPED_TRACE(opcode);
        SetUp();
        m.a[0] = 0x5000;
        EXPECT_EQ(helper(m, opcode), 0u);
        EXPECT_EQ(vector_taken(), 4);
        EXPECT_EQ(m.a[0], 0x5000u);
    }
}

// -(A0) from 0 reaches $FFFFFFFF, the register-destination mark: still memory.
TEST_F(Cpu, AddxToTheTopOfMemory) {
    m.a[0] = 0;
    m.a[1] = 0x5002;
    m.d[0] = 0x12345678;
    write8(m, 0x5001, 0x5A);
    code({0xD109});  // ADDX.B -(A1),-(A0)
    step(m);
    EXPECT_EQ(m.chip_ram[0xFFFFFF], 0x5A);
    EXPECT_EQ(m.d[0], 0x12345678u);
}

TEST_F(Cpu, ConditionsAbove15NeverHold) {
    EXPECT_EQ(test_cc(m, 0), 1);
    EXPECT_EQ(test_cc(m, 16), 0);
    EXPECT_EQ(test_cc(m, 0xFFFFFFFF), 0);
}

// CLR and Scc read their destination before writing it, as the 68000 does:
// reading a CIA's interrupt control register acknowledges what is pending.
TEST_F(Cpu, ClearAndSetReadBeforeWriting) {
    for (uint16_t opcode : {0x4239, 0x50F9}) {  // CLR.B abs.L, ST abs.L
        SCOPED_TRACE(opcode);
        SetUp();
        cia_init(m);
        m.cia[0].icr_data = 0x01;  // timer A underflowed
        code({opcode, 0x00BF, 0xED01});
        step(m);
        EXPECT_EQ(m.cia[0].icr_data, 0);
    }
}
