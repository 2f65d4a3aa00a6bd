// Slow paths of the bus: everything at or above the CIA area.
#include "cpu/bus.h"

#include "chipset/cia.h"
#include "chipset/custom.h"

namespace {

bool in_custom(uint32_t a) { return a - CUSTOM_BASE < CUSTOM_SIZE; }
bool in_cia(uint32_t a) { return a - CIA_FIRST <= CIA_LAST - CIA_FIRST; }

// A word or long that touches a CIA byte is split into bytes, most
// significant first, each routed by its own address.
bool touches_cia(uint32_t a, uint32_t bytes) {
    return a + bytes - 1 >= CIA_FIRST && a <= CIA_LAST;
}

}  // namespace

uint8_t bus_read8_slow(Machine& m, uint32_t a) {
    if (in_custom(a)) {
        uint16_t w = custom_read_word(m, a & ~1u);
        return (a & 1) ? uint8_t(w) : uint8_t(w >> 8);
    }
    if (in_cia(a)) return cia_read(m, a);
    return m.chip_ram[a];
}

uint16_t bus_read16_slow(Machine& m, uint32_t a) {
    if (in_custom(a)) return custom_read_word(m, a);
    if (touches_cia(a, 2)) return uint16_t(read8(m, a) << 8 | read8(m, a + 1));
    if (a == ADDR_MASK) {
        m.fault = 2;
        return 0xFFFF;
    }
    return uint16_t(m.chip_ram[a] << 8 | m.chip_ram[a + 1]);
}

uint32_t bus_read32_slow(Machine& m, uint32_t a) {
    if (in_custom(a))
        return uint32_t(custom_read_word(m, a)) << 16 | custom_read_word(m, a + 2);
    if (touches_cia(a, 4))
        return uint32_t(read8(m, a)) << 24 | uint32_t(read8(m, a + 1)) << 16 |
               uint32_t(read8(m, a + 2)) << 8 | read8(m, a + 3);
    if (a >= ADDR_MASK - 2) {
        m.fault = 2;
        return 0xFFFFFFFF;
    }
    const uint8_t* p = m.chip_ram + a;
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

void bus_write8_slow(Machine& m, uint32_t a, uint8_t v) {
    // A byte write reaches a custom register as a word with the byte in both
    // halves, as the data bus carries it.
    if (in_custom(a)) custom_write_word(m, a & ~1u, uint16_t(v << 8 | v));
    else if (in_cia(a)) cia_write(m, a, v);
    else m.chip_ram[a] = v;
}

void bus_write16_slow(Machine& m, uint32_t a, uint16_t v) {
    if (in_custom(a)) {
        custom_write_word(m, a, v);  // an odd register address is the chip's business
        return;
    }
    if (touches_cia(a, 2)) {
        write8(m, a, uint8_t(v >> 8));
        write8(m, a + 1, uint8_t(v));
        return;
    }
    if (a == ADDR_MASK) {
        m.fault = 2;
        return;
    }
    m.chip_ram[a] = uint8_t(v >> 8);
    m.chip_ram[a + 1] = uint8_t(v);
}

void bus_write32_slow(Machine& m, uint32_t a, uint32_t v) {
    if (in_custom(a)) {
        custom_write_word(m, a, uint16_t(v >> 16));
        custom_write_word(m, a + 2, uint16_t(v));
        return;
    }
    if (touches_cia(a, 4)) {
        for (int i = 0; i < 4; i++) write8(m, a + i, uint8_t(v >> (24 - 8 * i)));
        return;
    }
    if (a >= ADDR_MASK - 2) {
        m.fault = 2;
        return;
    }
    uint8_t* p = m.chip_ram + a;
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
