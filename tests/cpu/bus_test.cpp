#include <gtest/gtest.h>

#include "chipset/cia.h"
#include "cpu/bus.h"
#include "test_machine.h"

namespace {

struct BusTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    void SetUp() override { cia_init(m); }
};

}  // namespace

TEST_F(BusTest, RamIsBigEndianAndOnly24BitsCount) {
    write32(m, 0x00ABCDEC, 0x11223344);
    EXPECT_EQ(read8(m, 0xFFABCDEF), 0x44);
    EXPECT_EQ(read16(m, 0x12ABCDED), 0x2233);
    EXPECT_EQ(read32(m, 0xFFABCDEC), 0x11223344u);
    EXPECT_EQ(m.chip_ram[0xABCDEC], 0x11);
    // Odd addresses are plain accesses: no address error.
    m.chip_ram[1] = 0xAB;
    m.chip_ram[2] = 0xCD;
    EXPECT_EQ(read16(m, 1), 0xABCD);
    write16(m, 0x1001, 0xBEEF);
    EXPECT_EQ(m.chip_ram[0x1001], 0xBE);
    EXPECT_EQ(m.chip_ram[0x1002], 0xEF);
    // Memory above the chip areas is plain RAM too (no ROM, no mirrors).
    write32(m, 0xF80000, 0xCAFEBABE);
    EXPECT_EQ(read32(m, 0xF80000), 0xCAFEBABEu);
    EXPECT_EQ(m.fault, 0);
}

TEST_F(BusTest, FetchAdvancesThePc) {
    write32(m, 0x400, 0x4E714E75);
    m.pc = 0x400;
    EXPECT_EQ(fetch16(m), 0x4E71);
    EXPECT_EQ(m.pc, 0x402u);
    EXPECT_EQ(fetch16(m), 0x4E75);
    EXPECT_EQ(m.pc, 0x404u);
}

TEST_F(BusTest, TopOfMemoryFaults) {
    struct Case {
        const char* what;
        uint32_t address;
        int size;  // 2 or 4
        bool faults;
    };
    const Case cases[] = {
        {"word at $FFFFFE", 0xFFFFFE, 2, false}, {"word at $FFFFFF", 0xFFFFFF, 2, true},
        {"long at $FFFFFC", 0xFFFFFC, 4, false}, {"long at $FFFFFD", 0xFFFFFD, 4, true},
        {"long at $FFFFFE", 0xFFFFFE, 4, true},  {"long at $FFFFFF", 0xFFFFFF, 4, true},
        {"word at $7FFFFFF", 0x7FFFFFF, 2, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        for (uint32_t a = 0xFFFFF8; a <= 0xFFFFFF; a++) m.chip_ram[a] = uint8_t(a);
        m.fault = 0;
        uint32_t v = c.size == 2 ? read16(m, c.address) : read32(m, c.address);
        EXPECT_EQ(m.fault, c.faults ? 2 : 0);
        if (c.faults) {
            EXPECT_EQ(v, c.size == 2 ? 0xFFFFu : 0xFFFFFFFFu);
        }
        m.fault = 0;
        if (c.size == 2) write16(m, c.address, 0xA5A5);
        else write32(m, c.address, 0xA5A5A5A5);
        EXPECT_EQ(m.fault, c.faults ? 2 : 0);
        // A faulting write is dropped whole.
        for (uint32_t a = 0xFFFFF8; a <= 0xFFFFFF && c.faults; a++) {
            EXPECT_EQ(m.chip_ram[a], uint8_t(a)) << std::hex << a;
        }
    }
    // A byte access never faults.
    m.fault = 0;
    write8(m, 0xFFFFFF, 0x12);
    EXPECT_EQ(read8(m, 0xFFFFFF), 0x12);
    EXPECT_EQ(m.fault, 0);
}

TEST_F(BusTest, CiaRegistersAreDecodedByPageForEveryByte) {
    m.cia[0].pra = 0x3C;
    m.cia[1].prb = 0x5A;
    m.cia[0].ddra = 0x03;
    m.cia[1].ddrb = 0xFF;
    m.cia[0].timer[0].control = 0x09;
    m.cia[1].timer[1].control = 0x41;
    EXPECT_EQ(read8(m, 0xBFE001), 0x3C);  // CIA-A PRA, as a real program reads it
    EXPECT_EQ(read8(m, 0xBFE000), 0x3C);  // even byte reaches the same register
    EXPECT_EQ(read8(m, 0xBFE0FF), 0x3C);
    EXPECT_EQ(read8(m, 0xBFD100), 0x5A);  // CIA-B PRB
    EXPECT_EQ(read8(m, 0xBFE201), 0x03);
    EXPECT_EQ(read8(m, 0xBFD300), 0xFF);
    EXPECT_EQ(read8(m, 0xBFEE01), 0x09);
    EXPECT_EQ(read8(m, 0xBFDF00), 0x41);
    EXPECT_EQ(read8(m, 0xBFEB01), 0x00);
    EXPECT_EQ(read8(m, 0xBFDC00), 0x00);
    // Anything else in the CIA area that is not $BFExxx belongs to CIA-B.
    EXPECT_EQ(read8(m, 0xFFBFD1AA), 0x5A);
}

TEST_F(BusTest, CiaTimerReadsBackInEClockTicks) {
    m.cia[1].timer[0].remaining = 956.5;  // frames at 48000 Hz
    uint32_t ticks = uint32_t(709379.0 * 956.5 / 48000);
    EXPECT_EQ(read8(m, 0xBFD400), ticks & 0xFF);
    EXPECT_EQ(read8(m, 0xBFD500), (ticks >> 8) & 0xFF);
    m.cia[0].timer[1].remaining = -3.0;  // negative counts read as 0
    EXPECT_EQ(read8(m, 0xBFE601), 0);
    EXPECT_EQ(read8(m, 0xBFE701), 0);
}

TEST_F(BusTest, TimeOfDayAdvancesOnLowByteReadOnly) {
    m.cia[0].tod = 0x0001FE;
    EXPECT_EQ(read8(m, 0xBFE801), 0xFE);
    EXPECT_EQ(read8(m, 0xBFE801), 0xFF);
    EXPECT_EQ(read8(m, 0xBFE801), 0x00);
    EXPECT_EQ(read8(m, 0xBFE901), 0x02);  // carried into bits 8-15
    EXPECT_EQ(read8(m, 0xBFE901), 0x02);  // mid and high reads do not advance
    EXPECT_EQ(read8(m, 0xBFEA01), 0x00);
    m.cia[1].tod = 0xFFFFFF;
    EXPECT_EQ(read8(m, 0xBFD800), 0xFF);
    EXPECT_EQ(m.cia[1].tod, 0u);  // modulo 2^24
}

TEST_F(BusTest, IcrReadReportsAndClears) {
    m.cia[1].icr_data = 0x01;
    m.cia[1].icr_mask = 0x01;
    EXPECT_EQ(read8(m, 0xBFDD00), 0x81);
    EXPECT_EQ(read8(m, 0xBFDD00), 0x00);
    m.cia[0].icr_data = 0x02;
    m.cia[0].icr_mask = 0x01;  // pending but not enabled: no bit 7
    EXPECT_EQ(read8(m, 0xBFED01), 0x02);
    EXPECT_EQ(m.cia[0].icr_data, 0);
}

TEST_F(BusTest, WordsAndLongsAcrossTheCiaAreaSplitIntoBytes) {
    // $BFEFFF: high byte to CIA-A CRB, low byte to RAM at $BFF000.
    write16(m, 0xBFEFFF, 0x1234);
    EXPECT_EQ(m.cia[0].timer[1].control, 0x12 & ~0x10);
    EXPECT_EQ(m.chip_ram[0xBFF000], 0x34);
    // $BFCFFF: high byte to RAM, low byte to CIA-B PRA.
    write16(m, 0xBFCFFF, 0xAB77);
    EXPECT_EQ(m.chip_ram[0xBFCFFF], 0xAB);
    EXPECT_EQ(m.cia[1].pra, 0x77);
    // A long at $BFCFFE: two bytes of RAM, then CIA-B PRA twice.
    write32(m, 0xBFCFFE, 0x01020304);
    EXPECT_EQ(m.chip_ram[0xBFCFFE], 0x01);
    EXPECT_EQ(m.chip_ram[0xBFCFFF], 0x02);
    EXPECT_EQ(m.cia[1].pra, 0x04);
    // Reads split the same way.
    m.chip_ram[0xBFCFFE] = 0xAA;
    m.chip_ram[0xBFCFFF] = 0xBB;
    EXPECT_EQ(read32(m, 0xBFCFFE), 0xAABB0404u);
    EXPECT_EQ(read16(m, 0xBFCFFF), 0xBB04);
    m.chip_ram[0xBFF000] = 0x99;
    m.cia[0].timer[1].control = 0x01;
    EXPECT_EQ(read16(m, 0xBFEFFF), 0x0199);
    // Just outside the split range the access is plain RAM.
    write32(m, 0xBFCFF0, 0xDEADBEEF);
    EXPECT_EQ(read32(m, 0xBFCFF0), 0xDEADBEEFu);
    write16(m, 0xBFF000, 0x5566);
    EXPECT_EQ(m.chip_ram[0xBFF000], 0x55);
    EXPECT_EQ(m.chip_ram[0xBFF001], 0x66);
}

TEST_F(BusTest, CiaWritesReachTheirRegisters) {
    write8(m, 0xBFE201, 0x03);  // CIA-A DDRA
    EXPECT_EQ(m.cia[0].ddra, 0x03);
    write8(m, 0xBFD0FF, 0x10);  // CIA-B PRA from any byte of its page
    EXPECT_EQ(m.cia[1].pra, 0x10);
    write16(m, 0xBFD400, 0x3737);  // both bytes to CIA-B TALO
    EXPECT_EQ(m.cia[1].timer[0].latch & 0xFF, 0x37);
    EXPECT_EQ(m.chip_ram[0xBFD400], 0);
    EXPECT_EQ(m.chip_ram[0xBFD401], 0);
}
