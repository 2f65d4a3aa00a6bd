// Helpers shared by the CPU and disassembler tests.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

#include "cpu/bus.h"

// Big-endian words into chip RAM, as code or data.
inline void put_words(Machine& m, uint32_t address, const std::vector<uint16_t>& words) {
    for (uint16_t w : words) {
        m.chip_ram[address & ADDR_MASK] = uint8_t(w >> 8);
        m.chip_ram[(address + 1) & ADDR_MASK] = uint8_t(w);
        address += 2;
    }
}

// Whether an outside reference (qemu-m68k, objdump) is installed.
inline bool have_tool(const std::string& version_command) {
    return std::system((version_command + " >/dev/null 2>&1").c_str()) == 0;
}

// Operands at the commas outside brackets: "(4,a0,d1.l),d0" -> two.
inline std::vector<std::string> split_operands(const std::string& s) {
    std::vector<std::string> out(1);
    int depth = 0;
    for (char c : s) {
        depth += (c == '(' || c == '{') - (c == ')' || c == '}');
        if (c == ',' && depth == 0) out.emplace_back();
        else out.back() += c;
    }
    if (out.back().empty()) out.pop_back();
    return out;
}
