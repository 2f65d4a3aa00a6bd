#include <gtest/gtest.h>

#include <algorithm>

#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/runner.h"
#include "host_test.h"
#include "test_machine.h"

namespace {

// The entry point fills the opcode table once; so do the tests.
struct OpTable : ::testing::Environment {
    void SetUp() override { op_table_fill(); }
};
[[maybe_unused]] const auto* const op_table_env = ::testing::AddGlobalTestEnvironment(new OpTable);

// 68000 encodings used below.
constexpr uint16_t NOP = 0x4E71, RTS = 0x4E75, BRA_SELF = 0x60FE, JMP_ABS_L = 0x4EF9, MOVEQ_42_D0 = 0x702A,
                   ADDQ_L_1_IND_A1 = 0x5291, MOVE_L_A1_ABS_W = 0x21C9, MOVE_L_A0_ABS_W = 0x21C8,
                   MOVE_W_ABS_L_D0 = 0x3039;

struct RunnerTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    void SetUp() override {
        trace_log = false;
        for (uint32_t k = 0; k < 8; k++) m.d[k] = 0xD0D0D000 + k, m.a[k] = 0xA0A0A000 + k;
    }

    uint32_t call(uint32_t routine, std::string* err = nullptr, std::string* out = nullptr) {
        uint32_t r = 0;
        testing::internal::CaptureStdout();
        std::string e = stderr_of([&] { r = deli_call(m, routine); });
        std::string o = testing::internal::GetCapturedStdout();
        if (err) *err = e;
        if (out) *out = o;
        return r;
    }
    // NOPs, then a jump out of the code regions.
    void nops_then_jump(int count) {
        put_words(m, 0x200000, std::vector<uint16_t>(size_t(count), NOP));
        put_words(m, 0x200000 + 2 * uint32_t(count), {JMP_ABS_L, 0x0030, 0x0000});
    }
};

}  // namespace

// Code runs in the module window, the player image, the AllocMem slab and
// the library area; anywhere else the call ends before the first
// instruction, with the report of an empty ring that shows the calling
// convention (A5, A6, A7, SR) and the other registers untouched.
TEST_F(RunnerTest, CodeRegions) {
    const uint32_t inside[] = {0x010000, 0x0FFFFC, 0x200000, 0x2FFFFC, 0x400000, 0x7FFFFC, 0xF7F000, 0xF9FFFC};
    for (uint32_t pc : inside) {
        SCOPED_TRACE(pc);
        put_words(m, pc, {MOVEQ_42_D0, RTS});
        std::string err;
        EXPECT_EQ(call(pc, &err), 42u);
        EXPECT_EQ(err, "");
        EXPECT_EQ(m.pc, RUNNER_SENTINEL);
        EXPECT_EQ(m.a[7], RUNNER_STACK_TOP + 4);
    }
    const uint32_t outside[] = {0x00000000, 0x0000FFFE, 0x00100000, 0x001FFFFE, 0x00300000,
                                0x00800000, 0x00F7EFFE, 0x00FA0000, 0x01200000};
    for (uint32_t pc : outside) {
        SCOPED_TRACE(pc);
        m.d[0] = 0x11;
        std::string err;
        EXPECT_EQ(call(pc, &err), RUN_OUT_OF_RANGE);
        char want[512];
        std::snprintf(want, sizeof want,
                      "deli_call: PC=%08x out of range (routine=%08x i=0)\n"
                      "  recent PCs:\n"
                      "  D0..D7: 00000011 d0d0d001 d0d0d002 d0d0d003 d0d0d004 d0d0d005 d0d0d006 d0d0d007\n"
                      "  A0..A7: a0a0a000 a0a0a001 a0a0a002 a0a0a003 a0a0a004 00f90000 00f80000 00eefffc SR=2000\n",
                      pc, pc);
        EXPECT_EQ(err, want);
    }
}

// The report lists the last 256 PCs, oldest first, eight to a line.
TEST_F(RunnerTest, OutOfRangeListsRecentPcs) {
    nops_then_jump(9);
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_OUT_OF_RANGE);
    EXPECT_EQ(err.substr(0, err.find("  D0..D7")),
              "deli_call: PC=00300000 out of range (routine=00200000 i=10)\n"
              "  recent PCs:\n"
              "     00200000 00200002 00200004 00200006 00200008 0020000a 0020000c 0020000e\n"
              "     00200010 00200012\n");

    nops_then_jump(300);  // the ring holds instructions 45 to 300
    EXPECT_EQ(call(0x200000, &err), RUN_OUT_OF_RANGE);
    EXPECT_EQ(err.substr(0, err.find('\n') + 1), "deli_call: PC=00300000 out of range (routine=00200000 i=301)\n");
    EXPECT_EQ(err.substr(err.find("\n    "), 14), "\n     0020005a");
    EXPECT_NE(err.find(" 00200258\n  D0..D7"), std::string::npos);  // the jump
    EXPECT_EQ(err.find("00200058"), std::string::npos);
}

// Trace lines within [lo, hi) (hi 0: everywhere) up to max of them (0: no
// limit). The line comes before the range check: a routine outside the code
// regions shows it too.
TEST_F(RunnerTest, TraceLinesInsideTheWindow) {
    put_words(m, 0x200000, {NOP, NOP, NOP, NOP, RTS});
    struct Case { bool log; uint32_t routine, lo, hi; uint64_t max, logged_before; int lines; };
    const Case cases[] = {
        {false, 0x200000, 0, 0, 0, 0, 0},          {true, 0x200000, 0, 0, 0, 0, 5},
        {true, 0x200000, 0x200002, 0x200006, 0, 0, 2}, {true, 0x200000, 0, 0, 3, 0, 3},
        {true, 0x200000, 0x200004, 0x300000, 1, 0, 1}, {true, 0x200000, 0x300000, 0x400000, 0, 0, 0},
        {true, 0x300000, 0x300000, 0x300002, 0, 0, 1}, {true, 0x300000, 0, 0, 5, 4, 1},
        {true, 0x300000, 0, 0, 5, 5, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.routine << " " << c.lo << "-" << c.hi << " max " << c.max);
        trace_log = c.log;
        trace_lo = c.lo;
        trace_hi = c.hi;
        trace_log_max = c.max;
        trace_logged = c.logged_before;
        std::string out;
        EXPECT_EQ(call(c.routine, nullptr, &out), c.routine == 0x200000 ? 0xD0D0D000u : RUN_OUT_OF_RANGE);
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), c.lines) << out;
        EXPECT_EQ(trace_logged, c.logged_before + uint64_t(c.lines));
    }
}

// An endless loop ends when the instruction budget is spent; a bus fault at
// once.
TEST_F(RunnerTest, BudgetAndFaultsEndTheCall) {
    struct Case { std::vector<uint16_t> code; const char* message; };
    const Case cases[] = {
        {{NOP, BRA_SELF}, "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n"},
        {{NOP, MOVE_W_ABS_L_D0, 0x00FF, 0xFFFF, RTS}, "deli_call: fault 2 at PC=00200008 (routine=00200000)\n"},
    };
    for (const Case& c : cases) {
        put_words(m, 0x200000, c.code);
        std::string err;
        EXPECT_EQ(call(0x200000, &err), RUN_FAILED);
        EXPECT_EQ(err, c.message);
    }
}

// Host calls do work on the player's behalf; it counts against the budget,
// so a loop of costly calls ends as soon as a loop of instructions would.
TEST_F(RunnerTest, HostWorkCountsAgainstTheBudget) {
    constexpr uint16_t CUT_SUFFIX = 0xA40A;  // DeliTracker function 10
    constexpr uint32_t path = 0x400000, length = 1 << 20;
    write32(m, DELI_BASE + 0x20, path);
    std::fill(m.chip_ram + path, m.chip_ram + path + length, uint8_t('a'));
    put_words(m, 0x200000, {CUT_SUFFIX, BRA_SELF - 2});  // bra.s back to the call
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_FAILED);
    EXPECT_EQ(err.rfind("deli_call: cycle budget exhausted", 0), 0u) << err;
    EXPECT_EQ(m.host_cost, 0u);
}

// An interrupt node's code runs with A0 = the custom chips and A1 = is_Data;
// a node without code runs nothing. The CIA's queue runs in its order.
TEST_F(RunnerTest, HandlersGetCustomBaseAndData) {
    write32(m, 0x1000 + 14, 0x12345678);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_run_handler(m, 0x1000), 0u); }), "");
    EXPECT_EQ(m.a[1], 0xA0A0A001u);
    EXPECT_EQ(m.pc, 0u);

    // addq.l #1,(a1); move.l a0,$1004.w; move.l a1,$1000.w; rts: each node
    // counts its runs in its data, and the last one to run leaves its own.
    put_words(m, 0x200000, {ADDQ_L_1_IND_A1, MOVE_L_A0_ABS_W, 0x1004, MOVE_L_A1_ABS_W, 0x1000, RTS});
    const uint32_t nodes[] = {0x3000, 0x3100, 0x3200};
    for (uint32_t k = 0; k < 3; k++) {
        write32(m, nodes[k] + 18, 0x200000);
        write32(m, nodes[k] + 14, 0x2000 + 4 * k);
    }
    EXPECT_EQ(deli_run_handler(m, nodes[2]), 0xD0D0D000u);
    EXPECT_EQ(read32(m, 0x1004), 0xDFF000u);
    EXPECT_EQ(read32(m, 0x1000), 0x2008u);
    EXPECT_EQ(read32(m, 0x2008), 1u);
    EXPECT_EQ(m.a[5], DELI_BASE);

    const uint32_t queue[] = {nodes[1], nodes[0], nodes[1], nodes[2]};
    std::copy(queue, queue + 4, m.cia_pending);
    m.cia_pending_count = 3;  // the fourth is not queued
    cia_run_pending(m);
    EXPECT_EQ(read32(m, 0x2000), 1u);
    EXPECT_EQ(read32(m, 0x2004), 2u);
    EXPECT_EQ(read32(m, 0x2008), 1u);
    EXPECT_EQ(read32(m, 0x1000), 0x2004u);
    EXPECT_EQ(m.cia_pending_count, 0u);
    cia_run_pending(m);  // nothing left
    EXPECT_EQ(read32(m, 0x2004), 2u);
}
