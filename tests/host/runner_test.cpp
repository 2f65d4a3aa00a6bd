#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

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

constexpr uint16_t NOP = 0x4E71, RTS = 0x4E75, BRA_SELF = 0x60FE, JMP_ABS_L = 0x4EF9;

struct RunnerTest : MachineTest {

    void SetUp() override {
        for (uint32_t k = 0; k < 8; k++) m.d[k] = 0xD0D0D000 + k, m.a[k] = 0xA0A0A000 + k;
    }
    uint32_t call(uint32_t routine, std::string* err) {
        uint32_t r = 0;
        return *err = stderr_of([&] { r = deli_call(m, routine); }), r;
    }
};

}  // namespace

// Code runs in the module window, the player image, the AllocMem slab and the
// library area; anywhere else the call ends before the first instruction,
// with a report that shows the calling convention (A5, A6, A7, SR).
TEST_F(RunnerTest, CodeRegions) {
    std::string err;
    for (uint32_t pc : {0x010000, 0x0FFFFC, 0x200000, 0x2FFFFC, 0x400000, 0x7FFFFC, 0xF7F000, 0xF9FFFC}) {
        put_words(m, pc, {0x702A, RTS});  // moveq #42,d0
        EXPECT_EQ(call(pc, &err), 42u) << pc;
        EXPECT_EQ(err, "");
        EXPECT_EQ(m.a[7], RUNNER_STACK_TOP + 4);
    }
    for (uint32_t pc : {0x0000FFFE, 0x00100000, 0x001FFFFE, 0x00300000, 0x00800000, 0x00F7EFFE, 0x00FA0000, 0x01200000}) {
        char want[128];
        std::snprintf(want, sizeof want, "deli_call: PC=%08x out of range (routine=%08x i=0)\n  recent PCs:\n  D0", pc, pc);
        EXPECT_EQ(call(pc, &err), RUN_OUT_OF_RANGE) << pc;
        EXPECT_EQ(err.substr(0, std::strlen(want)), want);
    }
    EXPECT_EQ(err.substr(err.find("  A0..A7")),
              "  A0..A7: a0a0a000 a0a0a001 a0a0a002 a0a0a003 a0a0a004 00f90000 00f80000 00eefffc SR=2000\n");
}

// The report lists the last 256 PCs, oldest first, eight to a line.
TEST_F(RunnerTest, OutOfRangeListsRecentPcs) {
    put_words(m, 0x200000, std::vector<uint16_t>(300, NOP));
    put_words(m, 0x200000 + 600, {JMP_ABS_L, 0x0030, 0x0000});
    std::string err;
    EXPECT_EQ(call(0x200000, &err), RUN_OUT_OF_RANGE);
    EXPECT_EQ(err.substr(54, 52), "i=301)\n  recent PCs:\n     0020005a 0020005c 0020005e");  // instructions 45 to 300
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 2 + 32 + 2);                        // then the jump
    EXPECT_EQ(err.substr(err.find("  D0..D7") - 28, 28), " 00200254 00200256 00200258\n");
}

// An endless loop ends when the instruction budget is spent, a bus fault at
// once; host work counts against the budget, so a loop of costly calls ends too.
TEST_F(RunnerTest, BudgetAndFaultsEndTheCall) {
    constexpr uint32_t path = 0x400000, length = 1 << 20;
    write32(m, DELI_BASE + 0x20, path);
    std::fill(m.chip_ram + path, m.chip_ram + path + length, uint8_t('a'));
    struct Case { std::vector<uint16_t> code; const char* message; };
    const Case cases[] = {
        {{NOP, BRA_SELF}, "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n"},
        {{NOP, 0x3039, 0x00FF, 0xFFFF, RTS}, "deli_call: fault 2 at PC=00200008 (routine=00200000)\n"},  // move.w
        {{0xA40A, BRA_SELF - 2}, "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n"},  // CutSuffix
    };
    for (const Case& c : cases) {
        put_words(m, 0x200000, c.code);
        std::string err;
        EXPECT_EQ(call(0x200000, &err), RUN_FAILED);
        EXPECT_EQ(err, c.message);
    }
    EXPECT_EQ(m.host_cost, 0u);
}

// An interrupt node's code runs with A0 = the custom chips and A1 = is_Data;
// a node without code runs nothing. The CIA's queue runs in its order.
TEST_F(RunnerTest, HandlersGetCustomBaseAndData) {
    write32(m, 0x1000 + 14, 0x12345678);
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_run_handler(m, 0x1000), 0u); }), "");
    EXPECT_EQ(m.pc, 0u);
    // addq.l #1,(a1); move.l a0,$1004.w; move.l a1,$1000.w; rts: each node counts its runs in its data.
    put_words(m, 0x200000, {0x5291, 0x21C8, 0x1004, 0x21C9, 0x1000, RTS});
    const uint32_t nodes[] = {0x3000, 0x3100, 0x3200};
    for (uint32_t k = 0; k < 3; k++) write32(m, nodes[k] + 18, 0x200000), write32(m, nodes[k] + 14, 0x2000 + 4 * k);
    EXPECT_EQ(deli_run_handler(m, nodes[2]), 0xD0D0D000u);
    EXPECT_EQ(longs_at(m, {0x1004, 0x1000}), (std::vector<uint32_t>{0xDFF000, 0x2008}));
    EXPECT_EQ(m.a[5], DELI_BASE);
    for (uint32_t k : {1, 0, 1, 2}) m.cia_pending[m.cia_pending_count++] = nodes[k];
    m.cia_pending_count = 3;  // the fourth is not queued
    cia_run_pending(m);
    cia_run_pending(m);  // nothing left
    EXPECT_EQ(longs_at(m, {0x2000, 0x2004, 0x2008, 0x1000}), (std::vector<uint32_t>{1, 2, 1, 0x2004}));  // last
    EXPECT_EQ(m.cia_pending_count, 0u);
}
