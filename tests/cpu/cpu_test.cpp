// What neither the 68000 vectors nor qemu check: this system's exception
// frames and privilege rules, the 68010/68020 additions, and the rules in
// which this CPU differs from a 68000 on purpose.
#include <gtest/gtest.h>

#include "chipset/cia.h"
#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "test_machine.h"

namespace {

constexpr uint32_t CODE = 0x1000, HANDLERS = 0x00F00000, SSP = 0x8000, USP = 0x6000;
constexpr uint32_t H(int vector) { return HANDLERS + uint32_t(vector) * 16; }

struct Cpu : ::testing::Test {
    static void SetUpTestSuite() { op_table_fill(); }
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    // Every vector points at a handler address of its own.
    void SetUp() override {
        for (int v = 0; v < 256; v++) write32(m, uint32_t(v) * 4, H(v));
        m.sr = 0x2700;
        m.a[7] = m.ssp = SSP;
        m.usp = USP;
        m.pc = CODE;
    }
    void code(const std::vector<uint16_t>& words) {
        put_words(m, CODE, words);
        m.pc = CODE;
    }
};

}  // namespace

// One instruction, from user mode when S is clear, with the stack holding
// $00EE $2015 $0000 $2222 unless the row says otherwise. An exception stacks
// the vector-offset word, the old SR and the return address (stacked, when
// given); otherwise stacked is the long pushed. SR writes keep T1, T0, S, M,
// the mask and the codes ($F71F); MOVE to CCR and RTR store the whole low
// byte; and the flags this CPU defines where a 68000 does not.
TEST_F(Cpu, SingleInstructionRules) {
    constexpr uint32_t NEXT = 0;  // the address after the instruction
    const struct {
        const char* what;
        std::vector<uint16_t> words;
        uint16_t sr;
        uint32_t d0, a0, pc;
        uint16_t sr_after;
        uint32_t d0_after, a0_after, a7, stacked = 0;
        std::vector<uint16_t> stack = {0x00EE, 0x2015, 0x0000, 0x2222};
    } cases[] = {
        {"ILLEGAL", {0x4AFC}, 0x2700, 0, 0, H(4), 0x2700, 0, 0, SSP - 8, CODE + 2},
        {"TRAP #15 from user mode with T1, T0, M", {0x4E4F}, 0xD71F, 0, 0, H(47), 0x371F, 0, 0,
         SSP - 8, CODE + 2},
        {"DIVU.W #0,D0", {0x80FC, 0x0000}, 0x2700, 5, 0, H(5), 0x2700, 5, 0, SSP - 8, CODE + 4},
        {"MOVE SR,D0 in user mode (as on the 68010)", {0x40C0}, 0x0000, 5, 0, H(8), 0x2000, 5, 0,
         SSP - 8, CODE + 2},
        {"RTE in user mode", {0x4E73}, 0x0000, 0, 0, H(8), 0x2000, 0, 0, SSP - 8, CODE},
        {"STOP in user mode", {0x4E72, 0x2700}, 0x0000, 0, 0, H(8), 0x2000, 0, 0, SSP - 8,
         CODE + 2},
        {"MOVE #$2700,SR in user mode", {0x46FC, 0x2700}, 0x0000, 0, 0, H(8), 0x2000, 0, 0,
         SSP - 8, CODE + 2},
        {"CHK.W #-1,D0 of $8000: N set, Z V C kept", {0x41BC, 0xFFFF}, 0x2707, 0x8000, 0, H(6),
         0x270F, 0x8000, 0, SSP - 8, CODE + 4},
        {"RTE of format 1", {0x4E73}, 0x2700, 0, 0, H(14), 0x2700, 0, 0, SSP - 8, 0,
         {0x1000, 0x2015, 0x0000, 0x2222}},
        {"RTE", {0x4E73}, 0x2700, 0, 0, 0x2222, 0x2015, 0, 0, SSP + 8},
        {"MOVE #$FFFF,SR", {0x46FC, 0xFFFF}, 0x2700, 0, 0, NEXT, 0xF71F, 0, 0, SSP},
        {"MOVE #$1234,CCR", {0x44FC, 0x1234}, 0x2000, 0, 0, NEXT, 0x2034, 0, 0, SSP},
        {"RTR", {0x4E77}, 0x2700, 0, 0, 0x20150000, 0x27EE, 0, 0, SSP + 6},
        {"MOVE CCR,D0", {0x42C0}, 0x2715, ~0u, 0, NEXT, 0x2715, 0xFFFF0015, 0, SSP},
        {"DIVU.W #1 overflows: V only, N and C kept", {0x80FC, 0x0001}, 0x2709, 0x10000, 0, NEXT,
         0x270B, 0x10000, 0, SSP},
        {"DIVS.W #-1 of $80000000 overflows", {0x81FC, 0xFFFF}, 0x2704, 0x80000000, 0, NEXT,
         0x2706, 0x80000000, 0, SSP},
        {"DIVS.W #-2 of 65536: -32768 fits", {0x81FC, 0xFFFE}, 0x2700, 0x10000, 0, NEXT, 0x2708,
         0x8000, 0, SSP},
        {"CHK.W #5,D0 within bounds changes nothing", {0x41BC, 0x0005}, 0x270F, 5, 0, NEXT,
         0x270F, 5, 0, SSP},
        {"ABCD D0,D0 of 0 clears Z, keeps V", {0xC100}, 0x2706, 0, 0, NEXT, 0x2702, 0, 0, SSP},
        {"BSR.L", {0x61FF, 0x0000, 0x0100}, 0x2700, 0, 0, CODE + 0x102, 0x2700, 0, 0, SSP - 4,
         CODE + 6},
        {"BEQ.L taken", {0x67FF, 0xFFFF, 0xFF00}, 0x2704, 0, 0, CODE + 2 - 0x100, 0x2704, 0, 0,
         SSP},
        {"RTD #16", {0x4E74, 0x0010}, 0x2700, 0, 0, 0x00EE2015, 0x2700, 0, 0, SSP + 4 + 16},
        {"LINK.L A0,#-$20000", {0x4808, 0xFFFE, 0x0000}, 0x2700, 0, 0xAAAA, NEXT, 0x2700, 0,
         SSP - 4, SSP - 4 - 0x20000, 0xAAAA},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        put_words(m, SSP - 8, {0, 0, 0, 0});
        put_words(m, SSP, c.stack);
        m.sr = c.sr;
        if (!(c.sr & SR_S)) m.a[7] = USP;
        m.d[0] = c.d0;
        m.a[0] = c.a0;
        code(c.words);
        step(m);
        EXPECT_EQ(m.pc, c.pc == NEXT ? CODE + 2 * uint32_t(c.words.size()) : c.pc);
        EXPECT_EQ(m.sr, c.sr_after);
        EXPECT_EQ(m.d[0], c.d0_after);
        EXPECT_EQ(m.a[0], c.a0_after);
        EXPECT_EQ(m.a[7], c.a7);
        EXPECT_EQ(m.sr & SR_S ? m.usp : m.ssp, m.sr & SR_S ? USP : SSP);  // the other stack
        if (m.pc >= HANDLERS && m.pc < H(256)) {
            EXPECT_EQ(read16(m, SSP - 8), (m.pc - HANDLERS) / 4);
            // The old SR, with the condition codes the instruction left.
            EXPECT_EQ(read16(m, SSP - 6), (c.sr & 0xFFE0) | (c.sr_after & 0x1F));
        }
        if (c.stacked) {
            EXPECT_EQ(read32(m, SSP - 4), c.stacked);
        }
    }
}

// Indexed operands through LEA: the scale, the full format with base and
// outer displacements, suppressed base and index, memory indirection, and the
// PC-relative base (the extension word's address).
TEST_F(Cpu, IndexedAddresses) {
    constexpr uint32_t BASE = 0x3000, EXT = CODE + 2;
    const struct {
        const char* what;
        uint16_t opcode;  // LEA (d8,A0,Xn),A1 or LEA (d8,PC,Xn),A1
        std::vector<uint16_t> ext;
        uint32_t address;
    } cases[] = {
        {"full, base and index suppressed, long bd", 0x43F0, {0x01F0, 0x0012, 0x3456}, 0x123456},
        {"full, word bd + D1.L*4", 0x43F0, {0x1D20, 0xFFF0}, BASE - 16 + 12},
        {"full, memory pre-indexed, word od", 0x43F0, {0x1922, 0x0100, 0x0008}, 0x77770008},
        {"full, memory post-indexed, null od", 0x43F0, {0x1925, 0x0200}, 0x55550003},
        {"PC brief D2.L*4 + 6", 0x43FB, {0x2C06}, EXT + 6 + 8},
        {"PC full, index suppressed, long bd", 0x43FB, {0x0170, 0x0000, 0x0100}, EXT + 0x100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        m.a[0] = BASE;
        m.d[1] = 3;
        m.d[2] = 2;
        write32(m, BASE + 0x100 + 3, 0x77770000);  // pre-indexed pointer (A0 + bd + index)
        write32(m, BASE + 0x200, 0x55550000);      // post-indexed pointer (A0 + bd)
        code({c.opcode});
        put_words(m, EXT, c.ext);
        step(m);
        EXPECT_EQ(m.a[1], c.address);
        EXPECT_EQ(m.pc, EXT + 2 * c.ext.size());
    }
}

// The vector table follows VBR; a vector past the top of memory reads all
// ones, and the exception clears the fault.
TEST_F(Cpu, VectorBase) {
    write32(m, 0x110, 0x4444);
    for (auto [vbr, pc] : {std::pair{0x100u, 0x4444u}, {0xFFFFEFu, 0xFFFFFFFFu}}) {
        m.vbr = vbr;
        EXPECT_EQ(exception(m, 4), pc);
        EXPECT_EQ(m.pc, pc);
        EXPECT_EQ(m.fault, 0);
    }
    EXPECT_EQ(test_cc(m, 16), 0);
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

// CLR and Scc read their destination before writing it, as the 68000 does:
// reading a CIA's interrupt control register acknowledges what is pending.
TEST_F(Cpu, ClearAndSetReadBeforeWriting) {
    cia_init(m);
    for (uint16_t opcode : {0x4239, 0x50F9}) {  // CLR.B abs.L, ST abs.L
        m.cia[0].icr_data = 0x01;               // timer A underflowed
        code({opcode, 0x00BF, 0xED01});
        step(m);
        EXPECT_EQ(m.cia[0].icr_data, 0) << opcode;
    }
}
