#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "chipset/cia.h"
#include "cpu/bus.h"
#include "disasm/disasm.h"
#include "test_machine.h"

namespace {

constexpr uint32_t ORG = 0x1000;

struct DisasmTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    void put(uint32_t address, std::initializer_list<uint16_t> words) {
        for (uint16_t w : words) {
            m.chip_ram[address & ADDR_MASK] = uint8_t(w >> 8);
            m.chip_ram[(address + 1) & ADDR_MASK] = uint8_t(w);
            address += 2;
        }
    }
};

struct Case {
    std::vector<uint16_t> words;
    const char* text;
    uint32_t length;
};

void check(DisasmTest& t, uint32_t address, const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::memset(t.m.chip_ram + address, 0, 32);
        for (size_t i = 0; i < c.words.size(); i++) t.put(address + 2 * uint32_t(i), {c.words[i]});
        char text[96];
        EXPECT_EQ(disasm_one(t.m, address, text), c.length);
        EXPECT_STREQ(text, c.text);
    }
}

}  // namespace

TEST(DaEmit, LineFormats) {
    struct {
        const char *mnemonic, *op1, *op2, *text;
    } cases[] = {
        {"rts", nullptr, nullptr, "rts"},
        {"swap", "d3", nullptr, "swap    d3"},
        {"move.l", "d0", "d1", "move.l  d0,d1"},
        {"movea.l", "d0", "a0", "movea.l d0,a0"},  // seven columns exactly
        {"dc.w", "$4afc", nullptr, "dc.w    $4afc"},
    };
    for (const auto& c : cases) {
        char text[96];
        da_emit(text, c.mnemonic, c.op1, c.op2);
        EXPECT_STREQ(text, c.text);
    }
}

TEST_F(DisasmTest, EffectiveAddressesConsumeTheirExtensionWords) {
    struct {
        int mode, reg, size;
        std::vector<uint16_t> words;
        const char* text;
        uint32_t consumed;
    } cases[] = {
        {0, 3, 1, {}, "d3", 0},
        {1, 7, 2, {}, "a7", 0},
        {2, 0, 1, {}, "(a0)", 0},
        {3, 1, 1, {}, "(a1)+", 0},
        {4, 2, 1, {}, "-(a2)", 0},
        {5, 6, 1, {0xFDD8}, "-552(a6)", 2},
        {5, 0, 1, {0x0010}, "16(a0)", 2},
        {6, 0, 1, {0x3080}, "(-128,a0,d3.w)", 2},
        {6, 4, 1, {0x9E10}, "(16,a4,a1.l*8)", 2},
        {7, 0, 1, {0xFFFE}, "$fffe.w", 2},
        {7, 1, 1, {0x00BF, 0xE001}, "$bfe001.l", 4},
        // d16(PC): the extension word at ORG plus -16.
        {7, 2, 1, {0xFFF0}, "$ff0(pc)", 2},
        {7, 3, 1, {0x0006}, "(6,pc,d0.w)", 2},
        {7, 4, 0, {0x12FF}, "#$ff", 2},
        {7, 4, 1, {0xFFFE}, "#$fffe", 2},
        {7, 4, 2, {0x1234, 0x5678}, "#$12345678", 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        for (size_t i = 0; i < c.words.size(); i++) put(ORG + 2 * uint32_t(i), {c.words[i]});
        uint32_t address = ORG;
        char text[64];
        da_ea(m, address, c.mode, c.reg, c.size, text);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(address - ORG, c.consumed);
    }
}

TEST_F(DisasmTest, IndexedOperandsBriefAndFull) {
    // The base text is passed in; the full format may suppress it ("z") and
    // the index, and consumes outer displacements without showing them.
    struct {
        const char* base;
        std::vector<uint16_t> words;
        const char* text;
        uint32_t consumed;
    } cases[] = {
        {"a0", {0x1804}, "(4,a0,d1.l)", 2},
        {"a0", {0x1AFE}, "(-2,a0,d1.l*2)", 2},
        {"a3", {0x1C10}, "(16,a3,d1.l*4)", 2},
        {"pc", {0xA0FF}, "(-1,pc,a2.w)", 2},
        // Index d1.l, long base displacement, no memory indirection.
        {"a2", {0x1930, 0x0034, 0x5678}, "(3430008,a2,d1.l)", 6},
        // Index suppressed, long base displacement, pre-indexed long outer.
        {"a0", {0x8173, 0x0000, 0x1000, 0x0000, 0x0005}, "(4096,a0)", 10},
        // Post-indexed form with word outer displacement.
        {"a1", {0x3126, 0x0100, 0x0002}, "(256,a1,d3.w)", 6},
        // Base suppressed, word base displacement.
        {"a5", {0x01E0, 0x0010}, "(16,z)", 4},
        {"pc", {0x01A0, 0xFFF0}, "(-16,z,d0.w)", 4},
        {"pc", {0x0920, 0x1234}, "(4660,pc,d0.l)", 4},
        // Null base displacement (size codes 0 and 1), null outer displacement.
        {"a0", {0x0191}, "(0,z,d0.w)", 2},
        {"a0", {0x0100}, "(0,a0,d0.w)", 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        for (size_t i = 0; i < c.words.size(); i++) put(ORG + 2 * uint32_t(i), {c.words[i]});
        uint32_t address = ORG;
        char text[64];
        da_index(m, address, c.base, text);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(address - ORG, c.consumed);
    }
}

TEST_F(DisasmTest, ControlFlowAndSystem) {
    check(*this, ORG,
          {
              {{0x4E75}, "rts", 2},
              {{0x4E72, 0x2700}, "stop    #$2700", 4},
              {{0x4E71}, "nop", 2},
              {{0x4E70}, "reset", 2},
              {{0x4E73}, "rte", 2},
              {{0x4E74, 0x0008}, "rtd     #$8", 4},
              {{0x4E76}, "trapv", 2},
              {{0x4E77}, "rtr", 2},
              {{0x4E4F}, "trap    #15", 2},
              {{0x4E40}, "trap    #0", 2},
              // DBcc: the displacement word's address plus the displacement.
              {{0x51C8, 0xFFFE}, "dbf     d0,$1000", 4},
              {{0x50C9, 0x0010}, "dbt     d1,$1012", 4},
              {{0x5ECF, 0x0000}, "dbgt    d7,$1002", 4},
              // Bcc: counted from the word after the opcode.
              {{0x6000, 0x0010}, "bra     $1012", 4},
              {{0x60FE}, "bra     $1000", 2},
              {{0x60FF, 0x0000, 0x0100}, "bra     $1102", 6},
              {{0x6100, 0xFFFE}, "bsr     $1000", 4},
              {{0x6704}, "beq     $1006", 2},
              {{0x6EFC}, "bgt     $ffe", 2},
              {{0x62FF, 0xFFFF, 0xE000}, "bhi     $fffff002", 6},
              {{0x57C0}, "seq     d0", 2},
              {{0x50D0}, "st      (a0)", 2},
              {{0x51C1}, "sf      d1", 2},
              {{0x4EAE, 0xFDD8}, "jsr     -552(a6)", 4},
              {{0x4EF9, 0x00FC, 0x0000}, "jmp     $fc0000.l", 6},
              {{0x41FA, 0x000E}, "lea     $1010(pc),a0", 4},
              {{0x4879, 0x0001, 0x0000}, "pea     $10000.l", 6},
              {{0x4E56, 0xFFF8}, "link.w  a6,#-8", 4},
              {{0x480D, 0x0001, 0x0000}, "link.l  a5,#65536", 6},
              {{0x4E5E}, "unlk    a6", 2},
              {{0x4E60}, "move    a0,usp", 2},
              {{0x4E6F}, "move    usp,a7", 2},
              {{0x40C0}, "move.w  sr,d0", 2},
              {{0x42C1}, "move.w  ccr,d1", 2},
              {{0x44FC, 0x001F}, "move.w  #$1f,ccr", 4},
              {{0x46FC, 0x2700}, "move.w  #$2700,sr", 4},
              {{0x003C, 0x0010}, "ori.b   #$10,ccr", 4},
              {{0x027C, 0xF8FF}, "andi.w  #$f8ff,sr", 4},
              {{0x0A3C, 0x0001}, "eori.b  #$1,ccr", 4},
              {{0x4181}, "chk.w   d1,d0", 2},
          });
}

TEST_F(DisasmTest, MovesAndOperandForms) {
    check(*this, ORG,
          {
              {{0x70FF}, "moveq   #-1,d0", 2},
              {{0x7E7F}, "moveq   #127,d7", 2},
              {{0x7080}, "moveq   #-128,d0", 2},
              {{0x2200}, "move.l  d0,d1", 2},
              {{0x1010}, "move.b  (a0),d0", 2},
              {{0x30D8}, "move.w  (a0)+,(a0)+", 2},
              {{0x2F00}, "move.l  d0,-(a7)", 2},
              {{0x2040}, "movea.l d0,a0", 2},
              {{0x3248}, "movea.w a0,a1", 2},
              {{0x13FC, 0x00FF, 0x00BF, 0xE001}, "move.b  #$ff,$bfe001.l", 8},
              {{0x103C, 0x12FF}, "move.b  #$ff,d0", 4},
              {{0x303C, 0xFFFE}, "move.w  #$fffe,d0", 4},
              {{0x203C, 0x1234, 0x5678}, "move.l  #$12345678,d0", 6},
              {{0x3038, 0xFFFE}, "move.w  $fffe.w,d0", 4},
              {{0x2028, 0x0010}, "move.l  16(a0),d0", 4},
              {{0x202E, 0xFFFC}, "move.l  -4(a6),d0", 4},
              {{0x303A, 0xFFF0}, "move.w  $ff2(pc),d0", 4},
              {{0x203B, 0x0006}, "move.l  (6,pc,d0.w),d0", 4},
              {{0x2030, 0x1AFE}, "move.l  (-2,a0,d1.l*2),d0", 4},
              {{0x2031, 0x1930, 0x0034, 0x5678}, "move.l  (3430008,a1,d1.l),d0", 8},
              {{0x2030, 0x8173, 0x0000, 0x1000, 0x0000, 0x0005}, "move.l  (4096,a0),d0", 12},
              // Both operands full format, long base and outer displacements:
              // the longest instruction there is.
              {{0x21B0, 0x0133, 0x1111, 0x1111, 0x2222, 0x2222, 0x0133, 0x3333, 0x3333, 0x4444,
                0x4444},
               "move.l  (286331153,a0,d0.w),(858993459,a0,d0.w)",
               22},
              {{0x48E7, 0xFFFE}, "movem.l d0-d7/a0-a6,-(a7)", 4},
              {{0x4CDF, 0x7FFF}, "movem.l (a7)+,d0-d7/a0-a6", 4},
              {{0x48E7, 0xC0C0}, "movem.l d0-d1/a0-a1,-(a7)", 4},
              {{0x4C90, 0x0180}, "movem.w (a0),d7/a0", 4},
              {{0x48D0, 0x0005}, "movem.l d0/d2,(a0)", 4},
              {{0x4CEE, 0x0303, 0xFFF0}, "movem.l -16(a6),d0-d1/a0-a1", 6},
              {{0x48E7, 0x0000}, "movem.l #0,-(a7)", 4},
              {{0x0108, 0x0004}, "movep.w 4(a0),d0", 4},
              {{0x01C9, 0xFFFE}, "movep.l d0,-2(a1)", 4},
          });
}

TEST_F(DisasmTest, ArithmeticLogicAndBits) {
    check(*this, ORG,
          {
              {{0xD041}, "add.w   d1,d0", 2},
              {{0xD190}, "add.l   d0,(a0)", 2},
              {{0xD2C8}, "adda.w  a0,a1", 2},
              {{0xD1FC, 0x0001, 0x0000}, "adda.l  #$10000,a0", 6},
              {{0xD308}, "addx.b  -(a0),-(a1)", 2},
              {{0xD380}, "addx.l  d0,d1", 2},
              {{0x0640, 0x0100}, "addi.w  #$100,d0", 4},
              {{0x0C28, 0x0041, 0x0004}, "cmpi.b  #$41,4(a0)", 6},
              {{0x5280}, "addq.l  #1,d0", 2},
              {{0x5088}, "addq.l  #8,a0", 2},
              {{0x5348}, "subq.w  #1,a0", 2},
              {{0x9081}, "sub.l   d1,d0", 2},
              {{0x93C8}, "suba.l  a0,a1", 2},
              {{0x0440, 0x0002}, "subi.w  #$2,d0", 4},
              {{0xB0A8, 0x0008}, "cmp.l   8(a0),d0", 4},
              {{0xB3C8}, "cmpa.l  a0,a1", 2},
              {{0xB308}, "cmpm.b  (a0)+,(a1)+", 2},
              {{0xB340}, "eor.w   d1,d0", 2},
              {{0xC081}, "and.l   d1,d0", 2},
              {{0x8150}, "or.w    d0,(a0)", 2},
              {{0x0000, 0x00FF}, "ori.b   #$ff,d0", 4},
              {{0x0280, 0x0000, 0xFFFF}, "andi.l  #$ffff,d0", 6},
              {{0x0A40, 0x8000}, "eori.w  #$8000,d0", 4},
              {{0x4480}, "neg.l   d0", 2},
              {{0x4040}, "negx.w  d0", 2},
              {{0x4650}, "not.w   (a0)", 2},
              {{0x4218}, "clr.b   (a0)+", 2},
              {{0x4A6E, 0x0010}, "tst.w   16(a6)", 4},
              {{0x4880}, "ext.w   d0", 2},
              {{0x48C1}, "ext.l   d1", 2},
              {{0x49C2}, "extb.l  d2", 2},
              {{0x4841}, "swap    d1", 2},
              {{0xC141}, "exg     d0,d1", 2},
              {{0xC34A}, "exg     a1,a2", 2},
              {{0xC18A}, "exg     d0,a2", 2},
              {{0xC300}, "abcd    d0,d1", 2},
              {{0x8308}, "sbcd    -(a0),-(a1)", 2},
              {{0x4800}, "nbcd    d0", 2},
              {{0x4AD0}, "tas     (a0)", 2},
              {{0xC0C1}, "mulu.w  d1,d0", 2},
              {{0xC1FC, 0x0003}, "muls.w  #$3,d0", 4},
              {{0x80C1}, "divu.w  d1,d0", 2},
              {{0x81C1}, "divs.w  d1,d0", 2},
              {{0x0800, 0x0003}, "btst    #$3,d0", 4},
              {{0x08C0, 0x0005}, "bset    #$5,d0", 4},
              {{0x0150}, "bchg    d0,(a0)", 2},
              {{0x0190}, "bclr    d0,(a0)", 2},
              {{0x013C, 0x00FF}, "btst    d0,#$ff", 4},
              {{0xE548}, "lsl.w   #2,d0", 2},
              {{0xE368}, "lsl.w   d1,d0", 2},
              {{0xE2D0}, "lsr.w   (a0)", 2},
              {{0xE080}, "asr.l   #8,d0", 2},
              {{0xE19B}, "rol.l   #8,d3", 2},
              {{0xE41A}, "ror.b   #2,d2", 2},
              {{0xE330}, "roxl.b  d1,d0", 2},
              {{0xE1D0}, "asl.w   (a0)", 2},
              {{0xE4D0}, "roxr.w  (a0)", 2},
              {{0xE9C0, 0x1104}, "bfextu  d0{4:4},d1", 4},
              {{0xE8D0, 0x0000}, "bftst   (a0){0:32}", 4},
              {{0xEBC0, 0x58A3}, "bfexts  d0{d2:d3},d5", 4},
              {{0xEFE8, 0x3108, 0x0010}, "bfins   d3,16(a0){4:8}", 6},
              {{0xEDD0, 0x2010}, "bfffo   (a0){0:16},d2", 4},
              {{0xECC1, 0x0001}, "bfclr   d1{0:1}", 4},
          });
}

TEST_F(DisasmTest, UnknownWordsAreDataOfOneWord) {
    check(*this, ORG,
          {
              {{0x4AFC}, "dc.w    $4afc", 2},          // ILLEGAL
              {{0xA00C}, "dc.w    $a00c", 2},          // line A (host calls)
              {{0xF000}, "dc.w    $f000", 2},          // line F
              {{0x4E7A, 0x0801}, "dc.w    $4e7a", 2},  // MOVEC
              {{0x7100}, "dc.w    $7100", 2},          // MOVEQ needs bit 8 clear
              {{0x4AC8}, "dc.w    $4ac8", 2},          // TAS An
              {{0x4C00, 0x0800}, "dc.w    $4c00", 2},  // MULU.L
              {{0x4A7A, 0x0004}, "dc.w    $4a7a", 2},  // TST d16(PC): not on the 68000
              {{0x510B}, "dc.w    $510b", 2},          // SUBQ.B to An
              {{0x00FC}, "dc.w    $00fc", 2},          // ORI with an immediate destination
              {{0x4848}, "dc.w    $4848", 2},          // BKPT
              {{0x4100}, "dc.w    $4100", 2},          // CHK.L
              {{0x8148, 0x0000}, "dc.w    $8148", 2},  // PACK
              {{0x50FA, 0x0000}, "dc.w    $50fa", 2},  // TRAPcc
              {{0xE8C0, 0x1000}, "dc.w    $e8c0", 2},  // BFTST with a register field
              {{0xE9C0, 0x8104}, "dc.w    $e9c0", 2},  // BFEXTU with bit 15 set
              {{0x0000}, "ori.b   #$0,d0", 4},         // zero is code, not data
          });
}

TEST(DisasmTable, EveryOpcodeWordHasAtMostOneForm) { EXPECT_EQ(da_table_overlaps(), 0u); }

// Whatever the bytes, decoding stays inside the longest 68020 instruction
// and the text buffer, and unknown words take exactly one word.
TEST_F(DisasmTest, EveryOpcodeWordDecodesWithinBounds) {
    const uint16_t fills[] = {0x0000, 0xFFFF, 0x0173, 0x8133};
    for (uint16_t fill : fills) {
        for (uint32_t i = 1; i < 12; i++) put(ORG + 2 * i, {fill});
        for (uint32_t op = 0; op < 0x10000; op++) {
            put(ORG, {uint16_t(op)});
            char text[128];
            std::memset(text, 0x55, sizeof text);
            uint32_t length = disasm_one(m, ORG, text);
            size_t n = strnlen(text, sizeof text);
            ASSERT_LT(n, 96u) << std::hex << op;
            ASSERT_GT(n, 0u) << std::hex << op;
            ASSERT_TRUE(length >= 2 && length <= 22 && length % 2 == 0)
                << std::hex << op << " length " << std::dec << length;
            if (std::strncmp(text, "dc.w", 4) == 0) {
                ASSERT_EQ(length, 2u) << std::hex << op;
            }
        }
    }
}

// Reading CIA registers changes them (time of day, interrupt control); the
// disassembler shows what the CPU would fetch and leaves the machine as it was.
TEST_F(DisasmTest, ReadsInTheChipAreasLeaveTheMachineAlone) {
    cia_init(m);
    m.cia[0].tod = 0x4E;
    m.cia[1].icr_data = 0x1F;
    m.cia[1].icr_mask = 0x01;
    // Memory past $FFFFFF reads as all ones and would set the bus fault.
    put(0xFFFFFC, {0x4EF9, 0x1234});

    constexpr size_t REGISTER_BYTES = offsetof(Machine, chip_ram);
    std::unique_ptr<unsigned char[]> before(new unsigned char[REGISTER_BYTES]);
    std::memcpy(before.get(), &m, REGISTER_BYTES);

    struct {
        uint32_t address;
        const char* text;
        uint32_t length;
    } cases[] = {
        // $BFE800 and $BFE801 both reach TOD low, which counts on per read.
        {0xBFE800, "trap    #15", 2},
        // ICR: pending bits with bit 7, then 0 because the read cleared it.
        {0xBFDD00, "subx.b  d0,d7", 2},
        {0xDFF006, nullptr, 0},
        {0xBFCFFE, nullptr, 0},
        {0xFFFFFC, "jmp     $ffffffff.l", 6},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        char text[96];
        uint32_t length = disasm_one(m, c.address, text);
        if (c.text) {
            EXPECT_STREQ(text, c.text);
            EXPECT_EQ(length, c.length);
        }
        ::testing::internal::CaptureStdout();
        disasm_print(m, c.address, 3);
        ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::memcmp(before.get(), &m, REGISTER_BYTES), 0);
    }
    // The premise: the same read through the bus does move the counter.
    read16(m, 0xBFE800);
    EXPECT_EQ(m.cia[0].tod, 0x50u);
}

TEST_F(DisasmTest, ListingShowsAddressUpToFiveWordsAndText) {
    const uint32_t base = 0x200000;
    put(base, {0x70FF, 0x4E75});                                  // player header
    put(base + 4, {0x48E7, 0xFFFE});                              // MOVEM
    put(base + 8, {0x2031, 0x1930, 0x0034, 0x5678});              // full-format index
    put(base + 16, {0x2030, 0x8173, 0x0000, 0x1000, 0x0000, 0x0005});  // six words
    put(base + 28, {0x4AFC});
    ::testing::internal::CaptureStdout();
    disasm_print(m, base, 6);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "00200000: 70ff                      moveq   #-1,d0\n"
              "00200002: 4e75                      rts\n"
              "00200004: 48e7 fffe                 movem.l d0-d7/a0-a6,-(a7)\n"
              "00200008: 2031 1930 0034 5678       move.l  (3430008,a1,d1.l),d0\n"
              "00200010: 2030 8173 0000 1000 0000  move.l  (4096,a0),d0\n"
              "0020001c: 4afc                      dc.w    $4afc\n");
}

TEST_F(DisasmTest, TraceLineShowsRegisters) {
    put(0x400, {0x4E75});
    m.pc = 0x400;
    for (int i = 0; i < 8; i++) {
        m.d[i] = 0x11111111u * uint32_t(i);
        m.a[i] = 0x100 + uint32_t(i);
    }
    m.sr = 0x2704;
    ::testing::internal::CaptureStdout();
    trace_print_step(m);
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(out,
              "00000400: 4e75                      rts                          | d 00000000 "
              "11111111 22222222 33333333 44444444 55555555 66666666 77777777  a 00000100 00000101 "
              "00000102 00000103 00000104 00000105 00000106 00000107 sr 2704\n");
}
