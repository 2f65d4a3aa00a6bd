// Agreement between the CPU and the disassembler on instruction lengths.
//
// Every opcode word the CPU executes is placed in chip RAM, followed by one
// of a few fixed runs of extension words, and stepped once. The bytes the CPU
// consumed must equal the length disasm_one reports for the same bytes.
//
// The step can move PC in other ways than by consuming the instruction; each
// is recognised from the machine state afterwards, not from the opcode:
//  - exceptions: every vector points at a marker address. The frame of the
//    vectors that are raised once the operand has been fetched (division by
//    zero, CHK, TRAPV, TRAP #n) stacks the address after the instruction,
//    so those are compared through the frame; other vectors are skipped.
//  - returns: the stack holds a marker word repeated, which RTS, RTD, RTR
//    and RTE (format 0, user-mode SR) all pop as the same marker address.
//  - calls: a return address inside the window below, pushed once, is
//    the address after the instruction, and is compared.
//  - jumps: PC anywhere outside the window of the opcode's first bytes.
// Every displacement and address the extension patterns form points well
// outside that window, so a jump through one never lands in it. Only an
// 8-bit branch displacement, in the opcode itself, can: a conditional branch
// falls through in one of the condition-code states (the taken runs land
// beyond the fall-through), and BRA.S forward into the window is left out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "disasm/disasm.h"
#include "test_machine.h"

namespace {

// Memory layout, far apart from each other and from every address the
// patterns form.
constexpr uint32_t CODE = 0x800000;
constexpr uint32_t WINDOW = 32;  // bytes a fall-through may reach: 68020 maximum 22, plus slack
constexpr uint32_t EXCEPTION_MARK = 0x900000;
constexpr uint32_t VBR = 0xA00000;
constexpr uint32_t SP0 = 0xB00000;  // supervisor stack
constexpr uint32_t USP0 = 0xB40000;
constexpr uint32_t STACK_SCRATCH = 128;  // cleared below SP0 so no old return address lingers
constexpr uint16_t RETURN_WORD = 0x00C0;  // format 0 as an RTE frame word
constexpr uint32_t RETURN_MARK = uint32_t(RETURN_WORD) << 16 | RETURN_WORD;

// Vectors whose stacked PC is the address after the whole instruction.
bool frame_ends_instruction(unsigned vector) {
    return vector == 5 || vector == 6 || vector == 7 || (vector >= 32 && vector < 48);
}

// Extension words repeated over the window. Each word serves as index word,
// displacement, absolute address, immediate and register mask alike; the
// uniform patterns vary the full-format sizes, the mixed ones make an
// operand read in the wrong order take another word for its extension word.
struct Pattern {
    const char* name;
    std::vector<uint16_t> words;
};
const std::vector<Pattern> PATTERNS = {
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

// Condition codes per run: every condition but T is false in one of them,
// so each conditional branch falls through at least once. V in the second
// makes TRAPV trap.
constexpr uint8_t CCR_STATES[] = {0x00, 0x1F, 0x08};

void poke16(Machine& m, uint32_t a, uint16_t v) {
    m.chip_ram[a] = uint8_t(v >> 8);
    m.chip_ram[a + 1] = uint8_t(v);
}

// The bytes of a pattern as they follow the opcode, a little beyond the window.
std::vector<uint8_t> pattern_bytes(const Pattern& p) {
    std::vector<uint8_t> bytes;
    for (size_t k = 0; 2 * k < WINDOW + 8; k++) {
        uint16_t w = p.words[k % p.words.size()];
        bytes.push_back(uint8_t(w >> 8));
        bytes.push_back(uint8_t(w));
    }
    return bytes;
}

void place_code(Machine& m, uint16_t opcode, const std::vector<uint8_t>& pattern) {
    poke16(m, CODE, opcode);
    std::memcpy(m.chip_ram + CODE + 2, pattern.data(), pattern.size());
}

enum class End { length, exception, returned, jumped };

struct Outcome {
    End end;
    uint32_t length;  // End::length
    unsigned vector;  // End::exception
};

bool in_window(uint32_t a) { return !(a & 1) && a >= CODE + 2 && a <= CODE + WINDOW; }

// The data registers' low words are 0, so every DBcc falls through; the
// address registers point far from the code.
Outcome run(Machine& m, uint16_t opcode, const std::vector<uint8_t>& pattern, uint8_t ccr) {
    place_code(m, opcode, pattern);
    std::memset(m.chip_ram + SP0 - STACK_SCRATCH, 0, STACK_SCRATCH);
    for (uint32_t a = SP0; a < SP0 + 16; a += 2) poke16(m, a, RETURN_WORD);
    static const std::vector<uint8_t> vectors = [] {
        std::vector<uint8_t> t;
        for (int v = 0; v < 256; v++)
            for (int shift = 24; shift >= 0; shift -= 8)
                t.push_back(uint8_t(EXCEPTION_MARK >> shift));
        return t;
    }();
    std::memcpy(m.chip_ram + VBR, vectors.data(), vectors.size());
    for (uint32_t n = 0; n < 8; n++) m.d[n] = (n + 1) << 20;
    for (uint32_t n = 0; n < 7; n++) m.a[n] = 0x100000 + n * 0x10000;
    m.a[7] = SP0;
    m.usp = USP0;
    m.ssp = 0;
    m.vbr = VBR;
    m.sr = uint16_t(0x2700 | ccr);  // supervisor: privileged instructions run
    m.pc = CODE;
    m.stopped = 0;
    m.fault = 0;

    step(m);

    if (m.pc == EXCEPTION_MARK) {
        unsigned vector = unsigned(chip_peek16(m, m.a[7]) & 0x0FFF) / 4;
        if (frame_ends_instruction(vector))
            return {End::length, chip_peek32(m, m.a[7] + 4) - CODE, 0};
        return {End::exception, 0, vector};
    }
    if (m.pc == RETURN_MARK) return {End::returned, 0, 0};
    if (m.a[7] == SP0 - 4 && in_window(chip_peek32(m, m.a[7])))
        return {End::length, chip_peek32(m, m.a[7]) - CODE, 0};
    if (in_window(m.pc)) return {End::length, m.pc - CODE, 0};
    return {End::jumped, 0, 0};
}

// The end of one opcode with one pattern over all condition-code states:
// the lowest and highest length among the runs that gave one (a taken short
// branch lands beyond the fall-through), or, when none did, why the first
// state's run was not compared.
struct PairEnd {
    uint32_t lowest = ~0u, highest = 0;
    std::string skip_reason;
};

PairEnd run_states(Machine& m, uint16_t opcode, const std::vector<uint8_t>& pattern) {
    PairEnd e;
    for (size_t s = 0; s < std::size(CCR_STATES); s++) {
        Outcome o = run(m, opcode, pattern, CCR_STATES[s]);
        if (o.end == End::length) {
            e.lowest = std::min(e.lowest, o.length);
            e.highest = std::max(e.highest, o.length);
        } else if (s == 0) {
            e.skip_reason = o.end == End::returned ? "return"
                            : o.end == End::jumped ? "jump"
                                                   : "exception " + std::to_string(o.vector);
        }
    }
    return e;
}

bool executed(uint16_t opcode) {
    OpHandler h = op_table[opcode];
    return h != op_illegal && h != op_line_a && h != op_line_f;
}

// A short branch (8-bit displacement in the opcode) whose target lies in the
// window.
bool short_branch_into_window(uint16_t opcode) {
    int d = int8_t(opcode);
    return std::strcmp(op_name(opcode), "op_bcc") == 0 && !(d & 1) && d >= 2 &&
           uint32_t(d) + 2 <= WINDOW;
}

// BRA.S into the window: taken in every state, so indistinguishable from a
// longer instruction that falls through there.
bool short_bra_into_window(uint16_t opcode) {
    return (opcode & 0x0F00) == 0 && short_branch_into_window(opcode);
}

std::string describe(uint16_t opcode) {
    char s[48];
    std::snprintf(s, sizeof s, "%04x %s", opcode, op_name(opcode));
    return s;
}

std::string describe(uint16_t opcode, const char* text, const Pattern& p) {
    char s[256];
    std::snprintf(s, sizeof s, "%04x %s \"%s\" (%s)", opcode, op_name(opcode), text, p.name);
    return s;
}

void show(const std::vector<std::string>& lines, const char* what) {
    const size_t shown = 40;
    for (size_t k = 0; k < lines.size() && k < shown; k++)
        std::printf("  %s: %s\n", what, lines[k].c_str());
}

}  // namespace

TEST(CpuAgreement, InstructionLengthsMatchTheDisassembler) {
    op_table_fill();
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    std::vector<std::vector<uint8_t>> bytes;
    for (const Pattern& p : PATTERNS) bytes.push_back(pattern_bytes(p));

    unsigned executed_count = 0, compared_opcodes = 0, excluded = 0;
    unsigned pairs = 0, compared_pairs = 0, state_dependent = 0;
    std::map<std::string, unsigned> skipped;  // (opcode, pattern) pairs by reason
    std::vector<std::string> mismatches, undecoded, unexpected_state;

    for (uint32_t i = 0; i < 0x10000; i++) {
        uint16_t opcode = uint16_t(i);
        if (!executed(opcode)) continue;
        executed_count++;
        if (short_bra_into_window(opcode)) {
            excluded++;
            continue;
        }
        bool compared = false;
        for (size_t k = 0; k < PATTERNS.size(); k++) {
            const Pattern& p = PATTERNS[k];
            pairs++;
            place_code(m, opcode, bytes[k]);
            char text[96];
            uint32_t da_length = disasm_one(m, CODE, text);
            if (k == 0 && std::strncmp(text, "dc.w", 4) == 0)
                undecoded.push_back(describe(opcode));

            PairEnd e = run_states(m, opcode, bytes[k]);
            if (e.highest == 0) {
                skipped[e.skip_reason]++;
                continue;
            }
            compared_pairs++;
            compared = true;
            if (e.lowest != e.highest) {
                state_dependent++;
                if (!short_branch_into_window(opcode))
                    unexpected_state.push_back(describe(opcode, text, p) + ": " +
                                               std::to_string(e.lowest) + " to " +
                                               std::to_string(e.highest));
            }
            if (e.lowest != da_length)
                mismatches.push_back(describe(opcode, text, p) + ": cpu " +
                                     std::to_string(e.lowest) + ", disassembler " +
                                     std::to_string(da_length));
        }
        compared_opcodes += compared;
    }

    std::printf("executed opcodes: %u, compared: %u, left out (BRA.S into the window): %u\n",
                executed_count, compared_opcodes, excluded);
    std::printf("opcode/pattern pairs: %u, compared: %u, of which the condition codes decide "
                "the end: %u\n",
                pairs, compared_pairs, state_dependent);
    for (const auto& [why, n] : skipped) std::printf("  skipped (%s): %u\n", why.c_str(), n);
    show(mismatches, "length differs");
    show(undecoded, "executed but shown as dc.w");
    show(unexpected_state, "length depends on the condition codes");

    EXPECT_EQ(mismatches.size(), 0u);
    EXPECT_EQ(undecoded.size(), 0u);
    EXPECT_EQ(unexpected_state.size(), 0u);
    // The exclusion is exactly the even forward displacements 2-30.
    EXPECT_EQ(excluded, (WINDOW - 2) / 2);
    // Left uncompared: BRA, JMP (28 control modes) and the four returns.
    EXPECT_GE(compared_opcodes, executed_count - 256 - 28 - 4);
}
