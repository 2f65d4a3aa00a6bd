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
[[maybe_unused]] const auto* const op_table_env =
    ::testing::AddGlobalTestEnvironment(new OpTable);

// 68000 encodings used below.
constexpr uint16_t NOP = 0x4E71, RTS = 0x4E75, BRA_SELF = 0x60FE, JMP_ABS_L = 0x4EF9,
                   MOVEQ_42_D0 = 0x702A, ADDQ_L_1_IND_A1 = 0x5291,
                   MOVE_L_A1_ABS_W = 0x21C9, MOVE_L_A0_ABS_W = 0x21C8,
                   MOVE_W_ABS_L_D0 = 0x3039;

struct RunnerTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    void SetUp() override {
        trace_break_pc = 0;
        trace_break_hit = false;
        trace_log = false;
        trace_lo = trace_hi = 0;
        trace_log_max = trace_logged = 0;
        for (int k = 0; k < 8; k++) m.d[k] = 0xD0D0D000 + uint32_t(k);
        for (int k = 0; k < 8; k++) m.a[k] = 0xA0A0A000 + uint32_t(k);
    }
    void TearDown() override { trace_break_pc = 0; }

    uint32_t call(uint32_t routine, std::string* err = nullptr) {
        uint32_t r = 0;
        std::string e = stderr_of([&] { r = deli_call(m, routine); });
        if (err) *err = e;
        return r;
    }
};

}  // namespace

TEST_F(RunnerTest, SentinelRoutineReturnsAtOnce) {
    std::string err;
    EXPECT_EQ(call(RUNNER_SENTINEL, &err), 0xD0D0D000u);
    EXPECT_EQ(err, "");
    // The calling convention is in place even though nothing ran.
    EXPECT_EQ(m.a[5], DELI_BASE);
    EXPECT_EQ(m.a[6], EXEC_BASE);
    EXPECT_EQ(m.a[7], RUNNER_STACK_TOP);
    EXPECT_EQ(read32(m, RUNNER_STACK_TOP), RUNNER_SENTINEL);
    EXPECT_EQ(m.sr, 0x2000);
    EXPECT_EQ(m.a[0], 0xA0A0A000u);
    EXPECT_EQ(m.d[7], 0xD0D0D007u);
}

TEST_F(RunnerTest, BreakAddressStopsBeforeTheInstruction) {
    put_words(m, 0x200000, {MOVEQ_42_D0, RTS});
    trace_break_pc = 0x200000;
    std::string err;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x200000, &err), 0xD0D0D000u);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(trace_break_hit);
    EXPECT_EQ(err, "trace-pc: break at 00200000 (routine=00200000 i=0)\n");
    EXPECT_NE(out.find("00200000"), std::string::npos) << out;  // the trace line
    EXPECT_EQ(m.pc, 0x200000u);
}

TEST_F(RunnerTest, OutOfRangeAtTheStart) {
    // None of the code regions: the report with an empty ring.
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

TEST_F(RunnerTest, TraceWindowAndLimit) {
    // The trace line comes before the range check, so a routine outside the
    // code regions shows the decision without executing anything.
    struct Case {
        bool log;
        uint32_t lo, hi;
        uint64_t max, logged_before;
        bool printed;
    };
    const Case cases[] = {
        {false, 0, 0, 0, 0, false},
        {true, 0, 0, 0, 0, true},
        {true, 0x300000, 0x300002, 0, 0, true},
        {true, 0x300002, 0x400000, 0, 0, false},
        {true, 0x200000, 0x300000, 0, 0, false},
        {true, 0, 0, 5, 4, true},
        {true, 0, 0, 5, 5, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.lo << "-" << c.hi << " max " << c.max);
        trace_log = c.log;
        trace_lo = c.lo;
        trace_hi = c.hi;
        trace_log_max = c.max;
        trace_logged = c.logged_before;
        testing::internal::CaptureStdout();
        EXPECT_EQ(call(0x300000), RUN_OUT_OF_RANGE);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(out.find("00300000") != std::string::npos, c.printed) << out;
        EXPECT_EQ(trace_logged, c.logged_before + (c.printed ? 1 : 0));
    }
}

TEST_F(RunnerTest, HandlerNodeWithoutCodeRunsNothing) {
    write32(m, 0x1000 + 18, 0);
    write32(m, 0x1000 + 14, 0x12345678);
    std::string err = stderr_of([&] { EXPECT_EQ(deli_run_handler(m, 0x1000), 0u); });
    EXPECT_EQ(err, "");
    EXPECT_EQ(m.a[0], 0xA0A0A000u);
    EXPECT_EQ(m.a[1], 0xA0A0A001u);
    EXPECT_EQ(m.a[7], 0xA0A0A007u);
    EXPECT_EQ(m.pc, 0u);
}

// ---- these need the 68000 core ----

TEST_F(RunnerTest, SingleRtsReturnsD0) {
    put_words(m, 0x200000, {RTS});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), 0xD0D0D000u);
    EXPECT_EQ(err, "");
    EXPECT_EQ(m.pc, RUNNER_SENTINEL);
    EXPECT_EQ(m.a[7], RUNNER_STACK_TOP + 4);
}

TEST_F(RunnerTest, RoutinesRunInEveryCodeRegion) {
    for (uint32_t at : {0x010000u, 0x0FFFFCu, 0x200000u, 0x2FFFFCu, 0x400000u, 0x7FFFFCu,
                        0xF7F000u, 0xF9FFFCu}) {
        SCOPED_TRACE(at);
        put_words(m, at, {MOVEQ_42_D0, RTS});
        std::string err;
        EXPECT_EQ(call(at, &err), 42u);
        EXPECT_EQ(err, "");
    }
}

TEST_F(RunnerTest, OutOfRangeListsRecentPcs) {
    // Nine NOPs, then a jump out of the code regions.
    uint32_t a = 0x200000;
    for (int k = 0; k < 9; k++, a += 2) put_words(m, a, {NOP});
    put_words(m, a, {JMP_ABS_L, 0x0030, 0x0000});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_OUT_OF_RANGE);
    EXPECT_EQ(err.substr(0, err.find("  D0..D7")),
              "deli_call: PC=00300000 out of range (routine=00200000 i=10)\n"
              "  recent PCs:\n"
              "     00200000 00200002 00200004 00200006 00200008 0020000a 0020000c 0020000e\n"
              "     00200010 00200012\n");
}

TEST_F(RunnerTest, RingKeepsTheLast256OldestFirst) {
    // 300 NOPs and a jump out: the ring holds instructions 45..300.
    uint32_t a = 0x200000;
    for (int k = 0; k < 300; k++, a += 2) put_words(m, a, {NOP});
    put_words(m, a, {JMP_ABS_L, 0x0030, 0x0000});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_OUT_OF_RANGE);
    std::string head = err.substr(0, err.find('\n') + 1);
    EXPECT_EQ(head, "deli_call: PC=00300000 out of range (routine=00200000 i=301)\n");
    size_t first = err.find("\n    ");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(err.substr(first, 14), "\n     0020005a");  // instruction 45 at 0x200000 + 2*45
    EXPECT_NE(err.find(" 00200258\n  D0..D7"), std::string::npos);  // the jump
    EXPECT_EQ(err.find("00200058"), std::string::npos);
}

TEST_F(RunnerTest, BudgetEndsAnEndlessLoop) {
    put_words(m, 0x200000, {NOP, BRA_SELF});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_FAILED);
    EXPECT_EQ(err, "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n");
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

TEST_F(RunnerTest, BusFaultEndsTheCall) {
    put_words(m, 0x200000, {NOP, MOVE_W_ABS_L_D0, 0x00FF, 0xFFFF, RTS});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_FAILED);
    EXPECT_EQ(err, "deli_call: fault 2 at PC=00200008 (routine=00200000)\n");
}

TEST_F(RunnerTest, BreakInsideARoutine) {
    put_words(m, 0x200000, {NOP, NOP, MOVEQ_42_D0, RTS});
    trace_break_pc = 0x200004;
    std::string err;
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x200000, &err), 0xD0D0D000u);  // stopped before the moveq
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(trace_break_hit);
    EXPECT_EQ(err, "trace-pc: break at 00200004 (routine=00200000 i=2)\n");
}

TEST_F(RunnerTest, TraceLinesInsideTheWindow) {
    put_words(m, 0x200000, {NOP, NOP, NOP, NOP, RTS});
    struct Case {
        uint32_t lo, hi;
        uint64_t max;
        int lines;
    };
    const Case cases[] = {{0, 0, 0, 5}, {0x200002, 0x200006, 0, 2}, {0, 0, 3, 3},
                          {0x200004, 0x300000, 1, 1}, {0x300000, 0x400000, 0, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.lo << "-" << c.hi << " max " << c.max);
        trace_log = true;
        trace_lo = c.lo;
        trace_hi = c.hi;
        trace_log_max = c.max;
        trace_logged = 0;
        testing::internal::CaptureStdout();
        EXPECT_EQ(call(0x200000), 0xD0D0D000u);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), c.lines) << out;
        EXPECT_EQ(trace_logged, uint64_t(c.lines));
    }
}

TEST_F(RunnerTest, HandlerGetsCustomBaseAndData) {
    // addq.l #1,(a1); move.l a0,$1004.w; move.l a1,$1000.w; rts
    put_words(m, 0x200000, {ADDQ_L_1_IND_A1, MOVE_L_A0_ABS_W, 0x1004, MOVE_L_A1_ABS_W, 0x1000, RTS});
    write32(m, 0x3000 + 18, 0x200000);
    write32(m, 0x3000 + 14, 0x2000);
    EXPECT_EQ(deli_run_handler(m, 0x3000), 0xD0D0D000u);
    EXPECT_EQ(read32(m, 0x1004), 0xDFF000u);
    EXPECT_EQ(read32(m, 0x1000), 0x2000u);
    EXPECT_EQ(read32(m, 0x2000), 1u);
    EXPECT_EQ(m.a[5], DELI_BASE);
}

TEST_F(RunnerTest, CiaPendingHandlersRunInQueueOrder) {
    // Each handler counts its runs in its data and leaves its data pointer
    // at $1000: the last one to run wins.
    put_words(m, 0x200000, {ADDQ_L_1_IND_A1, MOVE_L_A1_ABS_W, 0x1000, RTS});
    const uint32_t nodes[] = {0x3000, 0x3100, 0x3200};
    for (uint32_t k = 0; k < 3; k++) {
        write32(m, nodes[k] + 18, 0x200000);
        write32(m, nodes[k] + 14, 0x2000 + 4 * k);
    }
    m.cia_pending[0] = nodes[1];
    m.cia_pending[1] = nodes[0];
    m.cia_pending[2] = nodes[1];
    m.cia_pending[3] = nodes[2];
    m.cia_pending_count = 3;  // the fourth is not queued
    cia_run_pending(m);
    EXPECT_EQ(read32(m, 0x2000), 1u);
    EXPECT_EQ(read32(m, 0x2004), 2u);
    EXPECT_EQ(read32(m, 0x2008), 0u);
    EXPECT_EQ(read32(m, 0x1000), 0x2004u);
    EXPECT_EQ(m.cia_pending_count, 0u);
    cia_run_pending(m);  // nothing left
    EXPECT_EQ(read32(m, 0x2004), 2u);
}
