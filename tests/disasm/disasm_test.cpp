// This system's disassembly syntax, one row per operand or instruction
// form (objdump checks the decoding itself on random bytes), and what the
// disassembler must not do: decode past 22 bytes or touch the machine.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "chipset/cia.h"
#include "cpu/bus.h"
#include "cpu/cpu_helpers.h"
#include "disasm/disasm.h"
#include "test_machine.h"

namespace {

constexpr uint32_t ORG = 0x1000;

struct DisasmTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
};

}  // namespace

TEST_F(DisasmTest, Syntax) {
    const struct {
        std::vector<uint16_t> words;
        const char* text;
    } cases[] = {
        // Operands (objdump checks the register forms): d16(An), abs.W and
        // abs.L, immediates in the operation's size, PC-relative as the target.
        {{0x4E75}, "rts"},
        {{0x3248}, "movea.w a0,a1"},  // seven columns exactly
        {{0x202E, 0xFFFC}, "move.l  -4(a6),d0"},
        {{0x3038, 0xFFFE}, "move.w  $fffe.w,d0"},
        {{0x13FC, 0x12FF, 0x00BF, 0xE001}, "move.b  #$ff,$bfe001.l"},
        {{0x303C, 0xFFFE}, "move.w  #$fffe,d0"},
        {{0x203C, 0x1234, 0x5678}, "move.l  #$12345678,d0"},
        {{0x303A, 0xFFF0}, "move.w  $ff2(pc),d0"},
        // Indexed: brief with scale, PC-relative with the raw displacement;
        // full format with base displacement, "z" for a suppressed base,
        // memory indirection consumed but not shown.
        {{0x2030, 0x1AFE}, "move.l  (-2,a0,d1.l*2),d0"},
        {{0x203B, 0xA0FF}, "move.l  (-1,pc,a2.w),d0"},
        {{0x2031, 0x1930, 0x0034, 0x5678}, "move.l  (3430008,a1,d1.l),d0"},
        {{0x2030, 0x8173, 0x0000, 0x1000, 0x0000, 0x0005}, "move.l  (4096,a0),d0"},
        {{0x2031, 0x3126, 0x0100, 0x0002}, "move.l  (256,a1,d3.w),d0"},
        {{0x2035, 0x01E0, 0x0010}, "move.l  (16,z),d0"},
        {{0x203B, 0x01A0, 0xFFF0}, "move.l  (-16,z,d0.w),d0"},
        {{0x2030, 0x0191}, "move.l  (0,z,d0.w),d0"},
        {{0x2030, 0x0100}, "move.l  (0,a0,d0.w),d0"},
        // The longest instruction there is: both operands full format with
        // long base and outer displacements.
        {{0x21B0, 0x0133, 0x1111, 0x1111, 0x2222, 0x2222, 0x0133, 0x3333, 0x3333, 0x4444, 0x4444},
         "move.l  (286331153,a0,d0.w),(858993459,a0,d0.w)"},
        // Branch targets from the word after the opcode; DBcc from the
        // displacement word.
        {{0x60FE}, "bra     $1000"},
        {{0x62FF, 0xFFFF, 0xE000}, "bhi     $fffff002"},
        {{0x51C8, 0xFFFE}, "dbf     d0,$1000"},
        // Decimal: MOVEQ, quick, TRAP and LINK; hex: RTD, bit numbers.
        {{0x70FF}, "moveq   #-1,d0"},
        {{0x5088}, "addq.l  #8,a0"},
        {{0x4E4F}, "trap    #15"},
        {{0x480D, 0x0001, 0x0000}, "link.l  a5,#65536"},
        {{0x4E74, 0x0008}, "rtd     #$8"},
        {{0x0800, 0x0003}, "btst    #$3,d0"},
        // MOVE USP has no size.
        {{0x4E60}, "move    a0,usp"},
        // Register lists, from either end.
        {{0x48E7, 0xFFFE}, "movem.l d0-d7/a0-a6,-(a7)"},
        {{0x4CDF, 0x7FFF}, "movem.l (a7)+,d0-d7/a0-a6"},
        {{0x4C90, 0x0180}, "movem.w (a0),d7/a0"},
        {{0x48D0, 0x0005}, "movem.l d0/d2,(a0)"},
        {{0x48E7, 0x0000}, "movem.l #0,-(a7)"},
        // The families with a syntax of their own.
        {{0x0108, 0x0004}, "movep.w 4(a0),d0"},
        {{0x01C9, 0xFFFE}, "movep.l d0,-2(a1)"},
        {{0xE080}, "asr.l   #8,d0"},
        {{0xE9C0, 0x1104}, "bfextu  d0{4:4},d1"},
        {{0xE8D0, 0x0000}, "bftst   (a0){0:32}"},
        {{0xEBC0, 0x58A3}, "bfexts  d0{d2:d3},d5"},
        {{0xEFE8, 0x3108, 0x0010}, "bfins   d3,16(a0){4:8}"},
        // Not an instruction here: data of one word.
        {{0x4AFC}, "dc.w    $4afc"},          // ILLEGAL
        {{0xA00C}, "dc.w    $a00c"},          // line A (host calls)
        {{0xF000}, "dc.w    $f000"},          // line F
        {{0x4E7A, 0x0801}, "dc.w    $4e7a"},  // MOVEC
        {{0x7100}, "dc.w    $7100"},          // MOVEQ needs bit 8 clear
        {{0x4AC8}, "dc.w    $4ac8"},          // TAS An
        {{0x4C00, 0x0800}, "dc.w    $4c00"},  // MULU.L
        {{0x4A7A, 0x0004}, "dc.w    $4a7a"},  // TST d16(PC): not on the 68000
        {{0x510B}, "dc.w    $510b"},          // SUBQ.B to An
        {{0x00FC}, "dc.w    $00fc"},          // ORI with an immediate destination
        {{0x4848}, "dc.w    $4848"},          // BKPT
        {{0x4100}, "dc.w    $4100"},          // CHK.L
        {{0x8148, 0x0000}, "dc.w    $8148"},  // PACK
        {{0x50FA, 0x0000}, "dc.w    $50fa"},  // TRAPcc
        {{0xE8C0, 0x1000}, "dc.w    $e8c0"},  // BFTST with a register field
        {{0xE9C0, 0x8104}, "dc.w    $e9c0"},  // BFEXTU with bit 15 set
        {{0x0000, 0x0000}, "ori.b   #$0,d0"},  // zero is code, not data
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::memset(m.chip_ram + ORG, 0, 32);
        put_words(m, ORG, c.words);
        char text[96];
        uint32_t length = disasm_one(m, ORG, text);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(length, std::strncmp(c.text, "dc.w", 4) ? 2 * c.words.size() : 2);
    }
}

TEST(DisasmTable, EveryOpcodeWordHasAtMostOneForm) { EXPECT_EQ(da_table_overlaps(), 0u); }

// Whatever the bytes, decoding stays inside the longest 68020 instruction
// and the text buffer, and unknown words take exactly one word.
TEST_F(DisasmTest, EveryOpcodeWordDecodesWithinBounds) {
    for (uint16_t fill : {0x0000, 0xFFFF, 0x0173, 0x8133}) {
        put_words(m, ORG + 2, std::vector<uint16_t>(11, fill));
        for (uint32_t op = 0; op < 0x10000; op++) {
            put_words(m, ORG, {uint16_t(op)});
            char text[128];
            std::memset(text, 0x55, sizeof text);
            uint32_t length = disasm_one(m, ORG, text);
            size_t n = strnlen(text, sizeof text);
            bool data = std::strncmp(text, "dc.w", 4) == 0;
            ASSERT_TRUE(n > 0 && n < 96 && length >= 2 && length <= (data ? 2 : 22) &&
                        length % 2 == 0)
                << std::hex << op << " length " << std::dec << length << " text length " << n;
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
    put_words(m, 0xFFFFFC, {0x4EF9, 0x1234});  // past $FFFFFF: all ones, and a bus fault
    constexpr size_t REGISTER_BYTES = offsetof(Machine, chip_ram);
    std::unique_ptr<unsigned char[]> before(new unsigned char[REGISTER_BYTES]);
    std::memcpy(before.get(), &m, REGISTER_BYTES);
    const struct {
        uint32_t address;
        const char* text;  // null: whatever it decodes to
    } cases[] = {
        {0xBFE800, "trap    #15"},    // TOD low at $BFE800 and $BFE801: $4E4E
        {0xBFDD00, "subx.b  d0,d7"},  // ICR: pending bits with bit 7, then 0
        {0xDFF006, nullptr},
        {0xBFCFFE, nullptr},
        {0xFFFFFC, "jmp     $ffffffff.l"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        char text[96];
        disasm_one(m, c.address, text);
        if (c.text) {
            EXPECT_STREQ(text, c.text);
        }
        ::testing::internal::CaptureStdout();
        disasm_print(m, c.address, 3);
        ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::memcmp(before.get(), &m, REGISTER_BYTES), 0);
    }
    read16(m, 0xBFE800);  // the premise: the same read through the bus moves the counter
    EXPECT_EQ(m.cia[0].tod, 0x50u);
}

TEST_F(DisasmTest, ListingShowsAddressUpToFiveWordsAndText) {
    put_words(m, 0x200000, {0x70FF, 0x4E75, 0x48E7, 0xFFFE, 0x2031, 0x1930, 0x0034, 0x5678});
    put_words(m, 0x200010, {0x2030, 0x8173, 0x0000, 0x1000, 0x0000, 0x0005, 0x4AFC});
    ::testing::internal::CaptureStdout();
    disasm_print(m, 0x200000, 6);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "00200000: 70ff                      moveq   #-1,d0\n"
              "00200002: 4e75                      rts\n"
              "00200004: 48e7 fffe                 movem.l d0-d7/a0-a6,-(a7)\n"
              "00200008: 2031 1930 0034 5678       move.l  (3430008,a1,d1.l),d0\n"
              "00200010: 2030 8173 0000 1000 0000  move.l  (4096,a0),d0\n"
              "0020001c: 4afc                      dc.w    $4afc\n");
}

TEST_F(DisasmTest, TraceLineShowsRegisters) {
    put_words(m, 0x400, {0x4E75});
    m.pc = 0x400;
    for (int i = 0; i < 8; i++) {
        m.d[i] = 0x11111111u * uint32_t(i);
        m.a[i] = 0x100 + uint32_t(i);
    }
    m.sr = 0x2704;
    ::testing::internal::CaptureStdout();
    trace_print_step(m);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "00000400: 4e75                      rts                          | d 00000000 "
              "11111111 22222222 33333333 44444444 55555555 66666666 77777777  a 00000100 00000101 "
              "00000102 00000103 00000104 00000105 00000106 00000107 sr 2704\n");
}
