// Recognising modules, the tracker variants, the period and vibrato tables,
// speed and tempo, and robustness against damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <numbers>
#include <memory>
#include <random>

#include "pt_support.h"

using namespace pt_test;

namespace {

std::vector<uint8_t> with(std::vector<uint8_t> m, const std::function<void(std::vector<uint8_t>&)>& f) {
    f(m);
    return m;
}

ModBuilder tagged(const char* tag, int channels = 4) {
    ModBuilder b;
    b.tag = tag;
    b.channels = channels;
    b.patterns = {{{0, 0, 428, 1, 0, 0}}};
    return b;
}

ModBuilder soundtracker() {
    ModBuilder b;
    b.sample_count = 15;
    b.restart = 120;
    b.patterns = {{{0, 0, 428, 1, 0, 0}, {4, 1, 214, 2, 0xC, 0x20}}};
    return b;
}

}  // namespace

TEST(PtFormat, CheckRecognisesTheFamilyAndNothingElse) {
    const std::vector<uint8_t> mk = tagged("M.K.").build();
    const std::vector<uint8_t> st = soundtracker().build();
    const size_t st_names = 20;  // first sample name in a 15-instrument file
    struct Case {
        const char* name;
        std::vector<uint8_t> module;
        int format;
        int channels;
    };
    const Case cases[] = {
        {"M.K.", mk, PT_FORMAT_31, 4},
        {"M!K!", tagged("M!K!").build(), PT_FORMAT_31, 4},
        {"M&K!", tagged("M&K!").build(), PT_FORMAT_31, 4},
        {"N.T.", tagged("N.T.").build(), PT_FORMAT_31, 4},
        {"FLT4", tagged("FLT4").build(), PT_FORMAT_31, 4},
        {"4CHN", tagged("4CHN").build(), PT_FORMAT_31, 4},
        {"2CHN", tagged("2CHN", 2).build(), PT_FORMAT_31, 2},
        {"TDZ1", tagged("TDZ1", 1).build(), PT_FORMAT_31, 1},
        {"TDZ3", tagged("TDZ3", 3).build(), PT_FORMAT_31, 3},
        {"8CHN is not four channels", tagged("8CHN", 8).build(), PT_FORMAT_NONE, 0},
        {"FLT8", tagged("FLT8", 8).build(), PT_FORMAT_NONE, 0},
        {"patterns cut short", with(mk, [](auto& m) { m.resize(1084 + 1023); }), PT_FORMAT_NONE, 0},
        {"header only", with(mk, [](auto& m) { m.resize(1084); }), PT_FORMAT_NONE, 0},
        {"song length 0", with(mk, [](auto& m) { m[950] = 0; }), PT_FORMAT_NONE, 0},
        {"song length 129", with(mk, [](auto& m) { m[950] = 129; }), PT_FORMAT_NONE, 0},
        {"junk order after the song on a short file",
         with(mk, [](auto& m) { m[952 + 5] = 90; }), PT_FORMAT_31, 4},
        {"played order beyond the file",
         with(mk, [](auto& m) { m[950] = 2, m[953] = 1; }), PT_FORMAT_NONE, 0},
        {"samples cut short are fine", with(mk, [](auto& m) { m.resize(m.size() - 150); }),
         PT_FORMAT_31, 4},
        {"Soundtracker", st, PT_FORMAT_15, 4},
        {"Soundtracker: control character in a name",
         with(st, [&](auto& m) { m[st_names + 3] = 7; }), PT_FORMAT_NONE, 0},
        {"Soundtracker: volume 65", with(st, [&](auto& m) { m[st_names + 25] = 65; }),
         PT_FORMAT_NONE, 0},
        {"Soundtracker: volume word above 255", with(st, [&](auto& m) { m[st_names + 24] = 1; }),
         PT_FORMAT_NONE, 0},
        {"Soundtracker: sample 16 in a pattern", with(st, [](auto& m) { m[600] |= 0x10; }),
         PT_FORMAT_NONE, 0},
        {"Soundtracker: period 50", with(st, [](auto& m) { m[600] = 0, m[601] = 50; }),
         PT_FORMAT_NONE, 0},
        {"Soundtracker: pattern 64", with(st, [](auto& m) { m[472 + 3] = 64; }), PT_FORMAT_NONE, 0},
        {"Soundtracker: patterns cut short", with(st, [](auto& m) { m.resize(600 + 1000); }),
         PT_FORMAT_NONE, 0},
        {"nothing", {}, PT_FORMAT_NONE, 0},
        {"text", with(std::vector<uint8_t>(3000, 'x'), [](auto&) {}), PT_FORMAT_NONE, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint8_t* p = c.module.empty() ? nullptr : c.module.data();
        uint32_t n = uint32_t(c.module.size());
        EXPECT_EQ(pt_check(p, n), c.format);
        EXPECT_EQ(pt_channels(p, n), c.channels);
        auto s = std::make_unique<PtState>();
        EXPECT_EQ(pt_init(s.get(), p, n, PT_AUTO), c.format ? PT_OK : PT_ERR_FORMAT);
    }
}

TEST(PtFormat, OptionStringsNameTheVariant) {
    struct Case {
        const char* option;
        int variant;
    };
    const Case cases[] = {
        {"type:pt30", PT_PROTRACKER},   {"type:flt4", PT_PROTRACKER},
        {"type:comp", PT_PROTRACKER},   {"type:nt10", PT_NOISETRACKER},
        {"type:nt20", PT_NOISETRACKER}, {"type:m&k.", PT_NOISETRACKER},
        {"type:st20", PT_SOUNDTRACKER}, {"type:st24", PT_SOUNDTRACKER_BYTELOOP},
        {"nt20", PT_NOISETRACKER},      {"st20", PT_SOUNDTRACKER},
        {"type:pt3", PT_AUTO},          {"type:pt300", PT_AUTO},
        {"type:", PT_AUTO},             {"tipe:nt10", PT_AUTO},
        {"", PT_AUTO},                  {nullptr, PT_AUTO},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.option ? c.option : "(null)");
        EXPECT_EQ(pt_variant_from_option(c.option), c.variant);
    }
}

TEST(PtFormat, TablesFollowTheirFormulas) {
    // The finetune-0 periods fall and stay within a period unit of equal
    // temperament from C-1 = 856.
    for (int n = 0; n < PT_NOTES; n++) {
        EXPECT_NEAR(pt_note_periods[n], 856 * std::pow(2.0, -n / 12.0), 1.5) << n;
        if (n) {
            EXPECT_LT(pt_note_periods[n], pt_note_periods[n - 1]) << n;
        }
    }
    EXPECT_EQ(pt_note_periods[0], 856);
    EXPECT_EQ(pt_note_periods[PT_NOTES - 1], 113);
    for (int i = 0; i < 32; i++)
        EXPECT_EQ(pt_vibrato_sine[i], int(std::floor(255 * std::sin(std::numbers::pi * i / 32)))) << i;

    auto s = std::make_unique<PtState>();
    std::vector<uint8_t> m = tagged("M.K.").build();
    ASSERT_EQ(pt_init(s.get(), m.data(), uint32_t(m.size()), PT_AUTO), PT_OK);
    for (int f = 0; f < PT_FINETUNES; f++) {
        double eighths = f < 8 ? f : f - 16;  // finetune 8..15 is -8..-1
        for (int n = 0; n < PT_NOTES; n++)
            EXPECT_NEAR(s->periods[f][n], pt_note_periods[n] * std::pow(2.0, -eighths / 96), 0.51)
                << "finetune " << f << " note " << n;
    }
}

TEST(PtFormat, SpeedAndTempo) {
    struct Case {
        const char* name;
        bool soundtracker;
        uint8_t tempo_byte;
        int fx;  // Fxx parameter on row 0, or -1 for none
        int speed, bpm, timer;
    };
    const Case cases[] = {
        {"defaults", false, 0, -1, 6, 125, 14187},
        {"F00 is ignored", false, 0, 0x00, 6, 125, 14187},
        {"F01", false, 0, 0x01, 1, 125, 14187},
        {"F1F", false, 0, 0x1F, 31, 125, 14187},
        {"F20 is 32 BPM", false, 0, 0x20, 6, 32, 55420},
        {"FFF is 255 BPM", false, 0, 0xFF, 6, 255, 6954},
        {"F96", false, 0, 0x96, 6, 150, 11822},
        {"Soundtracker F7D is speed 13", true, 120, 0x7D, 13, 125, 14187},
        {"Soundtracker F10 is ignored", true, 120, 0x10, 6, 125, 14187},
        {"Soundtracker tempo byte 1", true, 1, -1, 6, 61, 29158},
        {"Soundtracker tempo byte 200", true, 200, -1, 6, 363, 4880},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ModBuilder b = c.soundtracker ? soundtracker() : tagged("M.K.");
        b.restart = c.tempo_byte;
        if (c.fx >= 0) b.patterns[0].push_back({0, 3, 0, 0, 0xF, uint8_t(c.fx)});
        std::vector<uint8_t> m = b.build();
        auto s = std::make_unique<PtState>();
        ASSERT_EQ(pt_init(s.get(), m.data(), uint32_t(m.size()), PT_AUTO), PT_OK);
        pt_tick(s.get());
        EXPECT_EQ(s->speed, c.speed);
        EXPECT_EQ(pt_bpm(s.get()), c.bpm);
        EXPECT_EQ(pt_cia_timer(s.get()), c.timer);
    }
}

TEST(PtFormat, SoundtrackerIgnoresLaterEffects) {
    ModBuilder b = soundtracker();
    b.patterns = {{{0, 0, 428, 1, 0xE, 0xC2}}, {}};
    b.orders = {0, 1};
    EXPECT_EQ(trace(b.build(), 8),
              "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 DMACON=8201 "
              "AUD0LC=s1+0 AUD0LEN=1\n");
    // DOC Soundtracker 2.4 files count the loop start in bytes.
    ModBuilder l = tagged("M.K.");
    l.samples[1] = {200, 0, 32, 100, 150};
    l.patterns = {{{0, 0, 428, 2, 0, 0}}};
    EXPECT_EQ(trace(l.build(), 1, PT_SOUNDTRACKER_BYTELOOP),
              "t0: DMACON=0001 AUD0LC=s2+0 AUD0LEN=200 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
              "AUD0LC=s2+100 AUD0LEN=150\n");
}

// Random damage to a module that uses every effect: the replay must never
// point Paula outside the module, whatever the sample headers and pattern
// data say, and must keep reporting song ends.
TEST(PtFormat, DamagedModulesKeepPaulaInsideTheModule) {
    struct Bounds {
        const uint8_t* base;
        size_t size;
        uint32_t lc[4];
        int bad;
    };
    std::mt19937 rng(1234);
    long longest = 0;
    for (int round = 0; round < 200; round++) {
        ModBuilder b = tagged(round % 3 ? "M.K." : "TDZ3", round % 3 ? 4 : 3);
        b.samples.push_back({300, 3, 50, 100, 200});
        b.patterns = {{}, {}, {}};
        b.orders = {0, 1, 2, 1};
        std::vector<uint8_t> m = b.build();
        // Scramble the pattern data and sample headers.
        size_t patterns_end = 1084 + 3 * 64 * 4 * size_t(b.channels);
        const unsigned density = 2 + round % 40;  // one byte in this many
        for (size_t i = 1084; i < patterns_end; i++)
            if (rng() % density == 0) m[i] = uint8_t(rng());
        for (size_t i = 20 + 22; i < 950; i += 30)
            for (size_t k = 0; k < 8; k++)
                if (rng() % 3 == 0) m[i + k] = uint8_t(rng());
        m.resize(m.size() - rng() % 600);
        Bounds bounds{m.data(), m.size(), {}, 0};
        auto s = std::make_unique<PtState>();
        pt_hw_hooks = {};
        int variant = int(rng() % 5);
        ASSERT_EQ(pt_init(s.get(), m.data(), uint32_t(m.size()), variant), PT_OK) << round;
        pt_hw_hooks.ctx = &bounds;
        pt_hw_hooks.address = [](void* ctx, const void* p) {
            auto* k = static_cast<Bounds*>(ctx);
            return uint32_t(static_cast<const uint8_t*>(p) - k->base);
        };
        pt_hw_hooks.write = [](void* ctx, uint16_t reg, uint16_t value) {
            auto* k = static_cast<Bounds*>(ctx);
            if (reg < 0xA0 || reg >= 0xE0) return;
            int ch = (reg - 0xA0) >> 4;
            if ((reg & 15) == 0) k->lc[ch] = (k->lc[ch] & 0xFFFF) | uint32_t(value) << 16;
            if ((reg & 15) == 2) k->lc[ch] = (k->lc[ch] & 0xFFFF0000u) | value;
            if ((reg & 15) == 4 && (value == 0 || k->lc[ch] + 2u * value > k->size)) k->bad++;
        };
        long t = 0;
        for (; t < 2000000 && s->song_ends < 2; t++) pt_tick(s.get());
        pt_hw_hooks = {};
        longest = std::max(longest, t);
        EXPECT_EQ(bounds.bad, 0) << "round " << round;
        EXPECT_EQ(s->song_ends, 2u) << "round " << round;
    }
    std::printf("  longest run to the second song end: %ld ticks\n", longest);
}
