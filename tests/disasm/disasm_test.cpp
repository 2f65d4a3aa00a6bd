// This system's disassembly syntax where objdump's comparison (which
// normalises both syntaxes) and the golden listings leave it open, and that
// disassembling never changes the machine.
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

TEST(Disasm, Syntax) {
    const struct {
        std::vector<uint16_t> words;
        const char* text;
    } cases[] = {
        {{0x3038, 0xFFFE}, "move.w  $fffe.w,d0"},
        {{0x13FC, 0x12FF, 0x00BF, 0xE001}, "move.b  #$ff,$bfe001.l"},
        // Indexed: the scale, PC-relative with the raw displacement, the full
        // format's base displacement, "z" for a suppressed base, memory
        // indirection consumed but not shown.
        {{0x2030, 0x1AFE}, "move.l  (-2,a0,d1.l*2),d0"},
        {{0x203B, 0xA0FF}, "move.l  (-1,pc,a2.w),d0"},
        {{0x2031, 0x1930, 0x0034, 0x5678}, "move.l  (3430008,a1,d1.l),d0"},
        {{0x2030, 0x8173, 0x0000, 0x1000, 0x0000, 0x0005}, "move.l  (4096,a0),d0"},
        {{0x203B, 0x01A0, 0xFFF0}, "move.l  (-16,z,d0.w),d0"},
        {{0x21B0, 0x0133, 0x1111, 0x1111, 0x2222, 0x2222, 0x0133, 0x3333, 0x3333, 0x4444, 0x4444},
         "move.l  (286331153,a0,d0.w),(858993459,a0,d0.w)"},  // the longest there is
        {{0x62FF, 0xFFFF, 0xE000}, "bhi     $fffff002"},
        // Decimal: LINK; hex: RTD, bit numbers.
        {{0x480D, 0x0001, 0x0000}, "link.l  a5,#65536"},
        {{0x4E74, 0x0008}, "rtd     #$8"},
        {{0x0800, 0x0003}, "btst    #$3,d0"},
        {{0x4E60}, "move    a0,usp"},
        // Register lists, from either end.
        {{0x48E7, 0xFFFE}, "movem.l d0-d7/a0-a6,-(a7)"},
        {{0x4CDF, 0x7FFF}, "movem.l (a7)+,d0-d7/a0-a6"},
        {{0x4C90, 0x0180}, "movem.w (a0),d7/a0"},
        {{0x48E7, 0x0000}, "movem.l #0,-(a7)"},
        {{0x01C9, 0xFFFE}, "movep.l d0,-2(a1)"},
        {{0xEBC0, 0x58A3}, "bfexts  d0{d2:d3},d5"},
        {{0xEFE8, 0x3108, 0x0010}, "bfins   d3,16(a0){4:8}"},
    };
    MachinePtr m = make_machine();
    for (const auto& c : cases) {
        put_words(*m, 0x1000, c.words);
        char text[96];
        EXPECT_EQ(disasm_one(*m, 0x1000, text), 2 * c.words.size()) << c.text;
        EXPECT_STREQ(text, c.text);
    }
    EXPECT_EQ(da_table_overlaps(), 0u);  // every opcode word has at most one form
}

// A player header, a register save and the longest indexed form, as the
// listing commands print them: at most five words, the rest of a long
// instruction is not shown.
TEST(Disasm, PrintPinsListingLines) {
    MachinePtr m = make_machine();
    put_words(*m, 0x1000, {0x70FF, 0x4E75, 0x48E7, 0xFFFE, 0x2030, 0x8173, 0x0000, 0x1000, 0x0000,
                           0x0005});
    ::testing::internal::CaptureStdout();
    disasm_print(*m, 0x1000, 4);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "00001000: 70ff                      moveq   #-1,d0\n"
              "00001002: 4e75                      rts\n"
              "00001004: 48e7 fffe                 movem.l d0-d7/a0-a6,-(a7)\n"
              "00001008: 2030 8173 0000 1000 0000  move.l  (4096,a0),d0\n");
}

// Reading CIA registers changes them (time of day, interrupt control); the
// disassembler shows what the CPU would fetch and leaves the machine as it was.
TEST(Disasm, ReadsInTheChipAreasLeaveTheMachineAlone) {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    cia_init(m);
    m.cia[0].tod = 0x4E;
    m.cia[1].icr_data = 0x1F;
    m.cia[1].icr_mask = 0x01;
    put_words(m, 0xFFFFFC, {0x4EF9, 0x1234});  // past $FFFFFF: all ones, and a bus fault
    constexpr size_t REGISTER_BYTES = offsetof(Machine, chip_ram);
    std::unique_ptr<unsigned char[]> before(new unsigned char[REGISTER_BYTES]);
    std::memcpy(before.get(), &m, REGISTER_BYTES);
    const std::pair<uint32_t, const char*> cases[] = {
        {0xBFE800, "trap    #15"},    // TOD low at $BFE800 and $BFE801: $4E4E
        {0xBFDD00, "subx.b  d0,d7"},  // ICR: pending bits with bit 7, then 0
        {0xDFF006, nullptr},          // null: whatever it decodes to
        {0xBFCFFE, nullptr},
        {0xFFFFFC, "jmp     $ffffffff.l"},
    };
    for (const auto& [address, expected] : cases) {
        char text[96];
        disasm_one(m, address, text);
        if (expected) {
            EXPECT_STREQ(text, expected);
        }
        ::testing::internal::CaptureStdout();
        disasm_print(m, address, 3);
        ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::memcmp(before.get(), &m, REGISTER_BYTES), 0) << std::hex << address;
    }
    read16(m, 0xBFE800);  // the premise: the same read through the bus moves the counter
    EXPECT_EQ(m.cia[0].tod, 0x50u);
}
