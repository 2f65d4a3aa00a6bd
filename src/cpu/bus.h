// The memory bus: the only way emulated code reaches memory.
//
// A flat 24-bit space: the custom chips at $DFF000-$DFF1FF, the CIAs at
// $BFD000-$BFEFFF (byte-wide, so wider accesses are split byte by byte) and
// chip RAM everywhere else. Players live far below $BFCFFD, so the common
// case is decided by one comparison; everything above it takes the slow path.
#pragma once

#include <cstdint>

#include "machine.h"

constexpr uint32_t ADDR_MASK = 0xFFFFFF;
constexpr uint32_t CUSTOM_BASE = 0xDFF000;
constexpr uint32_t CUSTOM_SIZE = 0x200;
constexpr uint32_t CIA_FIRST = 0xBFD000;
constexpr uint32_t CIA_LAST = 0xBFEFFF;

uint8_t bus_read8_slow(Machine& m, uint32_t a);
uint16_t bus_read16_slow(Machine& m, uint32_t a);
uint32_t bus_read32_slow(Machine& m, uint32_t a);
void bus_write8_slow(Machine& m, uint32_t a, uint8_t v);
void bus_write16_slow(Machine& m, uint32_t a, uint16_t v);
void bus_write32_slow(Machine& m, uint32_t a, uint32_t v);

// Below this address no access of up to four bytes can touch a CIA byte.
constexpr uint32_t BUS_FAST_LIMIT = CIA_FIRST - 3;

inline uint8_t read8(Machine& m, uint32_t address) {
    uint32_t a = address & ADDR_MASK;
    if (a < CIA_FIRST) return m.chip_ram[a];
    return bus_read8_slow(m, a);
}

inline uint16_t read16(Machine& m, uint32_t address) {
    uint32_t a = address & ADDR_MASK;
    if (a < BUS_FAST_LIMIT) return uint16_t(m.chip_ram[a] << 8 | m.chip_ram[a + 1]);
    return bus_read16_slow(m, a);
}

inline uint32_t read32(Machine& m, uint32_t address) {
    uint32_t a = address & ADDR_MASK;
    if (a < BUS_FAST_LIMIT) {
        const uint8_t* p = m.chip_ram + a;
        return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
    }
    return bus_read32_slow(m, a);
}

inline void write8(Machine& m, uint32_t address, uint8_t value) {
    uint32_t a = address & ADDR_MASK;
    if (a < CIA_FIRST) { m.chip_ram[a] = value; return; }
    bus_write8_slow(m, a, value);
}

inline void write16(Machine& m, uint32_t address, uint16_t value) {
    uint32_t a = address & ADDR_MASK;
    if (a < BUS_FAST_LIMIT) {
        m.chip_ram[a] = uint8_t(value >> 8);
        m.chip_ram[a + 1] = uint8_t(value);
        return;
    }
    bus_write16_slow(m, a, value);
}

inline void write32(Machine& m, uint32_t address, uint32_t value) {
    uint32_t a = address & ADDR_MASK;
    if (a < BUS_FAST_LIMIT) {
        uint8_t* p = m.chip_ram + a;
        p[0] = uint8_t(value >> 24);
        p[1] = uint8_t(value >> 16);
        p[2] = uint8_t(value >> 8);
        p[3] = uint8_t(value);
        return;
    }
    bus_write32_slow(m, a, value);
}

inline uint16_t fetch16(Machine& m) {
    uint16_t w = read16(m, m.pc);
    m.pc += 2;
    return w;
}

inline uint32_t fetch32(Machine& m) {
    uint32_t v = read32(m, m.pc);
    m.pc += 4;
    return v;
}

// Host-side big-endian access to chip RAM without bus side effects
// (loaders and diagnostics); the address wraps to 24 bits.
inline uint16_t chip_peek16(const Machine& m, uint32_t address) {
    uint32_t a = address & ADDR_MASK;
    return uint16_t(m.chip_ram[a] << 8 | m.chip_ram[(a + 1) & ADDR_MASK]);
}
inline uint32_t chip_peek32(const Machine& m, uint32_t address) {
    return uint32_t(chip_peek16(m, address)) << 16 | chip_peek16(m, address + 2);
}
