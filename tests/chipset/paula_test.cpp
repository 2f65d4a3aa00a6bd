// The Paula mixer measured by what comes out: DC levels through the filter
// chain, the volume duty cycle, the filter corners, channel wiring, the tick
// clock, and agreement with a tick-by-tick reference and between the
// portable and AVX2 builds of the tick loop.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "chipset/custom.h"
#include "paula_reference.h"
#include "playback/wav.h"
#include "test_machine.h"

namespace {

constexpr double PI = 3.141592653589793;
constexpr int RATE = 48000;

std::string kernel_name(PaulaKernel k) { return k == PaulaKernel::Portable ? "Portable" : "Avx2Fma"; }

// Programs channel c through its registers and switches its DMA on.
void play(Machine& m, int c, uint32_t address, uint16_t words, uint16_t period, uint16_t volume) {
    uint32_t base = 0xA0 + 16 * c;
    custom_write_word(m, base + 0, uint16_t(address >> 16));  // AUDxLCH
    custom_write_word(m, base + 2, uint16_t(address));        // AUDxLCL
    custom_write_word(m, base + 4, words);                    // AUDxLEN
    custom_write_word(m, base + 6, period);                   // AUDxPER
    custom_write_word(m, base + 8, volume);                   // AUDxVOL
    custom_write_word(m, 0x096, uint16_t(0x8200 | 1 << c));   // DMACON: DMAEN + AUDxEN
}

void fill(Machine& m, uint32_t address, uint32_t bytes, int8_t value) {
    std::memset(m.chip_ram + address, uint8_t(value), bytes);
}

// A looping sine of `cycles` periods in `bytes` samples.
void sine(Machine& m, uint32_t address, uint32_t bytes, int cycles, double amplitude) {
    for (uint32_t i = 0; i < bytes; i++)
        m.chip_ram[address + i] =
            uint8_t(int8_t(std::lround(amplitude * std::sin(2 * PI * cycles * i / bytes))));
}

struct Level {
    double left, right;
};

struct MixerTest : ::testing::TestWithParam<PaulaKernel> {
    MachinePtr mp = make_machine();
    Machine& m = *mp;

    void SetUp() override {
        if (!paula_kernel_available(GetParam()))
            GTEST_SKIP() << kernel_name(GetParam()) << " kernel: this CPU lacks its instructions";
        custom_paula_init(m);
    }

    std::vector<float> mix(int frames) {
        std::vector<float> out(2 * size_t(frames), 0.0f);
        paula_mix_frames_with(GetParam(), m.paula, out.data(), frames);
        return out;
    }

    // Mean of each side over `frames` after `settle` frames.
    Level level(int settle, int frames) {
        mix(settle);
        std::vector<float> out = mix(frames);
        Level l{0, 0};
        for (int i = 0; i < frames; i++) {
            l.left += out[2 * i];
            l.right += out[2 * i + 1];
        }
        return {l.left / frames, l.right / frames};
    }

    // Amplitude of the left side at `freq` (Hann-windowed projection, so the
    // images of the sample-and-hold stay out) after `settle` frames.
    double amplitude_left(double freq, int settle, int frames) {
        mix(settle);
        std::vector<float> out = mix(frames);
        double re = 0, im = 0, wsum = 0;
        for (int i = 0; i < frames; i++) {
            double w = 0.5 - 0.5 * std::cos(2 * PI * i / frames);
            re += w * out[2 * i] * std::cos(2 * PI * freq * i / RATE);
            im += w * out[2 * i] * std::sin(2 * PI * freq * i / RATE);
            wsum += w;
        }
        return 2 * std::hypot(re, im) / wsum;
    }
};

// Full-scale 127 at volume 64 through two halvings: the side's mix and 1/128.
constexpr double ONE_CHANNEL_DC = 127 * 0.5 / 128;

TEST_P(MixerTest, ConstantSampleSettlesOnItsSideOnly) {
    struct Case {
        int channel;
        uint16_t period;
        bool left;
    };
    // Paula wires channels 0 and 3 to the left output, 1 and 2 to the right.
    const Case cases[] = {{0, 428, true}, {1, 124, false}, {2, 1000, false}, {3, 113, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE("channel " + std::to_string(c.channel));
        custom_paula_init(m);
        fill(m, 0x10000, 200, 127);
        play(m, c.channel, 0x10000, 100, c.period, 64);
        Level l = level(4800, 960);
        EXPECT_NEAR(c.left ? l.left : l.right, ONE_CHANNEL_DC, 1e-4);
        EXPECT_NEAR(c.left ? l.right : l.left, 0.0, 1e-9);
    }
}

TEST_P(MixerTest, TwoChannelsOnOneSideAreSoftClipped) {
    fill(m, 0x10000, 200, 127);
    play(m, 1, 0x10000, 100, 300, 64);
    play(m, 2, 0x10000, 100, 211, 64);
    Level l = level(4800, 960);
    // 0.9921875 reaches the clipper and leaves it at 0.8 + 0.2 tanh(0.1921875 / 0.2).
    EXPECT_NEAR(l.right, 0.94894, 1e-4);
    EXPECT_NEAR(l.left, 0.0, 1e-9);
}

TEST_P(MixerTest, VolumeIsADutyCycle) {
    // The level follows volume/64 through the filters; 65..127 is full.
    struct Case {
        uint16_t volume;
        double fraction;
    };
    const Case cases[] = {{64, 1.0}, {32, 0.5}, {16, 0.25}, {1, 1.0 / 64}, {0, 0.0}, {0x7F, 1.0}};
    for (const Case& c : cases) {
        SCOPED_TRACE("volume " + std::to_string(c.volume));
        custom_paula_init(m);
        fill(m, 0x10000, 200, 127);
        play(m, 0, 0x10000, 100, 428, c.volume);
        EXPECT_NEAR(level(4800, 4800).left, ONE_CHANNEL_DC * c.fraction, 2e-4);
    }
}

// Gain of a sine through the chain, as the ratio of two set-ups that differ
// in one stage only, so the sample-and-hold droop and the anti-alias filter
// cancel out.
TEST_P(MixerTest, RcAndLedCornersAreThreeDbDown) {
    constexpr uint16_t PERIOD = 124;  // 28604 Hz sample rate
    constexpr uint32_t BYTES = 4096;
    const double sample_rate = double(PAULA_CLOCK_PAL) / PERIOD;
    auto exact = [&](double freq) {
        return std::lround(freq * BYTES / sample_rate) * sample_rate / BYTES;
    };
    auto gain = [&](double freq, bool led, bool a1200) {
        int cycles = int(std::lround(freq * BYTES / sample_rate));
        custom_paula_init(m);
        m.paula.a1200_filter = a1200;
        paula_recalc(m.paula);
        m.paula.led_on = led;
        sine(m, 0x10000, BYTES, cycles, 100);
        play(m, 0, 0x10000, BYTES / 2, PERIOD, 64);
        return amplitude_left(exact(freq), 2400, 9600);
    };
    struct Case {
        const char* what;
        double freq;
        bool led;  // LED on vs off (both A1200) or A500 vs A1200 (LED off)
        double corner;
        int order;
    };
    // The A500's one-pole RC at 4400 Hz measured against the A1200's
    // (34000 Hz); the LED's two-pole Butterworth at 3300 Hz against no LED.
    const Case cases[] = {
        {"A500 RC at its corner", 4400, false, 4400, 1},
        {"A500 RC an octave above", 8800, false, 4400, 1},
        {"LED at its corner", 3300, true, 3300, 2},
        {"LED an octave above", 6600, true, 3300, 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        double f = exact(c.freq);
        double ratio = c.led ? gain(c.freq, true, true) / gain(c.freq, false, true)
                             : gain(c.freq, false, false) / gain(c.freq, false, true);
        double expect = 1.0 / std::sqrt(1.0 + std::pow(f / c.corner, 2 * c.order));
        if (!c.led) expect *= std::sqrt(1.0 + std::pow(f / 34000.0, 2));  // the A1200 reference
        EXPECT_NEAR(ratio, expect, 0.003) << "at " << f << " Hz";
        if (c.freq == c.corner) {
            EXPECT_NEAR(20 * std::log10(ratio), -3.0, 0.15);
        }
    }
}

TEST_P(MixerTest, SilenceLeavesTheBufferAloneOnceDecayed) {
    fill(m, 0x10000, 200, 100);
    play(m, 0, 0x10000, 100, 300, 64);
    play(m, 1, 0x10000, 100, 300, 64);
    mix(960);
    custom_write_word(m, 0x096, 0x0200);  // DMA off: both channels stop
    mix(4800);                            // the filters ring down
    std::vector<float> out(2 * 960);
    for (size_t i = 0; i < out.size(); i++) out[i] = float(i % 7) * 0.125f - 0.375f;
    std::vector<float> before = out;
    paula_mix_frames_with(GetParam(), m.paula, out.data(), 960);
    EXPECT_EQ(out, before);
}

TEST_P(MixerTest, ZeroPeriodIsLeftOutUntilSet) {
    fill(m, 0x10000, 200, 127);
    play(m, 0, 0x10000, 100, 0, 64);  // AUD0PER = 0: active but silent
    ASSERT_EQ(m.paula.ch[0].active, 1);
    EXPECT_NEAR(level(960, 960).left, 0.0, 1e-12);
    EXPECT_EQ(m.paula.ch[0].phase, 0u);
    custom_write_word(m, 0xA6, 428);
    EXPECT_NEAR(level(4800, 960).left, ONE_CHANNEL_DC, 1e-4);
}

// A channel that never fetches counts ticks in its phase.
uint64_t ticks_counted(const PaulaChannel& ch) { return ch.phase >> 16; }

TEST_P(MixerTest, TickClockCarriesItsFractionAcrossCalls) {
    for (int per_call : {48000, 1, 7, 960}) {
        SCOPED_TRACE("frames per call " + std::to_string(per_call));
        custom_paula_init(m);
        PaulaChannel& ch = m.paula.ch[0];
        ch.ptr = m.chip_ram;
        ch.len = ch.loop_len = 2;
        ch.active = 1;
        ch.period = uint64_t(1) << 48;  // never due
        for (int done = 0; done < RATE; done += per_call) mix(std::min(per_call, RATE - done));
        EXPECT_EQ(ticks_counted(ch), 3546894u);
        EXPECT_EQ(m.paula.clock_frac, 18816u);
        EXPECT_EQ(ch.active, 1);
    }
}

TEST_P(MixerTest, NothingHappensForNoFrames) {
    fill(m, 0x10000, 200, 127);
    play(m, 0, 0x10000, 100, 428, 64);
    PaulaState before = m.paula;
    float out[2] = {1.0f, 2.0f};
    for (int frames : {0, -5}) paula_mix_frames_with(GetParam(), m.paula, out, frames);
    EXPECT_EQ(out[0], 1.0f);
    EXPECT_EQ(std::memcmp(&before, &m.paula, sizeof before), 0);
}

// ---- agreement with the tick-by-tick reference ----

// 64 KiB of noise from $10000, the sample data of the scenes below.
void noise(Machine& m) {
    uint32_t s = 7;
    for (uint32_t i = 0; i < 0x10000; i++) {
        s = s * 1103515245u + 12345u;
        m.chip_ram[0x10000 + i] = uint8_t(s >> 16);
    }
}

void four_voices(Machine& m) {
    play(m, 0, 0x10000, 1200, 428, 64);
    play(m, 1, 0x12000, 800, 214, 40);
    play(m, 2, 0x14000, 64, 320, 50);
    play(m, 3, 0x16000, 3000, 113, 30);
}

// A channel set by hand, for the states the registers never produce.
struct Raw {
    int c;
    uint32_t address, len;
    uint64_t period;
    uint16_t volume = 64;
    uint32_t pos = 0, loop_start = 0, loop_len = ~0u;  // ~0: the whole block
    uint8_t backwards = 0;
    uint32_t next_address = 0, next_len = 0;  // a queued block if next_len > 0
    uint64_t phase = 0;
};

void set_raw(Machine& m, const Raw& r) {
    PaulaChannel& ch = m.paula.ch[r.c];
    ch.ptr = m.chip_ram + r.address;
    ch.len = r.len;
    ch.loop_start = r.loop_start;
    ch.loop_len = r.loop_len == ~0u ? r.len : r.loop_len;
    ch.period = r.period;
    ch.volume = r.volume;
    ch.pos = r.pos;
    ch.backwards = r.backwards;
    ch.phase = r.phase;
    ch.active = 1;
    ch.sample = int8_t(ch.ptr[0]);
    if (r.next_len) {
        ch.next_ptr = m.chip_ram + r.next_address;
        ch.next_len = r.next_len;
        ch.reload_pending = 1;
    }
}

// Over the noise, `setup` (if any) runs, then the hand-set channels.
struct Scenario {
    const char* name;
    void (*setup)(Machine&);
    std::vector<Raw> raw;
    int frames;
    int chunk;  // frames per call
};

constexpr uint64_t P(uint64_t colour_clocks) { return colour_clocks << 16; }

const Scenario SCENARIOS[] = {
    {"four voices in engine-sized steps", four_voices, {}, 3000, 960},
    {"four voices a frame at a time", four_voices, {}, 300, 1},
    {"four voices through the LED filter off",
     [](Machine& m) {
         four_voices(m);
         m.paula.led_on = 0;
     },
     {}, 2000, 333},
    {"A1200 output stage",
     [](Machine& m) {
         m.paula.a1200_filter = 1;
         paula_recalc(m.paula);
         four_voices(m);
     },
     {}, 2000, 500},
    {"loud enough to clip",
     [](Machine& m) {
         for (uint32_t i = 0x11000; i < 0x11100; i++) m.chip_ram[i] = (i & 8) ? 0x7F : 0x80;
         play(m, 0, 0x11000, 128, 140, 64);
         play(m, 3, 0x11000, 64, 150, 64);
         play(m, 1, 0x10000, 2048, 200, 64);
         play(m, 2, 0x11000, 100, 500, 64);
     },
     {}, 2000, 700},
    {"one-shot blocks run out and stop", nullptr,
     {{.c = 0, .address = 0x10000, .len = 300, .period = P(200), .loop_len = 0},
      {.c = 1, .address = 0x10100, .len = 1000, .period = P(150), .volume = 33, .loop_len = 0}},
     400, 37},
    {"loop inside the block", nullptr,
     {{.c = 2, .address = 0x10000, .len = 500, .period = P(130), .volume = 50, .loop_start = 300, .loop_len = 37}},
     1000, 250},
    {"a position beyond the block end wraps into the loop", nullptr,
     {{.c = 0, .address = 0x10000, .len = 100, .period = P(150), .pos = 150, .loop_start = 10, .loop_len = 30}},
     200, 200},
    {"queued blocks taken over at the wrap",
     [](Machine& m) {
         play(m, 0, 0x10000, 50, 113, 64);
         custom_write_word(m, 0xA2, 0x0400);  // AUD0LCL: queue $10400
         custom_write_word(m, 0xA4, 200);     // AUD0LEN
     },
     {}, 600, 60},
    {"backwards, with and without a queued block", nullptr,
     {{.c = 0, .address = 0x10000, .len = 400, .period = P(170), .pos = 399, .loop_start = 100, .loop_len = 300,
       .backwards = 1},
      {.c = 1, .address = 0x10400, .len = 200, .period = P(190), .volume = 45, .pos = 199, .backwards = 1,
       .next_address = 0x10800, .next_len = 90},
      {.c = 2, .address = 0x10A00, .len = 150, .period = P(210), .pos = 149, .loop_len = 0, .backwards = 1}},
     800, 100},
    {"periods shorter than a tick", nullptr,
     {{.c = 0, .address = 0x10000, .len = 997, .period = 0x6000},
      {.c = 3, .address = 0x10800, .len = 501, .period = 0x10000, .volume = 20},
      {.c = 1, .address = 0x10C00, .len = 333, .period = 0x10001, .volume = 63}},
     500, 123},
    {"a new period below the phase", nullptr,
     {{.c = 0, .address = 0x10000, .len = 997, .period = P(200), .phase = P(50000)}}, 300, 300},
    {"muted and null channels stay out",
     [](Machine& m) {
         four_voices(m);
         m.paula.ch[1].muted = 1;
         m.paula.ch[2].ptr = nullptr;
     },
     {}, 500, 250},
    {"slow output rate: frames longer than a block",
     [](Machine& m) {
         m.paula.mix_rate = 1500;
         paula_recalc(m.paula);
         four_voices(m);
     },
     {}, 60, 7},
    {"absurd output rate: one tick per frame",
     [](Machine& m) {
         m.paula.mix_rate = 10000000;
         paula_recalc(m.paula);
         four_voices(m);
     },
     {}, 20000, 4096},
};

class ReferenceTest : public ::testing::TestWithParam<PaulaKernel> {};

TEST_P(ReferenceTest, MixerMatchesTheTickByTickReference) {
    if (!paula_kernel_available(GetParam()))
        GTEST_SKIP() << kernel_name(GetParam()) << " kernel: this CPU lacks its instructions";
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    for (const Scenario& s : SCENARIOS) {
        SCOPED_TRACE(s.name);
        custom_paula_init(m);
        noise(m);
        if (s.setup) s.setup(m);
        for (const Raw& r : s.raw) set_raw(m, r);
        PaulaState expect = m.paula;
        std::vector<float> got(2 * size_t(s.frames)), want(got.size());
        for (int done = 0; done < s.frames; done += s.chunk) {
            int n = std::min(s.chunk, s.frames - done);
            paula_mix_frames_with(GetParam(), m.paula, got.data() + 2 * done, n);
            ref::mix_frames(expect, want.data() + 2 * done, n);
        }
        double worst = 0;
        for (size_t i = 0; i < got.size(); i++) worst = std::max(worst, double(std::fabs(got[i] - want[i])));
        EXPECT_LT(worst, 1e-6);
        for (int c = 0; c < 4; c++) {
            SCOPED_TRACE("channel " + std::to_string(c));
            const PaulaChannel &a = m.paula.ch[c], &b = expect.ch[c];
            EXPECT_EQ(a.ptr, b.ptr);
            EXPECT_EQ(a.pos, b.pos);
            EXPECT_EQ(a.len, b.len);
            EXPECT_EQ(a.phase, b.phase);
            EXPECT_EQ(a.sample, b.sample);
            EXPECT_EQ(a.pwm_count, b.pwm_count);
            EXPECT_EQ(a.active, b.active);
            EXPECT_EQ(a.reload_pending, b.reload_pending);
            EXPECT_EQ(a.next_ptr, b.next_ptr);
        }
        EXPECT_EQ(m.paula.clock_frac, expect.clock_frac);
        EXPECT_NEAR(m.paula.rc_state[0], expect.rc_state[0], 1e-9);
        EXPECT_NEAR(m.paula.aa_state[3][1][0], expect.aa_state[3][1][0], 1e-9);
    }
}

// ---- the two builds of the tick loop ----

std::vector<int16_t> render_s16(PaulaKernel k) {
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    custom_paula_init(m);
    noise(m);
    four_voices(m);
    std::vector<float> out(2 * 4800, 0.0f);
    for (int done = 0; done < 4800; done += 960)
        paula_mix_frames_with(k, m.paula, out.data() + 2 * done, 960);
    std::vector<int16_t> s16;
    for (float f : out) s16.push_back(wav_sample_s16(f));
    return s16;
}

// The two builds agree after the WAV writer's rounding, 16-bit sample for
// 16-bit sample.
TEST(PaulaKernels, BothBuildsGiveTheSameSixteenBitSamples) {
    if (!paula_kernel_available(PaulaKernel::Avx2Fma))
        GTEST_SKIP() << "Avx2Fma kernel: this CPU lacks its instructions; nothing to compare";
    EXPECT_EQ(render_s16(PaulaKernel::Portable), render_s16(PaulaKernel::Avx2Fma));
}

const auto KERNELS = ::testing::Values(PaulaKernel::Portable, PaulaKernel::Avx2Fma);
auto kernel_param_name = [](const ::testing::TestParamInfo<PaulaKernel>& i) {
    return kernel_name(i.param);
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Kernels, MixerTest, KERNELS, kernel_param_name);
INSTANTIATE_TEST_SUITE_P(Kernels, ReferenceTest, KERNELS, kernel_param_name);
