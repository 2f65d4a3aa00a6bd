// The CPU and the disassembler agree on instruction lengths: every opcode
// the CPU executes is placed before one of a few runs of extension words and
// stepped once; the bytes it consumed must be the length disasm_one reports.
//
// Where the step leaves PC is read from the machine, not from the opcode:
//  - an exception lands at a marker; the vectors raised after the operand
//    (division by zero, CHK, TRAPV, TRAP #n) stack the address after the
//    instruction, which is compared; other vectors are skipped.
//  - RTS, RTD, RTR and RTE pop a marker word repeated: skipped.
//  - a call pushes the address after the instruction: compared.
//  - PC in the window after the opcode is the length; elsewhere a jump.
// The extension patterns form addresses far outside the window. Only a short
// branch can land in it: a conditional branch falls through in one of the
// condition-code states, and BRA.S into the window is left out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "cpu/cpu_helpers.h"
#include "disasm/disasm.h"
#include "test_machine.h"

namespace {

constexpr uint32_t CODE = 0x800000, EXCEPTION_MARK = 0x900000, VBR = 0xA00000;
constexpr uint32_t WINDOW = 32;  // a fall-through reaches at most 22 bytes
constexpr uint32_t SP0 = 0xB00000, USP0 = 0xB40000;
constexpr uint16_t RETURN_WORD = 0x00C0;  // format 0 as an RTE frame word
constexpr uint32_t RETURN_MARK = uint32_t(RETURN_WORD) << 16 | RETURN_WORD;

// Extension words repeated over the window; each serves as index word,
// displacement, address, immediate and register mask alike. The mixed runs
// make an operand read out of order take a wrong word as its extension word.
const std::vector<std::pair<const char*, std::vector<uint16_t>>> PATTERNS = {
    {"brief a1.l*2 index, displacement 16", {0x9A10}},
    {"brief d3.w index, displacement 112", {0x3070}},
    {"full a1.l index, long base and outer displacements, pre-indexed", {0x9933}},
    {"full, index suppressed, word base and outer displacements, post-indexed", {0x0166}},
    {"full d0.w index, word base displacement, no indirection", {0x0120}},
    {"full, base and index suppressed, null displacements, pre-indexed", {0x91D1}},
    {"full a1.w index, reserved base size 0, long outer displacement, post-indexed", {0x9107}},
    {"mixed", {0x9933, 0x0120, 0x9A10, 0x0166, 0x3070, 0x9107, 0x91D1}},
    {"mixed, reversed", {0x91D1, 0x9107, 0x3070, 0x0166, 0x9A10, 0x0120, 0x9933}},
};

// Every condition but T is false in one of these; V in the second makes
// TRAPV trap.
constexpr uint8_t CCR_STATES[] = {0x00, 0x1F, 0x08};

// The opcode, then the pattern repeated a little beyond the window.
void place_code(Machine& m, uint16_t opcode, const std::vector<uint16_t>& pattern) {
    static std::vector<uint16_t> run((WINDOW + 8) / 2);
    for (size_t k = 0; k < run.size(); k++) run[k] = pattern[k % pattern.size()];
    write16(m, CODE, opcode);
    put_words(m, CODE + 2, run);
}

bool in_window(uint32_t a) { return !(a & 1) && a >= CODE + 2 && a <= CODE + WINDOW; }

// The length the CPU consumed, or 0 with the reason it could not be told.
uint32_t cpu_length(Machine& m, uint8_t ccr, std::string& why) {
    std::memset(m.chip_ram + SP0 - 128, 0, 128);  // no old return address lingers
    put_words(m, SP0, std::vector<uint16_t>(8, RETURN_WORD));
    static const std::vector<uint8_t> vectors = [] {
        std::vector<uint8_t> t;
        for (int v = 0; v < 256; v++)
            for (int shift = 24; shift >= 0; shift -= 8)
                t.push_back(uint8_t(EXCEPTION_MARK >> shift));
        return t;
    }();
    std::memcpy(m.chip_ram + VBR, vectors.data(), vectors.size());
    for (uint32_t n = 0; n < 8; n++) m.d[n] = (n + 1) << 20;  // low words 0: DBcc falls through
    for (uint32_t n = 0; n < 7; n++) m.a[n] = 0x100000 + n * 0x10000;
    m.a[7] = SP0;
    m.usp = USP0;
    m.ssp = 0;
    m.vbr = VBR;
    m.sr = uint16_t(0x2700 | ccr);  // supervisor: privileged instructions run
    m.pc = CODE;
    step(m);
    if (m.pc == EXCEPTION_MARK) {
        unsigned vector = (chip_peek16(m, m.a[7]) & 0x0FFF) / 4;
        if (vector == 5 || vector == 6 || vector == 7 || (vector >= 32 && vector < 48))
            return chip_peek32(m, m.a[7] + 4) - CODE;
        return why = "exception " + std::to_string(vector), 0;
    }
    if (m.pc == RETURN_MARK) return why = "return", 0;
    uint32_t pushed = chip_peek32(m, m.a[7]);
    if (m.a[7] == SP0 - 4 && in_window(pushed)) return pushed - CODE;
    if (in_window(m.pc)) return m.pc - CODE;
    return why = "jump", 0;
}

}  // namespace

TEST(CpuAgreement, InstructionLengthsMatchTheDisassembler) {
    op_table_fill();
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    unsigned executed = 0, compared_opcodes = 0, excluded = 0, pairs = 0, compared_pairs = 0;
    std::map<std::string, unsigned> skipped;  // (opcode, pattern) pairs by reason
    std::vector<std::string> failures;
    for (uint32_t i = 0; i < 0x10000; i++) {
        uint16_t opcode = uint16_t(i);
        OpHandler h = op_table[opcode];
        if (h == op_illegal || h == op_line_a || h == op_line_f) continue;
        executed++;
        bool bcc = std::strcmp(op_name(opcode), "op_bcc") == 0;
        int8_t d = int8_t(opcode);
        bool short_into_window = bcc && !(d & 1) && d >= 2 && uint32_t(d) + 2 <= WINDOW;
        // BRA.S into the window: taken always, so it looks like a longer instruction.
        if (short_into_window && (opcode & 0x0F00) == 0) {
            excluded++;
            continue;
        }
        bool compared = false;
        for (const auto& [name, pattern] : PATTERNS) {
            pairs++;
            place_code(m, opcode, pattern);
            char text[96];
            uint32_t da_length = disasm_one(m, CODE, text);
            auto what = [&] {
                return std::string(op_name(opcode)) + " \"" + text + "\" (" + name + ")";
            };
            if (std::strncmp(text, "dc.w", 4) == 0) failures.push_back(what() + ": shown as dc.w");
            // A taken short branch lands beyond the fall-through.
            uint32_t lowest = ~0u, highest = 0;
            std::string why;
            for (uint8_t ccr : CCR_STATES) {
                std::string reason;
                place_code(m, opcode, pattern);
                uint32_t length = cpu_length(m, ccr, reason);
                if (length) lowest = std::min(lowest, length), highest = std::max(highest, length);
                if (why.empty()) why = reason;
            }
            if (highest == 0) {
                skipped[why]++;
                continue;
            }
            compared_pairs++;
            compared = true;
            if (lowest != da_length || (lowest != highest && !short_into_window))
                failures.push_back(what() + ": cpu " + std::to_string(lowest) + " to " +
                                   std::to_string(highest) + ", disassembler " +
                                   std::to_string(da_length));
        }
        compared_opcodes += compared;
    }
    std::printf("executed opcodes: %u, compared: %u, left out (BRA.S into the window): %u\n"
                "opcode/pattern pairs: %u, compared: %u\n",
                executed, compared_opcodes, excluded, pairs, compared_pairs);
    for (const auto& [why, n] : skipped) std::printf("  skipped (%s): %u\n", why.c_str(), n);
    for (size_t k = 0; k < failures.size() && k < 40; k++)
        std::printf("  %s\n", failures[k].c_str());
    EXPECT_EQ(failures.size(), 0u);
    EXPECT_EQ(excluded, (WINDOW - 2) / 2);  // the even forward displacements 2-30
    // Left uncompared: BRA, JMP (28 control modes) and the four returns.
    EXPECT_GE(compared_opcodes, executed - 256 - 28 - 4);
}
