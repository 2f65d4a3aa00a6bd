// The custom-chip register file: DMA start and stop, the period, volume and
// length rules, re-queueing and the audio interrupt it leads to, the
// read-only views, and the bus's byte accesses reaching the registers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "chipset/custom.h"
#include "cpu/bus.h"
#include "test_machine.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096, INTENA = 0xDFF09A, INTREQ = 0xDFF09C, ADKCON = 0xDFF09E;
constexpr uint32_t DMACONR = 0xDFF002, VPOSR = 0xDFF004, VHPOSR = 0xDFF006, ADKCONR = 0xDFF010,
                   INTENAR = 0xDFF01C, INTREQR = 0xDFF01E;

constexpr uint32_t aud(int c, uint32_t reg) { return 0xDFF0A0 + 16 * c + reg; }
constexpr uint32_t LC = 0, LCL = 2, LEN = 4, PER = 6, VOL = 8, DAT = 10;

struct CustomTest : ::testing::Test {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    void SetUp() override { custom_paula_init(m); }

    // Latches location, length, period and volume of a channel; no DMA yet.
    void latch(int c, uint32_t address, uint16_t words, uint16_t period, uint16_t volume) {
        write32(m, aud(c, LC), address);
        write16(m, aud(c, LEN), words);
        write16(m, aud(c, PER), period);
        write16(m, aud(c, VOL), volume);
    }

    void mix(int frames) {
        std::vector<float> out(2 * size_t(frames));
        paula_mix_frames(m.paula, out.data(), frames);
    }
};

TEST_F(CustomTest, DmaStartLatchesTheChannel) {
    for (int i = 0; i < 200; i++) m.chip_ram[0x10000 + i] = uint8_t(i + 1);
    latch(0, 0x10000, 100, 428, 64);
    write16(m, DMACON, 0x8201);
    const PaulaChannel& ch = m.paula.ch[0];
    EXPECT_EQ(ch.active, 1);
    EXPECT_EQ(ch.ptr, m.chip_ram + 0x10000);
    EXPECT_EQ(ch.len, 200u);
    EXPECT_EQ(ch.loop_len, 200u);
    EXPECT_EQ(ch.sample, 1) << "the first byte sounds at once";
    EXPECT_EQ(ch.period, uint64_t(428) << 16);
    EXPECT_EQ(ch.volume, 64);
    EXPECT_EQ(m.aud_was_active[0], 1);
    // One pass through the block in output frames: 428 x 200 / 3546895 x 48000.
    EXPECT_NEAR(m.aud_irq_countdown[0], 1158.43, 0.01);
}

TEST_F(CustomTest, DmaconStartsAndStopsChannels) {
    struct Case {
        const char* what;
        std::vector<uint16_t> writes;
        uint8_t active[4];
        uint16_t dmacon;
    };
    const Case cases[] = {
        {"enable bit without DMAEN starts nothing", {0x8001}, {0, 0, 0, 0}, 0x0001},
        {"DMAEN later starts the enabled channel", {0x8001, 0x8200}, {1, 0, 0, 0}, 0x0201},
        {"DMAEN and enables at once", {0x820A}, {0, 1, 0, 1}, 0x020A},
        {"clearing DMAEN stops all", {0x820F, 0x0200}, {0, 0, 0, 0}, 0x000F},
        {"clearing one enable stops one", {0x820F, 0x0004}, {1, 1, 0, 1}, 0x020B},
        {"DMAEN back on restarts the enabled", {0x8205, 0x0200, 0x8200}, {1, 0, 1, 0}, 0x0205},
        {"bit 15 is never stored", {0xFFFF}, {1, 1, 1, 1}, 0x7FFF},
        {"a clear of nothing changes nothing", {0x8203, 0x0000}, {1, 1, 0, 0}, 0x0203},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        custom_paula_init(m);
        for (int ch = 0; ch < 4; ch++) latch(ch, 0x10000, 50, 300, 40);
        for (uint16_t w : c.writes) write16(m, DMACON, w);
        EXPECT_EQ(m.dmacon, c.dmacon);
        for (int ch = 0; ch < 4; ch++) {
            EXPECT_EQ(m.paula.ch[ch].active, c.active[ch]) << "channel " << ch;
            EXPECT_EQ(m.aud_dma_on[ch], c.active[ch]) << "channel " << ch;
            EXPECT_EQ(m.aud_irq_countdown[ch] > 0, c.active[ch] == 1) << "channel " << ch;
        }
        EXPECT_EQ(m.intreq, 0) << "a stop raises no interrupt";
    }
}

TEST_F(CustomTest, RunningChannelIsNotRestartedBySettingItsBitAgain) {
    latch(2, 0x10000, 50, 300, 40);
    write16(m, DMACON, 0x8204);
    m.paula.ch[2].pos = 33;
    write16(m, DMACON, 0x8204);
    EXPECT_EQ(m.paula.ch[2].pos, 33u);
}

TEST_F(CustomTest, PeriodVolumeAndLengthRules) {
    struct Case {
        const char* what;
        uint32_t reg;
        uint16_t value;
        uint64_t period;  // expected channel period (16.16)
        uint16_t volume;
        uint8_t aud_vol;
        uint32_t len;
    };
    const uint64_t P300 = uint64_t(300) << 16;
    const Case cases[] = {
        {"LEN 0 is 65536 words", LEN, 0, P300, 40, 40, 131072},
        {"LEN 1 is two bytes", LEN, 1, P300, 40, 40, 2},
        {"period below 113 plays at 113", PER, 50, uint64_t(113) << 16, 40, 40, 100},
        {"period 1 plays at 113", PER, 1, uint64_t(113) << 16, 40, 40, 100},
        {"period 113 stays", PER, 113, uint64_t(113) << 16, 40, 40, 100},
        {"period 0 is silence", PER, 0, 0, 40, 40, 100},
        {"period 65535", PER, 65535, uint64_t(65535) << 16, 40, 40, 100},
        {"volume $7F is full volume", VOL, 0x7F, P300, 64, 0x7F, 100},
        {"volume $C0 keeps 7 bits", VOL, 0xC0, P300, 64, 0x40, 100},
        {"volume 65", VOL, 65, P300, 64, 65, 100},
        {"volume 33", VOL, 0xFF21, P300, 33, 0x21, 100},
        {"volume 0", VOL, 0, P300, 0, 0, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        custom_paula_init(m);
        latch(1, 0x10000, 50, 300, 40);
        // Length takes effect at DMA start; period and volume at once.
        if (c.reg == LEN) write16(m, aud(1, LEN), c.value);
        write16(m, DMACON, 0x8202);
        if (c.reg != LEN) write16(m, aud(1, c.reg), c.value);
        const PaulaChannel& ch = m.paula.ch[1];
        EXPECT_EQ(ch.active, 1);
        EXPECT_EQ(ch.period, c.period);
        EXPECT_EQ(ch.volume, c.volume);
        EXPECT_EQ(m.aud_vol[1], c.aud_vol);
        EXPECT_EQ(ch.len, c.len);
        EXPECT_EQ(ch.loop_len, c.len);
    }
}

TEST_F(CustomTest, LengthWriteQueuesAndRaisesOneInterrupt) {
    latch(0, 0x10000, 4, 113, 64);  // 8 bytes: one pass is 904 ticks
    write16(m, DMACON, 0x8201);
    write16(m, aud(0, LEN), 6);
    const PaulaChannel& ch = m.paula.ch[0];
    EXPECT_EQ(ch.reload_pending, 1);
    EXPECT_EQ(ch.next_len, 12u);
    EXPECT_EQ(ch.len, 8u) << "the block now sounding plays on";
    EXPECT_EQ(m.aud_queued[0], 1);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0) << "nothing until the mixer takes the block over";
    mix(20);
    EXPECT_EQ(ch.reload_pending, 0);
    EXPECT_EQ(ch.len, 12u);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0x0080);
    write16(m, INTREQ, 0x0080);
    mix(20);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0) << "one interrupt per queued block";
}

TEST_F(CustomTest, LocationWritesQueueOnlyThroughTheLowWord) {
    latch(3, 0x10000, 10, 200, 64);
    write16(m, DMACON, 0x8208);
    write16(m, aud(3, LC), 0x0002);  // AUD3LCH: latch only
    EXPECT_EQ(m.paula.ch[3].reload_pending, 0);
    EXPECT_EQ(m.aud_lc[3], 0x00020000u);
    write16(m, aud(3, LCL), 0x4000);
    EXPECT_EQ(m.paula.ch[3].reload_pending, 1);
    EXPECT_EQ(m.paula.ch[3].next_ptr, m.chip_ram + 0x24000);
    // Rewriting LEN queues again; the second queue replaces the first.
    write16(m, aud(3, LEN), 30);
    EXPECT_EQ(m.paula.ch[3].next_ptr, m.chip_ram + 0x24000);
    EXPECT_EQ(m.paula.ch[3].next_len, 60u);
    EXPECT_EQ(m.paula.ch[3].loop_len, 60u);
}

TEST_F(CustomTest, ChannelThatRanOutRestartsOnALocationWrite) {
    for (int i = 0; i < 16; i++) m.chip_ram[0x30000 + i] = 0x55;
    latch(1, 0x10000, 4, 113, 64);
    write16(m, DMACON, 0x8202);
    m.paula.ch[1].loop_len = 0;  // play the block once
    mix(30);
    EXPECT_EQ(m.paula.ch[1].active, 0);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0x0100) << "falling silent raises the request";
    write16(m, INTREQ, 0x0100);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0);

    write32(m, aud(1, LC), 0x30000);  // LCH latches, LCL restarts at once
    const PaulaChannel& ch = m.paula.ch[1];
    EXPECT_EQ(ch.active, 1);
    EXPECT_EQ(ch.ptr, m.chip_ram + 0x30000);
    EXPECT_EQ(ch.pos, 0u);
    EXPECT_EQ(ch.sample, 0x55);
    EXPECT_EQ(ch.reload_pending, 0);
    custom_check_wraps(m);
    EXPECT_EQ(m.intreq, 0x0100) << "the restart is reported too";
}

TEST_F(CustomTest, SetClearRegistersAndTheirReadBack) {
    struct Case {
        const char* what;
        uint32_t write, read;
        std::vector<uint16_t> values;
        uint16_t expect;
    };
    const Case cases[] = {
        {"INTENA set", INTENA, INTENAR, {0xC020}, 0x4020},
        {"INTENA clear", INTENA, INTENAR, {0xC0A0, 0x0020}, 0x4080},
        {"INTREQ set and clear", INTREQ, INTREQR, {0x8780, 0x0300}, 0x0480},
        {"ADKCON", ADKCON, ADKCONR, {0x8011, 0x0001}, 0x0010},
        {"DMACONR", DMACON, DMACONR, {0x8010}, 0x0010},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        custom_paula_init(m);
        for (uint16_t v : c.values) write16(m, c.write, v);
        EXPECT_EQ(read16(m, c.read), c.expect);
    }
}

TEST_F(CustomTest, IntreqrShowsTheAudioRequestsWhileDmaIsOn) {
    EXPECT_EQ(read16(m, INTREQR), 0);
    write16(m, DMACON, 0x8200);
    EXPECT_EQ(read16(m, INTREQR), 0x0780);
    write16(m, INTREQ, 0x8010);
    EXPECT_EQ(read16(m, INTREQR), 0x0790);
    EXPECT_EQ(m.intreq, 0x0010) << "the read adds the bits, it does not store them";
    write16(m, DMACON, 0x0200);
    EXPECT_EQ(read16(m, INTREQR), 0x0010);
}

TEST_F(CustomTest, BeamCounterMovesWithEveryVhposrRead) {
    EXPECT_EQ(read16(m, VHPOSR), 0x0000);
    EXPECT_EQ(read16(m, VHPOSR), 0x0101);
    EXPECT_EQ(read16(m, VHPOSR), 0x0202);
    for (int i = 3; i < 256; i++) read16(m, VHPOSR);
    EXPECT_EQ(m.beam_v, 256u);
    EXPECT_EQ(read16(m, VPOSR), 1) << "V8 of line 256";
    EXPECT_EQ(m.beam_h, 256u % 227);
    EXPECT_EQ(read16(m, VHPOSR), 0x001D) << "line 256 shows its low byte, 0";
    for (int i = 257; i < 313; i++) read16(m, VHPOSR);
    EXPECT_EQ(m.beam_v, 0u) << "313 lines per frame";
    EXPECT_EQ(read16(m, VPOSR), 0);
}

TEST_F(CustomTest, EverythingElseReadsZeroAndIgnoresWrites) {
    write16(m, DMACON, 0x8210);
    write16(m, INTENA, 0xC000);
    for (uint32_t reg : {0x000u, 0x008u, 0x00Au, 0x01Au, 0x020u, 0x0A0u, 0x100u, 0x1FEu})
        EXPECT_EQ(custom_read_word(m, 0xDFF000 + reg), 0) << "register " << reg;
    // Odd offsets match nothing, for reads and for word writes.
    EXPECT_EQ(custom_read_word(m, 0xDFF003), 0);
    custom_write_word(m, 0xDFF097, 0x820F);
    EXPECT_EQ(m.dmacon, 0x0210);
    // AUDxDAT is not emulated; neither are the copper or the blitter.
    PaulaState before = m.paula;
    write16(m, aud(0, DAT), 0x7F7F);
    write16(m, 0xDFF080, 0x1234);  // COP1LCH
    write16(m, 0xDFF058, 0x0041);  // BLTSIZE
    EXPECT_EQ(std::memcmp(&before, &m.paula, sizeof before), 0);
}

TEST_F(CustomTest, ByteAccessesThroughTheBus) {
    // A byte reaches a register as a word with the byte in both halves.
    latch(1, 0x10000, 50, 300, 40);
    write8(m, 0xDFF096, 0x82);  // $8282: DMAEN, AUD1EN and bit 7
    EXPECT_EQ(m.dmacon, 0x0282);
    EXPECT_EQ(m.paula.ch[1].active, 1);
    write8(m, 0xDFF0A9, 0x40);  // odd byte of AUD0VOL: $4040
    EXPECT_EQ(m.aud_vol[0], 0x40);
    write8(m, 0xDFF0A7, 0x01);  // odd byte of AUD0PER: $0101
    EXPECT_EQ(m.aud_per[0], 0x0101);
    EXPECT_EQ(read8(m, 0xDFF002), 0x02) << "DMACONR high byte";
    EXPECT_EQ(read8(m, 0xDFF003), 0x82) << "DMACONR low byte";
}

TEST_F(CustomTest, BlockAtTheTopOfMemoryStaysInsideTheGuard) {
    for (uint32_t a = 0xFFFF00; a <= 0xFFFFFF; a++) m.chip_ram[a] = 0x40;
    latch(0, 0xFFFF00, 0, 113, 64);  // 128 KiB from 256 bytes below the top
    write16(m, DMACON, 0x8201);
    PaulaChannel& ch = m.paula.ch[0];
    ch.pos = ch.len - 300;  // close to the end of the block, well past $FFFFFF
    mix(500);
    EXPECT_EQ(ch.active, 1);
    EXPECT_LT(ch.pos, 300u) << "wrapped to the block start";
    EXPECT_EQ(ch.sample, 0x40);
}

TEST_F(CustomTest, TraceLinesOnlyForChanges) {
    m.pc = 0x00201234;
    custom_trace = 1;
    ::testing::internal::CaptureStderr();
    write16(m, DMACON, 0x8200);
    write16(m, DMACON, 0x8200);  // unchanged: no line
    write32(m, aud(2, LC), 0x00012346);
    write16(m, aud(2, LEN), 77);
    write16(m, aud(2, PER), 428);
    write16(m, aud(2, PER), 428);
    write16(m, aud(2, VOL), 0xC1);
    std::string err = ::testing::internal::GetCapturedStderr();
    custom_trace = 0;
    EXPECT_EQ(err,
              "[trace] pc=00201234 DMACON 0000 -> 0200\n"
              "[trace] pc=00201234 AUD2LC = 00012346\n"
              "[trace] pc=00201234 AUD2LEN = 77\n"
              "[trace] pc=00201234 AUD2PER = 428\n"
              "[trace] pc=00201234 AUD2VOL = 65\n");
}

TEST_F(CustomTest, InitStopsEverythingAndFollowsTheModel) {
    for (uint32_t model : {0u, 1u}) {
        SCOPED_TRACE("model " + std::to_string(model));
        latch(0, 0x10000, 50, 300, 40);
        write16(m, DMACON, 0x8201);
        write16(m, INTENA, 0xC080);
        m.paula.led_on = 0;
        m.model = model;
        custom_paula_init(m);
        EXPECT_EQ(m.dmacon | m.intena | m.aud_lc[0], 0u);
        EXPECT_EQ(m.aud_irq_countdown[0], 0.0);
        EXPECT_EQ(m.paula.ch[0].active, 0);
        EXPECT_EQ(m.paula.led_on, 1u);
        EXPECT_EQ(m.paula.a1200_filter, model);
        // The A1200's RC corner is 34 kHz, the A500's 4.4 kHz.
        EXPECT_NEAR(m.paula.rc_coef, model ? 0.0568081 : 0.0077342, 1e-7);
        EXPECT_EQ(m.paula.clocks_per_frame, 4842693u) << "73.894 ticks per frame, 16.16";
    }
}

}  // namespace
