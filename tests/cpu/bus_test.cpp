// The bus where the vectors and qemu do not reach: the fault past the top of
// memory, the custom range decided by the start address, and the CIA
// registers decoded by page.
#include <gtest/gtest.h>

#include <cstring>

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

// A word or long running past $FFFFFF reads all ones, writes nothing and
// faults; a byte never faults.
TEST_F(BusTest, TopOfMemoryFaults) {
    const std::tuple<uint32_t, int, bool> cases[] = {
        {0xFFFFFE, 2, false}, {0xFFFFFF, 2, true}, {0xFFFFFC, 4, false}, {0xFFFFFD, 4, true},
        {0xFFFFFF, 4, true},  {0x7FFFFFF, 2, true}, {0xFFFFFF, 1, false}};
    for (const auto& [address, size, faults] : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << address << " size " << size);
        for (uint32_t a = 0xFFFFF8; a <= 0xFFFFFF; a++) m.chip_ram[a] = uint8_t(a);
        m.fault = 0;
        uint32_t v = size == 1   ? read8(m, address)
                     : size == 2 ? read16(m, address)
                                 : read32(m, address);
        EXPECT_EQ(m.fault, faults ? 2 : 0);
        if (faults) {
            EXPECT_EQ(v, size == 2 ? 0xFFFFu : 0xFFFFFFFFu);
        }
        m.fault = 0;
        if (size == 1) write8(m, address, 0xA5);
        else if (size == 2) write16(m, address, 0xA5A5);
        else write32(m, address, 0xA5A5A5A5);
        EXPECT_EQ(m.fault, faults ? 2 : 0);
        for (uint32_t a = 0xFFFFF8; a <= 0xFFFFFF; a++) {
            bool written = !faults && a - address % 0x1000000 < unsigned(size);
            EXPECT_EQ(m.chip_ram[a] != uint8_t(a), written) << std::hex << a;
        }
    }
}

// An access that starts below the custom registers is RAM, even where it
// runs into them; one that starts inside goes to the chips whole, even where
// it runs past them (unassigned registers read 0 and ignore writes).
TEST_F(BusTest, CustomRangeGoesByTheStartAddress) {
    std::memset(m.chip_ram + 0xDFEFF0, 0xEE, 0x220);
    EXPECT_EQ(read16(m, 0xDFEFFF), 0xEEEE);
    EXPECT_EQ(read32(m, 0xDFEFFE), 0xEEEEEEEEu);
    EXPECT_EQ(read16(m, 0xDFF1FF), 0);
    EXPECT_EQ(read32(m, 0xDFF1FE), 0u);
    write32(m, 0xDFF1FE, 0x12345678);
    EXPECT_EQ(chip_peek32(m, 0xDFF1FE), 0xEEEEEEEEu);
    write16(m, 0xDFEFFF, 0x1234);
    EXPECT_EQ(chip_peek16(m, 0xDFEFFF), 0x1234);
}

// Reads in order: any byte of a 256-byte page reaches one register, timers
// read back in E-clock ticks and the time of day counts on at its low byte.
TEST_F(BusTest, CiaReadsInOrder) {
    m.cia[0].pra = 0x3C;
    m.cia[1].prb = 0x5A;
    m.cia[1].ddrb = 0xFF;
    m.cia[1].timer[1].control = 0x41;
    m.cia[1].timer[0].remaining = 1000.0;  // frames at 48000 Hz: 14778.7 ticks
    m.cia[0].timer[1].remaining = -3.0;    // negative counts read as 0
    m.cia[0].tod = 0x0001FE;
    m.cia[1].tod = 0xFFFFFF;
    const std::pair<uint32_t, uint8_t> reads[] = {
        {0xBFE001, 0x3C}, {0xBFE0FF, 0x3C}, {0xBFD100, 0x5A}, {0xFFBFD1AA, 0x5A},
        {0xBFD300, 0xFF}, {0xBFDF00, 0x41}, {0xBFD400, 0xBA}, {0xBFD500, 0x39},
        {0xBFE601, 0x00}, {0xBFE801, 0xFE}, {0xBFE801, 0xFF}, {0xBFE801, 0x00},
        {0xBFE901, 0x02}, {0xBFD800, 0xFF}};
    for (const auto& [address, value] : reads)
        EXPECT_EQ(read8(m, address), value) << std::hex << address;
    EXPECT_EQ(m.cia[1].tod, 0u);  // modulo 2^24
}

// Words and longs that touch the CIA area go byte by byte, each byte to the
// CIA or to RAM by its own address.
TEST_F(BusTest, AccessesAcrossTheCiaAreaSplitIntoBytes) {
    write16(m, 0xBFEFFF, 0x1234);  // CIA-A CRB, then RAM at $BFF000
    EXPECT_EQ(m.cia[0].timer[1].control, 0x12 & ~0x10);
    EXPECT_EQ(m.chip_ram[0xBFF000], 0x34);
    write32(m, 0xBFCFFE, 0x01020304);  // two bytes of RAM, then CIA-B PRA twice
    EXPECT_EQ(read16(m, 0xBFCFFE), 0x0102);
    EXPECT_EQ(m.cia[1].pra, 0x04);
    EXPECT_EQ(read32(m, 0xBFCFFE), 0x01020404u);
    write16(m, 0xBFD400, 0x3939);  // both bytes to CIA-B TALO, none to RAM
    EXPECT_EQ(m.cia[1].timer[0].latch & 0xFF, 0x39);
    EXPECT_EQ(m.chip_ram[0xBFD400] | m.chip_ram[0xBFD401], 0);
}
