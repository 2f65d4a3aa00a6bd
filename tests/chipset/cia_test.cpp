// CIA timers counted in audio frames: periods from the latch, the control
// register rules, underflows into the ICR and the handler queue, and the
// next-event query the render loop steps by.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "chipset/cia.h"
#include "cpu/bus.h"
#include "test_machine.h"

namespace {

// Register addresses: CIA-A at $BFExxx, CIA-B at $BFDxxx, register in bits 8-11.
constexpr uint32_t CIAA = 0xBFE001, CIAB = 0xBFD000;
constexpr uint32_t reg(uint32_t cia, uint32_t r) { return cia + (r << 8); }
constexpr uint32_t PRA = 0x0, TALO = 0x4, TAHI = 0x5, TBLO = 0x6, TBHI = 0x7, ICR = 0xD,
                   CRA = 0xE, CRB = 0xF;

constexpr uint32_t HANDLER_A = 0x201000, HANDLER_B = 0x202000;

// 14136 E-clock ticks (latch $3737) in frames at 48000 Hz.
constexpr double PERIOD_3737 = 14136.0 * 48000.0 / 709379.0;

struct CiaTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    void SetUp() override { cia_init(m); }

    void start_timer_a(uint32_t cia, uint8_t control) {
        write8(m, reg(cia, TALO), 0x37);
        write8(m, reg(cia, TAHI), 0x37);
        write8(m, reg(cia, CRA), control);
    }
    std::vector<uint32_t> pending() const {
        return std::vector<uint32_t>(m.cia_pending, m.cia_pending + m.cia_pending_count);
    }
};

TEST_F(CiaTest, LatchBecomesAPeriodInFrames) {
    start_timer_a(CIAB, 0x11);
    const CiaTimer& t = m.cia[1].timer[0];
    EXPECT_NEAR(t.period, 956.5, 0.05);
    EXPECT_DOUBLE_EQ(t.remaining, t.period);
    EXPECT_EQ(t.running, 1);
    EXPECT_EQ(t.one_shot, 0);
    EXPECT_EQ(t.control, 0x01) << "LOAD is a strobe";
    EXPECT_EQ(m.cia[0].timer[0].running, 0) << "CIA-A untouched";
}

TEST_F(CiaTest, ContinuousTimerQueuesOncePerPeriodElapsed) {
    start_timer_a(CIAB, 0x11);
    write8(m, reg(CIAB, ICR), 0x81);
    m.cia[1].handler[0] = HANDLER_A;
    // From a full period: 2000 frames cover two underflows; then the timer
    // has 3 x 956.5 - 2000 left.
    cia_advance(m, 2000);
    EXPECT_EQ(pending(), std::vector<uint32_t>({HANDLER_A, HANDLER_A}));
    EXPECT_NEAR(m.cia[1].timer[0].remaining, 3 * PERIOD_3737 - 2000, 1e-9);
    EXPECT_EQ(m.cia[1].icr_data, 0x01);
    // The queue starts empty at every advance.
    cia_advance(m, 1);
    EXPECT_TRUE(pending().empty());
    EXPECT_EQ(read8(m, reg(CIAB, ICR)), 0x81) << "pending and enabled";
    EXPECT_EQ(read8(m, reg(CIAB, ICR)), 0x00) << "cleared by the read";
}

TEST_F(CiaTest, UnderflowNeedsMaskBitAndHandler) {
    struct Case {
        const char* what;
        std::vector<uint8_t> icr_writes;
        uint32_t handler;
        size_t queued;
        uint8_t icr_read;
    };
    const Case cases[] = {
        {"mask and handler", {0x81}, HANDLER_A, 1, 0x81},
        {"mask set then cleared", {0x81, 0x01}, HANDLER_A, 0, 0x01},
        {"no handler", {0x81}, 0, 0, 0x81},
        {"other bit enabled", {0x82}, HANDLER_A, 0, 0x01},
        {"clear without bit 7 leaves others", {0x83, 0x02}, HANDLER_A, 1, 0x81},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        cia_init(m);
        start_timer_a(CIAA, 0x01);
        for (uint8_t v : c.icr_writes) write8(m, reg(CIAA, ICR), v);
        m.cia[0].handler[0] = c.handler;
        cia_advance(m, 957);
        EXPECT_EQ(pending().size(), c.queued);
        EXPECT_EQ(read8(m, reg(CIAA, ICR)), c.icr_read);
    }
}

TEST_F(CiaTest, OneShotUnderflowsOnceAndStops) {
    start_timer_a(CIAA, 0x09);
    write8(m, reg(CIAA, ICR), 0x81);
    m.cia[0].handler[0] = HANDLER_A;
    cia_advance(m, 5000);  // five periods, one underflow
    EXPECT_EQ(pending(), std::vector<uint32_t>({HANDLER_A}));
    const CiaTimer& t = m.cia[0].timer[0];
    EXPECT_EQ(t.running, 0);
    EXPECT_EQ(read8(m, reg(CIAA, CRA)), 0x08) << "START drops, RUNMODE stays";
    EXPECT_DOUBLE_EQ(t.remaining, t.period);
    cia_advance(m, 5000);
    EXPECT_TRUE(pending().empty());
    EXPECT_EQ(cia_frames_to_next_event(m), -1);
    // In one-shot mode a write of the high latch byte starts it again.
    write8(m, reg(CIAA, TAHI), 0x00);
    EXPECT_EQ(t.running, 1);
    EXPECT_DOUBLE_EQ(t.remaining, 0x38 * 48000.0 / 709379.0);  // latch $0037
}

TEST_F(CiaTest, ControlWriteReloadsOnlyWithLoadOrAStart) {
    struct Case {
        const char* what;
        std::vector<uint8_t> controls;  // written after 500 frames of running
        bool reloaded;
    };
    const Case cases[] = {
        {"START again without LOAD", {0x01}, false},
        {"START with LOAD", {0x11}, true},
        {"stop with LOAD", {0x10}, true},
        {"stop", {0x00}, false},
        {"stop, then START without LOAD", {0x00, 0x01}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        cia_init(m);
        start_timer_a(CIAB, 0x11);
        cia_advance(m, 500);
        for (uint8_t v : c.controls) write8(m, reg(CIAB, CRA), v);
        double expect = c.reloaded ? PERIOD_3737 : PERIOD_3737 - 500;
        EXPECT_NEAR(m.cia[1].timer[0].remaining, expect, 1e-9);
    }
}

TEST_F(CiaTest, NewLatchOfARunningTimerTakesEffectAtItsReload) {
    start_timer_a(CIAB, 0x11);
    cia_advance(m, 900);
    write8(m, reg(CIAB, TALO), 0xFF);
    write8(m, reg(CIAB, TAHI), 0x6E);  // 28415: about twice as long
    const CiaTimer& t = m.cia[1].timer[0];
    EXPECT_NEAR(t.remaining, PERIOD_3737 - 900, 1e-9) << "the running count goes on";
    cia_advance(m, 100);
    EXPECT_NEAR(t.remaining, PERIOD_3737 - 1000 + 28416 * 48000.0 / 709379.0, 1e-9);
}

TEST_F(CiaTest, NextEventIsTheEarliestRunningTimerRoundedUp) {
    struct Timer {
        int cia, which;
        double remaining;
        bool running;
    };
    struct Case {
        const char* what;
        std::vector<Timer> timers;
        int64_t frames;
    };
    const Case cases[] = {
        {"nothing runs", {}, -1},
        {"a stopped timer does not count", {{0, 0, 5.0, false}}, -1},
        {"fraction rounds up", {{1, 0, 956.52, true}}, 957},
        {"whole number stays", {{1, 0, 956.0, true}}, 956},
        {"at most one frame is one", {{0, 1, 0.25, true}}, 1},
        {"exactly one", {{0, 1, 1.0, true}}, 1},
        {"the smallest wins", {{0, 0, 300.5, true}, {1, 1, 20.2, true}, {1, 0, 99, true}}, 21},
        {"negative candidate replaced by the next",
         {{0, 0, -3.0, true}, {0, 1, 50.0, true}},
         50},
        {"negative last is no limit", {{0, 0, 40.0, true}, {1, 1, -2.0, true}}, -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        cia_init(m);
        for (const Timer& t : c.timers) {
            m.cia[t.cia].timer[t.which].remaining = t.remaining;
            m.cia[t.cia].timer[t.which].running = t.running;
        }
        EXPECT_EQ(cia_frames_to_next_event(m), c.frames);
    }
}

TEST_F(CiaTest, HandlersQueueInTimerOrder) {
    // All four timers at latch 0: a period of one frame.
    for (uint32_t cia : {CIAA, CIAB}) {
        write8(m, reg(cia, ICR), 0x83);
        write8(m, reg(cia, CRA), 0x11);
        write8(m, reg(cia, CRB), 0x11);
    }
    m.cia[0].handler[0] = 0xA0;
    m.cia[0].handler[1] = 0xA1;
    m.cia[1].handler[0] = 0xB0;
    m.cia[1].handler[1] = 0xB1;
    EXPECT_DOUBLE_EQ(m.cia[0].timer[0].period, 1.0) << "a period is at least one frame";
    cia_advance(m, 1);
    EXPECT_EQ(pending(), std::vector<uint32_t>({0xA0, 0xA1, 0xB0, 0xB1}));
    // Three frames: three underflows each, but the queue holds eight.
    cia_advance(m, 3);
    EXPECT_EQ(pending(), std::vector<uint32_t>({0xA0, 0xA0, 0xA0, 0xA1, 0xA1, 0xA1, 0xB0, 0xB0}));
    for (const Cia& c : m.cia)
        for (const CiaTimer& t : c.timer) {
            EXPECT_GT(t.remaining, 0.0);
            EXPECT_LE(t.remaining, t.period);
        }
}

TEST_F(CiaTest, HugeStepEndsWithinAPeriod) {
    write8(m, reg(CIAA, CRB), 0x11);  // latch 0: one frame per underflow
    write8(m, reg(CIAA, ICR), 0x82);
    m.cia[0].handler[1] = HANDLER_B;
    cia_advance(m, 4000000000u);
    EXPECT_EQ(m.cia_pending_count, 8u);
    const CiaTimer& t = m.cia[0].timer[1];
    EXPECT_GT(t.remaining, 0.0);
    EXPECT_LE(t.remaining, t.period);
}

TEST_F(CiaTest, PortABit1DrivesTheLedFilter) {
    struct Case {
        const char* what;
        uint32_t setting;  // led_filter: 0 follows the port, 1 off, 2 on
        uint32_t address;
        uint8_t value;
        uint32_t led_before, led_after;
    };
    const Case cases[] = {
        {"bit 1 set: LED off", 0, reg(CIAA, PRA), 0x02, 1, 0},
        {"bit 1 clear: LED on", 0, reg(CIAA, PRA), 0x00, 0, 1},
        {"other bits do not matter", 0, reg(CIAA, PRA), 0xFD, 0, 1},
        {"CIA-B port A is not wired to it", 0, reg(CIAB, PRA), 0x02, 1, 1},
        {"forced off", 1, reg(CIAA, PRA), 0x00, 0, 0},
        {"forced on", 2, reg(CIAA, PRA), 0x02, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        m.led_filter = c.setting;
        m.paula.led_on = c.led_before;
        write8(m, c.address, c.value);
        EXPECT_EQ(m.paula.led_on, c.led_after);
    }
}

}  // namespace
