// The playback engine driving a player built from our own source
// (amiga/engine_probe.s): the order of the start and stop routines, the one
// way a start fails, and above all timing. Every timed routine of the probe ends
// in SongEnd, which records `frames_rendered` at the call; clearing the
// count before each render call shows which calls ran inside it and the
// frame of the first. The expected frames come from the hardware periods,
// and every way of cutting the render into calls must give the same calls
// and the same sound.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "cpu/bus.h"
#include "cpu/cpu.h"
#include "host/deli.h"
#include "host/host_test.h"
#include "machine.h"
#include "playback/engine.h"
#include "playback/play.h"
#include "test_machine.h"

namespace {

// The probe's module: its configuration (engine_probe.s).
enum Flag : uint32_t { VBLANK = 1, CIA = 2, TONE = 4, AUDIRQ = 8, SETTIMER = 16 };
struct Config {
    uint32_t flags = TONE;
    uint32_t check2 = 0, init = 0, subsongs = 0;
    uint32_t cia_latch = 0, timer = 0;
};

// Offsets of the probe's state record.
constexpr uint32_t ST_LOG_COUNT = 4, ST_LOG = 8, ST_VOICES = 24, ST_SUBSONG = 28, ST_CALLS = 32,
                   ST_DATA = 48;
enum Counter { INTERRUPT, VBLANK_SERVER, CIA_SERVER, AUDIO_SERVER };

struct Probe {
    Probe() { static const bool filled = (op_table_fill(), true); (void)filled; }
    MachinePtr mp = make_machine();
    Machine& m = *mp;
    uint32_t state = 0;

    // Reset, player and module as the play commands do them.
    void load(const std::vector<uint8_t>& player, const Config& c) {
        orvel_reset(m);
        ASSERT_EQ(orvel_load_player_mem(m, player.data(), uint32_t(player.size())), PLAYER_LOAD_ADDR);
        state = read32(m, PLAYER_LOAD_ADDR + 16);
        std::vector<uint8_t> module =
            be_longs({c.flags, c.check2, c.init, c.subsongs, c.cia_latch, c.timer});
        ASSERT_EQ(orvel_load_module_mem(m, module.data(), uint32_t(module.size()), nullptr, nullptr), 0);
    }

    std::vector<int> log() {
        std::vector<int> v;
        for (uint32_t k = 0; k < read32(m, state + ST_LOG_COUNT); k++) v.push_back(read8(m, state + ST_LOG + k));
        return v;
    }
    uint32_t calls(Counter c) { return read32(m, state + ST_CALLS + 4 * c); }
};

// Frames per pass of the 100-word sample at period 428, and per CIA timer
// underflow, at 48000 frames per second.
const double AUDIO_BLOCK = 428.0 * 200.0 / 3546895.0 * 48000.0;  // about 1158.4
double cia_period(uint32_t latch) { return (latch + 1.0) * 48000.0 / 709379.0; }

// Whole frames at which a source of the given period falls due: the first
// frame boundary at or after each multiple.
std::vector<uint64_t> multiples(double period, uint64_t first_k, uint64_t limit) {
    std::vector<uint64_t> v;
    for (uint64_t k = first_k; std::ceil(k * period) <= double(limit); k++) v.push_back(uint64_t(std::ceil(k * period)));
    return v;
}

}  // namespace

TEST(Engine, StartAndStopCallTheRoutinesInOrder) {
    AMIGA_PROGRAM(player, ORVEL_AMIGA_TEST_ENGINE_PROBE);
    Probe p;
    Config c;
    c.subsongs = 0x00070003;  // lowest subsong 3, highest 7
    p.load(player, c);
    write16(p.m, DELI_BASE + 0x146, 0x000B);  // voice mask
    ASSERT_EQ(orvel_start_playback(p.m), 0);
    // Check2, ExtLoad, InitPlayer, SubSongRange, EP_InitAmplifier, InitSound,
    // StartInt, Volume, EP_Voices.
    EXPECT_EQ(p.log(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(read16(p.m, DELI_BASE + 0x2C), 3u);
    EXPECT_EQ(read32(p.m, p.state + ST_SUBSONG), 3u) << "InitSound runs after the subsong is set";
    EXPECT_EQ(read32(p.m, p.state + ST_VOICES), 0x000Bu);
    EXPECT_EQ(p.m.interrupt_entry, p.m.player.interrupt);
    EXPECT_EQ(p.m.interrupt_period, 960);
    EXPECT_EQ(p.m.tick_period, 960);

    std::vector<float> out(2 * 100);
    orvel_render(p.m, out.data(), 100);
    orvel_stop_playback(p.m);
    // StopInt, EndSound, EndPlayer.
    EXPECT_EQ(p.log(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
}

TEST(Engine, StartFailsOnlyWhenCheck2AndInitPlayerBothFail) {
    AMIGA_PROGRAM(player, ORVEL_AMIGA_TEST_ENGINE_PROBE);
    struct Case {
        const char* name;
        bool has_check2;
        uint32_t check2, init;
        int result;
    };
    const Case cases[] = {
        {"both succeed", true, 0, 0, 0},
        {"InitPlayer fails after a successful Check2", true, 0, 1, 0},
        {"Check2 refuses, InitPlayer succeeds", true, 1, 0, 0},
        {"both fail", true, 1, 1, 1},
        {"Check2 fails as a faulting routine does", true, 0xFFFFFFFF, 0xFFFFFFFF, 1},
        {"InitPlayer fails and there is no Check2", false, 1, 1, 0},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.name);
        Probe p;
        Config c;
        c.check2 = k.check2;
        c.init = k.init;
        p.load(player, c);
        if (!k.has_check2) p.m.player.check2 = 0;
        EXPECT_EQ(orvel_start_playback(p.m), k.result);
        std::vector<int> want = {1, 2, 3, 4, 5, 6, 7, 8, 9};
        if (k.result != 0) want.resize(3);  // a failed start stops right after InitPlayer
        if (!k.has_check2) want.erase(want.begin());
        EXPECT_EQ(p.log(), want);
    }
}

// Every timed source, rendered in calls of many sizes. A routine run at the
// start of a render call (the player's Interrupt) belongs to the frames
// [s, e) of the call; a handler run after a step (servers, CIA, audio)
// belongs to (s, e], the step that ends at its frame.
TEST(Engine, TimedRoutinesRunAtTheirFramesWhateverTheCallSizes) {
    AMIGA_PROGRAM(player, ORVEL_AMIGA_TEST_ENGINE_PROBE);
    constexpr uint64_t TOTAL = 5000;
    constexpr uint32_t LATCH = 14135;  // CIA-B timer A: about 956.5 frames
    constexpr uint32_t TIMER = 7093;   // SetTimer: 480 frames
    struct Case {
        const char* name;
        Config config;
        bool interrupt;  // the player's Interrupt routine stays
        Counter counter;
        uint32_t data;   // is_Data the handler must see (0: not a server)
        std::vector<uint64_t> frames;
    };
    std::vector<uint64_t> set_timer = {0, 960};
    for (uint64_t f = 1440; f < TOTAL; f += 480) set_timer.push_back(f);
    const Case cases[] = {
        {"Interrupt at 50 Hz", {TONE}, true, INTERRUPT, 0, multiples(960, 0, TOTAL - 1)},
        {"Interrupt after SetTimer", {TONE | SETTIMER, 0, 0, 0, 0, TIMER}, true, INTERRUPT, 0, set_timer},
        {"vertical-blank server", {TONE | VBLANK}, false, VBLANK_SERVER, 0x56424c4b, multiples(960, 1, TOTAL)},
        {"CIA-B timer A", {TONE | CIA, 0, 0, 0, LATCH}, false, CIA_SERVER, 0x43494142,
         multiples(cia_period(LATCH), 1, TOTAL)},
        {"AUD0 interrupt", {TONE | AUDIRQ}, false, AUDIO_SERVER, 0x41554430, multiples(AUDIO_BLOCK, 1, TOTAL)},
    };
    const uint32_t piece_sizes[] = {1, 2, 7, 480, 959, 960, 961, 1000, TOTAL};

    for (const Case& k : cases) {
        std::vector<float> first_sound;
        for (uint32_t piece : piece_sizes) {
            SCOPED_TRACE(std::string(k.name) + ", calls of " + std::to_string(piece) + " frames");
            Probe p;
            p.load(player, k.config);
            if (!k.interrupt) p.m.player.interrupt = 0;
            ASSERT_EQ(orvel_start_playback(p.m), 0);
            std::vector<float> sound(2 * TOTAL);
            for (uint64_t s = 0; s < TOTAL; s += piece) {
                uint64_t e = std::min<uint64_t>(s + piece, TOTAL);
                p.m.song_end_count = 0;
                orvel_render(p.m, nullptr, 0);  // no frames: nothing at all happens
                ASSERT_EQ(p.m.song_end_count, 0u) << "at frame " << s;
                orvel_render(p.m, &sound[2 * s], uint32_t(e - s));
                ASSERT_EQ(p.m.frames_rendered, e);

                std::vector<uint64_t> due;
                for (uint64_t f : k.frames)
                    if (k.interrupt ? (f >= s && f < e) : (f > s && f <= e)) due.push_back(f);
                ASSERT_EQ(p.m.song_end_count, due.size()) << "frames " << s << " to " << e;
                if (!due.empty()) {
                    ASSERT_EQ(p.m.song_end_frame, due[0]) << "frames " << s << " to " << e;
                }
            }
            EXPECT_EQ(p.calls(k.counter), k.frames.size());
            if (k.data) {
                EXPECT_EQ(read32(p.m, p.state + ST_DATA), k.data);
            }
            if (first_sound.empty()) {
                first_sound = sound;
                // The probe's calls move AUD0's period (the audio interrupt
                // leaves it): the sound shows when they came.
                EXPECT_GT(*std::max_element(sound.begin(), sound.end()), 0.01f);
            } else {
                EXPECT_EQ(std::memcmp(sound.data(), first_sound.data(), sound.size() * sizeof(float)), 0);
            }
        }
    }
}

TEST(Engine, SeparationNarrowsTheStereoImage) {
    AMIGA_PROGRAM(player, ORVEL_AMIGA_TEST_ENGINE_PROBE);
    constexpr uint32_t FRAMES = 3000;
    auto render = [&](float separation) {
        Probe p;
        p.load(player, Config{});  // channel 0 alone: hard left
        p.m.separation = separation;
        EXPECT_EQ(orvel_start_playback(p.m), 0);
        std::vector<float> out(2 * FRAMES);
        orvel_render(p.m, out.data(), FRAMES);
        return out;
    };
    const std::vector<float> full = render(1.0f);
    float right = 0.0f, left = 0.0f;
    for (uint32_t i = 0; i < FRAMES; i++) {
        left = std::max(left, std::fabs(full[2 * i]));
        right = std::max(right, std::fabs(full[2 * i + 1]));
    }
    ASSERT_GT(left, 0.1f);
    ASSERT_EQ(right, 0.0f);

    for (float s : {0.0f, 0.25f, 0.6f}) {
        SCOPED_TRACE(s);
        const std::vector<float> out = render(s);
        for (uint32_t i = 0; i < FRAMES; i++) {
            float l = full[2 * i], r = full[2 * i + 1];
            ASSERT_NEAR(out[2 * i], (l + r) * 0.5f + (l - r) * 0.5f * s, 1e-6f) << "frame " << i;
            ASSERT_NEAR(out[2 * i + 1], (l + r) * 0.5f - (l - r) * 0.5f * s, 1e-6f) << "frame " << i;
            if (s == 0.0f) {
                ASSERT_EQ(out[2 * i], out[2 * i + 1]) << "frame " << i;
            }
        }
    }
}

TEST(PlayPrintString, PrintableCharactersUpTo64Bytes) {
    struct Case {
        std::string stored, printed;
    };
    const std::string long_name(70, 'x');
    const Case cases[] = {
        {"orvel quartet", "orvel quartet"},
        {"tab\there\x01\x7f\x80\xff!", "tabhere!"},
        {long_name, long_name.substr(0, 64)},
        {std::string(63, '\x01') + "ab", "a"},  // dropped bytes still count
        {"", ""},
    };
    MachinePtr mp = make_machine();
    for (const Case& c : cases) {
        put_string(*mp, 0x3000, c.stored);
        testing::internal::CaptureStdout();
        play_print_string(*mp, 0x3000);
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.stored;
    }
}
