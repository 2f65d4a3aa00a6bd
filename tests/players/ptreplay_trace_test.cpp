// Golden traces of the Paula register writes, tick by tick, for one effect
// at a time. Sample 1 is a 100-word one-shot at volume 64, sample 2 a
// 200-word sample looping its last 150 words at volume 32. The speed is 6
// unless a case sets it, so row n starts at tick 6n.
#include <gtest/gtest.h>

#include "pt_support.h"

using namespace pt_test;

namespace {

constexpr uint16_t C2 = 428, D2 = 381, E2 = 339, A3 = 127;

// The first tick of a note on channel 0 with sample 1 (or 2).
const char* const TRIG_S1 =
    "DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 DMACON=8201 AUD0LC=s1+0 "
    "AUD0LEN=1";

struct TraceCase {
    const char* name;
    std::vector<std::vector<Note>> patterns;
    int ticks;
    std::string expected;
    std::vector<SampleSpec> extra_samples = {};  // samples 3, 4, ...
    std::vector<uint8_t> orders = {0, 1};
    int variant = PT_AUTO;
};

void run_cases(const std::vector<TraceCase>& cases) {
    for (const TraceCase& c : cases) {
        SCOPED_TRACE(c.name);
        ModBuilder b;
        b.patterns = c.patterns;
        while (b.patterns.size() < 2) b.patterns.push_back({});
        b.orders = c.orders;
        for (const SampleSpec& s : c.extra_samples) b.samples.push_back(s);
        EXPECT_EQ(trace(b.build(), c.ticks, c.variant), c.expected);
    }
}

std::string t0_s1(const std::string& rest = "") {
    return "t0: " + std::string(TRIG_S1) + "\n" + rest;
}

}  // namespace

TEST(PtTrace, NotesStartPaulaTheWayTheHardwareWants) {
    const SampleSpec empty = {0, 0, 64, 0, 1};
    run_cases({
        {"one-shot sample loops its first two bytes", {{{0, 0, C2, 1, 0, 0}}}, 2, t0_s1()},
        {"looped sample queues its loop after DMA is on",
         {{{0, 0, C2, 2, 0, 0}}},
         2,
         "t0: DMACON=0001 AUD0LC=s2+0 AUD0LEN=200 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
         "AUD0LC=s2+100 AUD0LEN=150\n"},
        {"two channels start with one DMACON write",
         {{{0, 0, C2, 1, 0, 0}, {0, 2, D2, 2, 0, 0}}},
         1,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 DMACON=0004 "
         "AUD2LC=s2+0 AUD2LEN=200 AUD2PER=381 AUD2VOL=32 DMACON=8205 AUD0LC=s1+0 AUD0LEN=1 "
         "AUD2LC=s2+100 AUD2LEN=150\n"},
        {"instrument without a note swaps in its loop at the next wrap",
         {{{0, 0, C2, 2, 0, 0}, {1, 0, 0, 1, 0, 0}}},
         8,
         "t0: DMACON=0001 AUD0LC=s2+0 AUD0LEN=200 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
         "AUD0LC=s2+100 AUD0LEN=150\n"
         "t6: AUD0VOL=64 AUD0LC=s1+0 AUD0LEN=1\n"},
        {"an empty sample stops the channel", {{{0, 0, C2, 3, 0, 0}}}, 2,
         "t0: DMACON=0001 AUD0PER=428\n", {empty}},
        {"finetune +1 and -8",
         {{{0, 0, C2, 3, 0, 0}, {1, 0, C2, 4, 0, 0}}},
         7,
         "t0: DMACON=0001 AUD0LC=s3+0 AUD0LEN=100 AUD0PER=425 AUD0VOL=64 DMACON=8201 "
         "AUD0LC=s3+0 AUD0LEN=1\n"
         "t6: DMACON=0001 AUD0LC=s4+0 AUD0LEN=100 AUD0PER=453 DMACON=8201 AUD0LC=s4+0 "
         "AUD0LEN=1\n",
         {{100, 1, 64, 0, 1}, {100, 8, 64, 0, 1}}},
        {"E5x sets the finetune of its note", {{{0, 0, C2, 1, 0xE, 0x51}}}, 1,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=425 AUD0VOL=64 DMACON=8201 "
         "AUD0LC=s1+0 AUD0LEN=1\n"},
        {"9xx starts further in", {{{0, 0, C2, 2, 0x9, 0x01}}}, 1,
         "t0: DMACON=0001 AUD0LC=s2+256 AUD0LEN=72 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
         "AUD0LC=s2+100 AUD0LEN=150\n"},
        {"9xx beyond the end plays two bytes, then the loop", {{{0, 0, C2, 2, 0x9, 0x02}}}, 1,
         "t0: DMACON=0001 AUD0LC=s2+0 AUD0LEN=1 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
         "AUD0LC=s2+100 AUD0LEN=150\n"},
    });
}

TEST(PtTrace, PitchEffects) {
    run_cases({
        {"arpeggio", {{{0, 0, C2, 1, 0x0, 0x37}}}, 7,
         t0_s1("t1: AUD0PER=360\nt2: AUD0PER=285\nt3: AUD0PER=428\nt4: AUD0PER=360\n"
               "t5: AUD0PER=285\nt6: AUD0PER=428\n")},
        {"arpeggio stops at B-3", {{{0, 0, A3, 1, 0x0, 0x37}}}, 4,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=127 AUD0VOL=64 DMACON=8201 "
         "AUD0LC=s1+0 AUD0LEN=1\n"
         "t1: AUD0PER=113\nt3: AUD0PER=127\n"},
        {"portamento up stops at 113", {{{0, 0, 120, 1, 0x1, 5}}}, 5,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=120 AUD0VOL=64 DMACON=8201 "
         "AUD0LC=s1+0 AUD0LEN=1\n"
         "t1: AUD0PER=115\nt2: AUD0PER=113\n"},
        {"portamento down stops at 856", {{{0, 0, 762, 1, 0x2, 0x40}}}, 5,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=762 AUD0VOL=64 DMACON=8201 "
         "AUD0LC=s1+0 AUD0LEN=1\n"
         "t1: AUD0PER=826\nt2: AUD0PER=856\n"},
        {"fine portamento on the first tick only", {{{0, 0, C2, 1, 0xE, 0x12}}}, 3,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 AUD0PER=426 "
         "DMACON=8201 AUD0LC=s1+0 AUD0LEN=1\n"},
        {"tone portamento slides to the note without restarting it",
         {{{0, 0, C2, 1, 0, 0}, {1, 0, E2, 0, 0x3, 0x20}}},
         12, t0_s1("t7: AUD0PER=396\nt8: AUD0PER=364\nt9: AUD0PER=339\n")},
        {"glissando rounds the slide to semitones",
         {{{0, 0, C2, 1, 0xE, 0x31}, {1, 0, E2, 0, 0x3, 0x10}}},
         12,
         t0_s1("t7: AUD0PER=404\nt8: AUD0PER=381\nt9: AUD0PER=360\nt11: AUD0PER=339\n")},
        {"vibrato: sine, depth 8, speed 4", {{{0, 0, C2, 1, 0x4, 0x48}}}, 7,
         t0_s1("t2: AUD0PER=434\nt3: AUD0PER=439\nt4: AUD0PER=442\nt5: AUD0PER=443\n"
               "t6: AUD0PER=428\n")},
        {"vibrato: ramp down",
         {{{0, 0, C2, 1, 0xE, 0x41}, {1, 0, 0, 0, 0x4, 0x88}}},
         12,
         t0_s1("t8: AUD0PER=432\nt9: AUD0PER=436\nt10: AUD0PER=440\nt11: AUD0PER=413\n")},
        {"vibrato: square",
         {{{0, 0, C2, 1, 0xE, 0x42}, {1, 0, 0, 0, 0x4, 0x88}}},
         12, t0_s1("t7: AUD0PER=443\nt11: AUD0PER=413\n")},
    });
}

TEST(PtTrace, VolumeEffects) {
    run_cases({
        {"volume slide down then up, clamped at 64",
         {{{0, 0, C2, 1, 0xA, 0x04}, {1, 0, 0, 0, 0xA, 0x30}, {2, 0, 0, 0, 0xA, 0x30}}},
         16,
         t0_s1("t1: AUD0VOL=60\nt2: AUD0VOL=56\nt3: AUD0VOL=52\nt4: AUD0VOL=48\n"
               "t5: AUD0VOL=44\nt7: AUD0VOL=47\nt8: AUD0VOL=50\nt9: AUD0VOL=53\n"
               "t10: AUD0VOL=56\nt11: AUD0VOL=59\nt13: AUD0VOL=62\nt14: AUD0VOL=64\n")},
        {"Cxx and fine volume slides",
         {{{0, 0, C2, 1, 0xC, 0x20}, {1, 0, 0, 0, 0xE, 0xA3}, {2, 0, 0, 0, 0xE, 0xB5}}},
         14,
         "t0: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 AUD0VOL=64 AUD0VOL=32 "
         "DMACON=8201 AUD0LC=s1+0 AUD0LEN=1\n"
         "t6: AUD0VOL=35\nt12: AUD0VOL=30\n"},
        {"tremolo, and the volume back afterwards", {{{0, 0, C2, 2, 0x7, 0x44}}}, 7,
         "t0: DMACON=0001 AUD0LC=s2+0 AUD0LEN=200 AUD0PER=428 AUD0VOL=32 DMACON=8201 "
         "AUD0LC=s2+100 AUD0LEN=150\n"
         "t2: AUD0VOL=38\nt3: AUD0VOL=43\nt4: AUD0VOL=46\nt5: AUD0VOL=47\nt6: AUD0VOL=32\n"},
        {"note cut", {{{0, 0, C2, 1, 0xE, 0xC2}}}, 8, t0_s1("t2: AUD0VOL=0\n")},
        {"E0x switches the LED filter", {{{0, 1, 0, 0, 0xE, 0x00}, {1, 1, 0, 0, 0xE, 0x01}}}, 7,
         "t0: FILTER=on\nt6: FILTER=off\n"},
    });
}

TEST(PtTrace, TimingEffects) {
    const std::string trig_d2 =
        "DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=381 DMACON=8201 AUD0LC=s1+0 AUD0LEN=1";
    const std::string trig_e2 =
        "DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=339 DMACON=8201 AUD0LC=s1+0 AUD0LEN=1";
    run_cases({
        // Until the note comes, the sound before it moves on to the new loop.
        {"note delay", {{{0, 0, C2, 1, 0xE, 0xD2}}}, 4,
         "t0: AUD0VOL=64 AUD0LC=s1+0 AUD0LEN=1\n"
         "t2: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 AUD0PER=428 DMACON=8201 AUD0LC=s1+0 "
         "AUD0LEN=1\n"},
        {"retrigger every third tick", {{{0, 0, C2, 1, 0xE, 0x93}}}, 6,
         t0_s1("t3: DMACON=0001 AUD0LC=s1+0 AUD0LEN=100 DMACON=8201 AUD0LC=s1+0 AUD0LEN=1\n")},
        {"pattern delay holds the row",
         {{{0, 0, C2, 1, 0xE, 0xE1}, {0, 1, 0, 0, 0xF, 2}, {1, 0, D2, 1, 0, 0}}},
         5, t0_s1("t4: " + trig_d2 + "\n")},
        {"speed 3", {{{0, 0, C2, 1, 0, 0}, {0, 1, 0, 0, 0xF, 3}, {1, 0, D2, 1, 0, 0}}}, 4,
         t0_s1("t3: " + trig_d2 + "\n")},
        {"tempo leaves the speed alone",
         {{{0, 0, C2, 1, 0, 0}, {0, 1, 0, 0, 0xF, 0x40}, {1, 0, D2, 1, 0, 0}}},
         7, t0_s1("t6: " + trig_d2 + "\n")},
        {"pattern loop, speed 1",
         {{{0, 0, C2, 1, 0xF, 1},
           {1, 1, 0, 0, 0xE, 0x60},
           {1, 0, D2, 1, 0, 0},
           {2, 0, E2, 1, 0, 0},
           {2, 1, 0, 0, 0xE, 0x61}}},
         6,
         t0_s1("t1: " + trig_d2 + "\nt2: " + trig_e2 + "\nt3: " + trig_d2 + "\nt4: " + trig_e2 +
               "\n")},
        {"pattern break to row 2",
         {{{0, 0, C2, 1, 0xD, 0x02}}, {{1, 0, E2, 1, 0, 0}, {2, 0, D2, 1, 0, 0}}},
         7, t0_s1("t6: " + trig_d2 + "\n")},
        {"position jump",
         {{{0, 0, C2, 1, 0xB, 0x02}}, {{0, 0, E2, 1, 0, 0}}, {{0, 0, D2, 1, 0, 0}}},
         7, t0_s1("t6: " + trig_d2 + "\n"), {}, {0, 1, 2}},
        {"NoiseTracker breaks to row 0",
         {{{0, 0, C2, 1, 0xD, 0x02}}, {{0, 0, E2, 1, 0, 0}, {2, 0, D2, 1, 0, 0}}},
         7, t0_s1("t6: " + trig_e2 + "\n"), {}, {0, 1}, PT_NOISETRACKER},
        {"NoiseTracker has no E commands but E0x", {{{0, 0, C2, 1, 0xE, 0xC2}}}, 8, t0_s1(),
         {}, {0, 1}, PT_NOISETRACKER},
    });
}
