// The CPU and the disassembler agree on every opcode word, before each of a
// few runs of extension words: the disassembler shows data (dc.w) exactly
// where the CPU has no instruction, stays within 22 bytes and its text
// buffer, and reports the length the CPU consumes in one step.
//
// Where the step leaves PC is read from the machine: an exception raised
// after the operand (division by zero, CHK, TRAPV, TRAP #n) stacks the
// address after the instruction, a call pushes it, and PC in the window after
// the opcode is the length; other exceptions, returns (which pop a marker)
// and jumps tell nothing. Of the branches, only short ones can land in the
// window: a conditional one falls through in one of the condition-code
// states, and BRA.S into the window is left out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "disasm/disasm.h"
#include "test_machine.h"

namespace {

constexpr uint32_t CODE = 0x800000, EXCEPTION_MARK = 0x900000, VBR = 0xA00000;
constexpr uint32_t WINDOW = 32, SP0 = 0xB00000;
constexpr uint16_t RETURN_WORD = 0x00C0;  // format 0 as an RTE frame word

// Each serves as index word, displacement, address, immediate and register
// mask alike: brief and full index words with every base and outer
// displacement size, and mixed runs that make an operand read out of order
// take a wrong word as its extension word.
const std::vector<std::vector<uint16_t>> PATTERNS = {
    {0x9A10}, {0x3070}, {0x9933}, {0x0166}, {0x0120}, {0x91D1}, {0x9107},
    {0x9933, 0x0120, 0x9A10, 0x0166, 0x3070, 0x9107, 0x91D1},
    {0x91D1, 0x9107, 0x3070, 0x0166, 0x9A10, 0x0120, 0x9933},
};

void place_code(Machine& m, uint16_t opcode, const std::vector<uint16_t>& pattern) {
    write16(m, CODE, opcode);
    for (uint32_t k = 0; k < (WINDOW + 8) / 2; k++)
        write16(m, CODE + 2 + 2 * k, pattern[k % pattern.size()]);
}

bool in_window(uint32_t a) { return !(a & 1) && a >= CODE + 2 && a <= CODE + WINDOW; }

// The length the CPU consumed, or 0 when the step cannot tell.
uint32_t cpu_length(Machine& m, uint8_t ccr) {
    std::memset(m.chip_ram + SP0 - 16, 0, 16);  // no old return address lingers
    put_words(m, SP0, std::vector<uint16_t>(8, RETURN_WORD));
    for (uint32_t n = 0; n < 8; n++) m.d[n] = (n + 1) << 20;  // low words 0: DBcc falls through
    for (uint32_t n = 0; n < 7; n++) m.a[n] = 0x100000 + n * 0x10000;
    m.a[7] = SP0;
    m.vbr = VBR;
    m.sr = uint16_t(0x2700 | ccr);  // supervisor: privileged instructions run
    m.pc = CODE;
    step(m);
    if (m.pc == EXCEPTION_MARK) {
        unsigned vector = (chip_peek16(m, m.a[7]) & 0x0FFF) / 4;
        bool after_operand = (vector >= 5 && vector <= 7) || (vector >= 32 && vector < 48);
        return after_operand ? chip_peek32(m, m.a[7] + 4) - CODE : 0;
    }
    uint32_t pushed = chip_peek32(m, m.a[7]);
    if (m.a[7] == SP0 - 4 && in_window(pushed)) return pushed - CODE;
    return in_window(m.pc) ? m.pc - CODE : 0;
}

}  // namespace

TEST(CpuAgreement, EveryOpcodeMatchesTheDisassembler) {
    op_table_fill();
    EXPECT_EQ(op_table_stats().overwritten_slots, 0u);  // no family takes another's slot
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    for (uint32_t v = 0; v < 256; v++) write32(m, VBR + 4 * v, EXCEPTION_MARK);
    unsigned executed = 0, compared = 0;
    std::vector<std::string> failures;
    for (uint32_t i = 0; i < 0x10000; i++) {
        uint16_t opcode = uint16_t(i);
        OpHandler h = op_table[opcode];
        bool legal = h != op_illegal && h != op_line_a && h != op_line_f;
        bool bcc = legal && std::strcmp(op_name(opcode), "op_bcc") == 0;
        int8_t d = int8_t(opcode);
        bool short_into_window = bcc && !(d & 1) && d >= 2 && uint32_t(d) + 2 <= WINDOW;
        // BRA.S into the window: taken always, so it looks like a longer instruction.
        if (short_into_window && (opcode & 0x0F00) == 0) continue;
        executed += legal;
        bool opcode_compared = false;
        for (const auto& pattern : PATTERNS) {
            place_code(m, opcode, pattern);
            char text[128];
            std::memset(text, 0x55, sizeof text);
            uint32_t length = disasm_one(m, CODE, text);
            size_t n = strnlen(text, sizeof text);
            std::string mn(text, std::min(n, std::strcspn(text, " ")));
            // Decoded for the reader though not executed: MOVEP, NBCD and the bit fields.
            bool data = mn == "dc.w", shown_only = mn.starts_with("movep") || mn == "nbcd" ||
                                                   mn.starts_with("bf");
            auto fail = [&](const std::string& what) {
                char hex[8];
                std::snprintf(hex, sizeof hex, "%04x ", opcode);
                failures.push_back(hex + std::string(text, n) + ": " + what);
            };
            if (n == 0 || n >= 96 || length % 2 || length < 2 || length > (data ? 2u : 22u))
                fail("length " + std::to_string(length) + ", text " + std::to_string(n));
            if (legal ? data : !data && !shown_only)
                fail(legal ? "executed, shown as data" : "not executed, decoded");
            if (!legal) continue;
            // A taken short branch lands beyond the fall-through.
            uint32_t lowest = ~0u, highest = 0;
            for (uint8_t ccr : {0x00, 0x1F, 0x08}) {  // every condition but T fails in one
                place_code(m, opcode, pattern);
                if (uint32_t l = cpu_length(m, ccr))
                    lowest = std::min(lowest, l), highest = std::max(highest, l);
            }
            if (highest == 0) continue;
            opcode_compared = true;
            if (lowest != length || (lowest != highest && !short_into_window))
                fail("cpu " + std::to_string(lowest) + "-" + std::to_string(highest));
        }
        compared += opcode_compared;
    }
    std::printf("cpu agreement: %u of %u executed opcodes compared\n", compared, executed);
    for (size_t k = 0; k < failures.size() && k < 40; k++) ADD_FAILURE() << failures[k];
    EXPECT_EQ(failures.size(), 0u);
    // Left uncompared: BRA, JMP (28 control modes) and the four returns.
    EXPECT_GE(compared, executed - 256 - 28 - 4);
}
